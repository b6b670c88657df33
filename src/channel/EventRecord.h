#pragma once
// One event as the channel reader hands it to the monitor.

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "channel/EvtApi.h"

namespace skorva {

struct EventRecord {
    UniqueEvtHandle handle;           // the event (owned)
    uint32_t eventCode = 0;
    uint64_t recordNumber = 0;
    uint64_t time = 0;                // seconds since 1970-01-01 UTC, from TimeCreated
    std::wstring publisher;           // provider name
    std::wstring message;             // formatted message text
    std::wstring xml;                 // XML rendering, when asked for
    std::vector<std::pair<std::wstring, std::wstring>> fields;  // classic fields, in order

    // Adds a field unless its key is one of the excluded field names.
    void addField(std::wstring key, std::wstring value, const std::set<std::wstring>& excluded) {
        if (!excluded.empty() && excluded.count(key)) return;
        fields.emplace_back(std::move(key), std::move(value));
    }
};

}  // namespace skorva
