// Checkpoint file contents as a disk may hold them after anything: the text read
// back line by line, then parsed as a checkpoint string. A string that parses
// builds again into one that parses to the same pairs.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "checkpoint/WELCheckPointBase.h"

SKORVA_FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace skorva;
    std::string joined;
    WELCheckPointBase::joinLines(std::string_view(reinterpret_cast<const char*>(data), size), joined);
    FUZZ_CHECK(joined.find('\n') == std::string::npos);
    CheckpointMap map;
    if (!WELCheckPointBase::parseCheckpointStr(joined, map)) return 0;
    std::string built;
    if (!WELCheckPointBase::buildCheckpointStr(map, built)) return 0;
    CheckpointMap again;
    FUZZ_CHECK(WELCheckPointBase::parseCheckpointStr(built, again));
    FUZZ_CHECK(again == map);
    return 0;
}
