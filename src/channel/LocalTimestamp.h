#pragma once
// The classic text's timestamp: "01/31/2024 09:05:07 PM" in local time.

#include <cstdint>
#include <string>

namespace skorva {

// `fileTime` in 100 ns ticks since 1601 (UTC); false when it does not convert.
bool formatLocalTimestamp(uint64_t fileTime, std::wstring& out);

}  // namespace skorva
