#pragma once
// The classic text of an event, as it is sent and as the filters read it.

#include <string>

#include "channel/EventRecord.h"

namespace skorva {

// "key=value" per field, "$"-keys by their value alone, each value ended by a
// line feed, the whole trimmed.
void classicText(const EventFields& fields, std::string& out);

// Hands a rendered event to `batch`: a new record takes the handle, the numbers
// and the text as it goes out (the XML SID translation made already, else made
// in `scratch`; kept by the batch);
// `rendered` is emptied for the next event, keeping its storage.
void finishRecord(EventRecord& rendered, EventBatch& batch, std::string& scratch);

}  // namespace skorva
