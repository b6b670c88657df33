#pragma once
// The per-channel settings read from one stanza.

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "config/CacheSettings.h"
#include "filter/FilterSet.h"

namespace skorva {

enum class DcKind : int { Automatic = 1, Primary = 2 };

struct ChannelSettings {
    bool useOldApi = false;
    bool suppressText = false;
    bool suppressSourceName = false;
    bool suppressType = false;
    bool suppressTask = false;
    bool suppressOpcode = false;
    bool suppressKeywords = false;
    bool renderXml = false;
    bool currentOnly = false;
    std::string wecEventFormat = "raw_event";
    std::string startFrom = "oldest";
    int32_t batchSize = 10;
    int32_t threadCount = 0;
    int32_t threadWaitMs = 5000;
    uint64_t checkpointIntervalMs = 0;   // all-ones: never
    bool checkpointSync = false;
    bool suppressCheckpoint = false;
    std::wstring checkpointDir;
    std::string index;
    std::string stanzaName;
    std::string source;
    std::string sourceType;
    bool resolveAdObj = false;
    std::wstring dcName;
    std::wstring dnsName;
    DcKind dcKind = DcKind::Automatic;
    EventCodeRanges guidSkipCodes;
    FilterSet filters;  // whitelist and blacklist
    std::set<std::wstring, std::less<>> excludedFields;  // looked up by string_view
    AdCacheSettings adCache;
    uint64_t channelWaitSeconds = 0;
};

}  // namespace skorva
