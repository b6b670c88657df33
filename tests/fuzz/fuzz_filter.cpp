// A whitelist or blacklist value and an event's text, both from outside: the
// value as a stanza gives it, the text as any program on the machine may have
// written the event. The rule is parsed and evaluated on the text in classic and
// XML form; every value a key finds must lie inside the text.
//   input: one flag byte (bit 0: XML, bit 1: whitelist), the value, NUL, the text
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "filter/EventTextLookup.h"
#include "filter/FilterParser.h"
#include "filter/FilterSet.h"

SKORVA_FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace skorva;
    if (size < 1) return 0;
    const bool xml = data[0] & 1, white = data[0] & 2;
    const std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
    const size_t nul = rest.find('\0');
    const std::string value(rest.substr(0, nul));
    const std::string_view text = nul == std::string_view::npos ? std::string_view() : rest.substr(nul + 1);

    FilterSet set;
    FilterList& list = white ? set.whitelist : set.blacklist;
    FilterRuleMap rule;
    if (parseFilterValue(white ? "whitelist" : "blacklist", value, xml, rule))
        addFilterRule(white ? "whitelist" : "blacklist", rule, white, list, set.onMessage);
    if (EventCodeRanges codes = parseEventCodeList(value, "whitelist"); !codes.empty()) list.codeLists.push_back(codes);

    set.admitsText(text, xml, "fuzz");
    set.admitsValue("Message", std::string(text), "fuzz");
    set.admitsCode(text.empty() ? 0u : static_cast<uint8_t>(text[0]) * 37u, "fuzz", "Fuzz");
    for (const char* key : {"Message", "EventCode", "Object Type", "$XmlRegex0", "TargetUserName", "LogName"}) {
        for (const bool asXml : {false, true}) {
            std::string_view found;
            if (!lookupEventValue(text, asXml, key, found)) continue;
            FUZZ_CHECK(found.empty() || (found.data() >= text.data() && found.data() + found.size() <= text.data() + text.size()));
        }
    }
    return 0;
}
