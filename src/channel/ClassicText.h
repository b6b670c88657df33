#pragma once
// The classic text of an event, as it is sent and as the filters read it.

#include <string>

#include "channel/EventRecord.h"

namespace skorva {

// "key=value" per field, "$"-keys by their value alone, each value ended by a
// line feed, the whole trimmed.
void classicText(const EventFields& fields, std::string& out);

}  // namespace skorva
