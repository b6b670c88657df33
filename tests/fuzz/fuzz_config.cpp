// The configuration document the daemon writes on standard input, fed in pieces
// as a pipe delivers it, then every stanza's values through the readers of the
// settings and the filter rules. Whatever the bytes: no crash, no leak, no
// undefined behaviour; a document that cannot be read ends in the platform's
// exception and nothing else.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "config/StanzaValues.h"
#include "filter/FilterParser.h"
#include "modinput/ConfigXmlStreamingParser.h"
#include "platform/SkorvaException.h"

SKORVA_FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace skorva;
    const char* text = reinterpret_cast<const char*>(data);
    ConfigXmlStreamingParser parser;
    try {
        const size_t piece = size ? 1 + data[0] % 97 : 1;
        for (size_t at = 0; at < size; at += piece) parser.feed(text + at, std::min(piece, size - at));
        parser.finish();
    } catch (const SkorvaException&) {
        return 0;
    }
    for (const auto& [name, stanza] : parser.config().stanzas) {
        const StanzaValues values(stanza.params);
        const bool xml = values.getBool("renderXml", false);
        FilterList white, black;
        bool needsMessage = false;
        for (const auto& [key, value] : stanza.params) {
            values.getInt(key, 0);
            values.getUInt(key, 0);
            const bool isWhite = key.rfind("whitelist", 0) == 0;
            if (!isWhite && key.rfind("blacklist", 0) != 0) continue;
            FilterRuleMap rule;
            if (parseFilterValue(key, value, xml, rule)) addFilterRule(key, rule, isWhite, isWhite ? white : black, needsMessage);
        }
        if (values.disabled()) continue;
        parseEventCodeList(values.text("evt_skip_GUID_resolution"), "skipGUIDResolution");
        checkExcludedField(values.text("evt_exclude_fields"), white, black);
    }
    return 0;
}
