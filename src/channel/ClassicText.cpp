#include "channel/ClassicText.h"

#include "platform/Strings.h"

namespace skorva {

void classicText(const EventFields& fields, std::string& out) {
    out.clear();
    for (const auto [key, value] : fields) {
        if (!key.empty() && key[0] != L'$') {
            appendNarrow(key, out);
            out += '=';
        }
        appendNarrow(value, out);
        if (value.empty() || value.back() != L'\n') out += '\n';
    }
    size_t end = out.size();
    while (end > 0 && isSpace(out[end - 1])) --end;
    out.resize(end);
    size_t begin = 0;
    while (begin < out.size() && isSpace(out[begin])) ++begin;
    out.erase(0, begin);
}

void finishRecord(EventRecord& rendered, EventBatch& batch, std::string& scratch) {
    if (rendered.xmlText.empty()) {
        if (!rendered.xml.empty())
            narrowInto(rendered.xml, scratch);
        else
            classicText(rendered.fields, scratch);
    }
    EventRecord& out = batch.emplace_back();
    out.text = batch.keepText(rendered.xmlText.empty() ? scratch : rendered.xmlText);
    out.noMessage = rendered.xml.empty() && rendered.message.empty();
    out.handle = std::move(rendered.handle);
    out.eventCode = rendered.eventCode;
    out.recordNumber = rendered.recordNumber;
    out.time = rendered.time;
    out.tokenRules = rendered.tokenRules;
    rendered.reset();
}

}  // namespace skorva
