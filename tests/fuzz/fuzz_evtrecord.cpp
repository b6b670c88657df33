// A ReadEventLogW buffer as a damaged or hostile log may fill it: every record
// the parser hands out, and every text, SID and data in it, lies inside the
// buffer, and the parse ends.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "FuzzSupport.h"
#include "channel/EventLogRecordParser.h"

SKORVA_FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace skorva;
    // A copy of exactly `size` bytes, so that a read past the end is caught.
    const std::vector<uint8_t> buffer(data, data + size);
    const uint8_t* begin = buffer.data();
    const uint8_t* end = begin + buffer.size();
    const auto inside = [&](const void* p, size_t bytes) {
        const auto* b = static_cast<const uint8_t*>(p);
        return bytes == 0 || (b >= begin && b + bytes <= end);
    };
    EventLogRecordParser parser(begin, buffer.size());
    EventLogRecordView record;
    for (size_t steps = 0;; ++steps) {
        FUZZ_CHECK(steps <= size / 4 + 1);  // every step consumes a record of 56 bytes or more, or ends
        const EventLogRecordParser::Result r = parser.next(record);
        if (r == EventLogRecordParser::Result::End || r == EventLogRecordParser::Result::Broken) break;
        if (r != EventLogRecordParser::Result::Record) continue;
        FUZZ_CHECK(inside(record.source.data(), record.source.size() * 2));
        FUZZ_CHECK(inside(record.computer.data(), record.computer.size() * 2));
        FUZZ_CHECK(inside(record.sid, record.sidLength));
        FUZZ_CHECK(inside(record.data, record.dataLength));
        for (const auto& s : record.strings) FUZZ_CHECK(inside(s.data(), s.size() * 2));
    }
    return 0;
}
