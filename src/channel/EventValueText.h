#pragma once
// One event data value as message text, as the event's XML writes it.

#include <string>

#include "eventlog/EvtApi.h"

namespace skorva {

// Appends `v` to `out`: strings as they are, numbers in decimal, hexadecimal
// types and pointers as 0x..., GUIDs, SIDs, times and binary data as the
// event's XML writes them, an array's elements joined by ", ". False (and
// nothing appended) for a value with nothing to show.
bool appendValueText(const EVT_VARIANT& v, std::wstring& out);

}  // namespace skorva
