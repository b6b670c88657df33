#pragma once
// Settings of the directory-object and SID look-up caches, read from a stanza.

#include <cstdint>

namespace skorva {

// Settings of a channel's directory-object cache.
struct AdCacheSettings {
    bool disabled = false;
    bool derived = false;          // hit threshold computed
    uint64_t expiryMs = 3600000;
    uint64_t negativeExpiryMs = 10000;
    uint32_t maxEntries = 1000;
    uint32_t hitThreshold = 0;
};

// The process-wide SID cache settings (taken from the first configured stanza).
struct SidCacheSettings {
    bool disabled = false;
    uint64_t expiryMs = 3600000;
    uint64_t negativeExpiryMs = 10000;
    uint64_t maxEntries = 1000;
};

}  // namespace skorva
