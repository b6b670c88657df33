// Publisher metadata and message formatting.
#include <algorithm>
#include <cstring>

#include "Evtsim.h"
#include "Faults.h"
#include "Internal.h"
#include "Text.h"

namespace evtsim {

namespace {

struct PublisherObj : Object {
    PublisherObj() : Object(Kind::Publisher) {}
    static bool accepts(Kind k) { return k == Kind::Publisher; }
    ProviderDef def;
};

// Names every publisher shares when it defines none of its own.
const char* standardLevel(uint64_t v) {
    static const char* names[] = {nullptr, "Critical", "Error", "Warning", "Information", "Verbose"};
    return v < 6 ? names[v] : nullptr;
}
const char* standardOpcode(uint64_t v) {
    switch (v) {
    case 0: return "Info";
    case 1: return "Start";
    case 2: return "Stop";
    case 3: return "DCStart";
    case 4: return "DCStop";
    case 5: return "Extension";
    case 6: return "Reply";
    case 7: return "Resume";
    case 8: return "Suspend";
    case 9: return "Send";
    case 240: return "Receive";
    default: return nullptr;
    }
}
const std::pair<uint64_t, const char*> kStandardKeywords[] = {
    {0x0001000000000000ull, "Response Time"}, {0x0004000000000000ull, "WDI Diag"},
    {0x0008000000000000ull, "SQM"},           {0x0010000000000000ull, "Audit Failure"},
    {0x0020000000000000ull, "Audit Success"}, {0x0040000000000000ull, "Correlation Hint"},
    {0x0080000000000000ull, "Classic"},
};

const std::string* systemText(const ParsedEvent& p, const char* element) {
    const XmlNode* n = p.system ? p.system->child(element) : nullptr;
    return n ? &n->text : nullptr;
}

std::optional<uint64_t> systemNumber(const ParsedEvent& p, const char* element) {
    const std::string* t = systemText(p, element);
    return t ? parseUnsigned(*t) : std::nullopt;
}

// The insert strings: the caller's values when given, else the event's data in order.
struct Inserts {
    std::vector<std::string> owned;        // the caller's values as text
    std::vector<std::string_view> values;  // one per insert, into `owned` or the event
};

void insertStrings(const ParsedEvent* p, DWORD count, const EVT_VARIANT* values, Inserts& out) {
    if (values && count) {
        for (DWORD i = 0; i < count; ++i) {
            const EVT_VARIANT& v = values[i];
            switch (v.Type) {
            case EvtVarTypeString: out.owned.push_back(v.StringVal ? toUtf8(v.StringVal) : std::string()); break;
            case EvtVarTypeByte: out.owned.push_back(std::to_string(v.ByteVal)); break;
            case EvtVarTypeUInt16: out.owned.push_back(std::to_string(v.UInt16Val)); break;
            case EvtVarTypeUInt32: out.owned.push_back(std::to_string(v.UInt32Val)); break;
            case EvtVarTypeUInt64: out.owned.push_back(std::to_string(v.UInt64Val)); break;
            default: out.owned.emplace_back();
            }
        }
        out.values.assign(out.owned.begin(), out.owned.end());
    } else if (p) {
        out.values.reserve(p->data.size());
        for (const XmlNode* d : p->data) out.values.emplace_back(d->text);
    }
}

// Expands %1..%99 (with an optional !format!), %n, %t, %r and %%; an insert that is
// itself "%%<id>" is replaced by the publisher's parameter string <id>. Returns
// false when an insert had no value (its marker stays in the text).
bool expand(const std::string& tmpl, const std::vector<std::string_view>& inserts, const ProviderDef* def, std::string& out) {
    bool complete = true;
    out.clear();
    for (size_t i = 0; i < tmpl.size(); ++i) {
        char c = tmpl[i];
        if (c != '%' || i + 1 == tmpl.size()) {
            out += c;
            continue;
        }
        char n = tmpl[i + 1];
        if (n == 'n') out += "\r\n", ++i;
        else if (n == 't') out += '\t', ++i;
        else if (n == 'r') out += '\r', ++i;
        else if (n == '%') out += '%', ++i;
        else if (n >= '1' && n <= '9') {
            size_t j = i + 1;
            unsigned idx = 0;
            while (j < tmpl.size() && j < i + 3 && tmpl[j] >= '0' && tmpl[j] <= '9') idx = idx * 10 + static_cast<unsigned>(tmpl[j++] - '0');
            if (j < tmpl.size() && tmpl[j] == '!') {
                size_t close = tmpl.find('!', j + 1);
                if (close != std::string::npos) j = close + 1;
            }
            if (idx <= inserts.size()) {
                const std::string_view value = inserts[idx - 1];
                auto param = value.size() > 2 && value[0] == '%' && value[1] == '%' ? parseUnsigned(value.substr(2)) : std::nullopt;
                auto it = def && param ? def->strings.find(static_cast<uint32_t>(*param)) : decltype(def->strings.end()){};
                if (def && param && it != def->strings.end()) out += it->second;
                else out += value;
            } else {
                out.append(tmpl, i, j - i);
                complete = false;
            }
            i = j - 1;
        } else {
            out += c;
        }
    }
    return complete;
}

// Result of one formatting request, before the buffer protocol. The text stays
// UTF-8 until it is written to the caller's buffer; names the publisher or the
// event already hold are referred to, not copied.
struct Formatted {
    DWORD error = 0;                   // 0, or the error to report
    bool hasText = false;              // text is written even with an error (unresolved inserts)
    std::string own;                   // without the final terminator; keyword lists carry inner NULs
    const std::string* ref = nullptr;  // text held elsewhere, used instead of `own`
    std::string_view text() const { return ref ? std::string_view(*ref) : std::string_view(own); }
};

Formatted textOf(const std::string& kept) {
    Formatted f{0, true, {}, &kept};
    return f;
}
Formatted ownText(std::string text) { return {0, true, std::move(text), nullptr}; }
Formatted failure(DWORD e) { return {e, false, {}, nullptr}; }

Formatted keywordList(const std::vector<std::string>& names) {
    Formatted f{0, true, {}, nullptr};
    for (const auto& n : names) {
        f.own += n;
        f.own += '\0';
    }
    return f;  // the terminator added on output ends the list
}

// Formats from the publisher's resources.
Formatted formatWithPublisher(const ProviderDef& def, const ParsedEvent* p, DWORD messageId, DWORD flags,
                              const std::vector<std::string_view>& inserts);

Formatted lookupName(const std::map<uint32_t, std::string>& names, std::optional<uint64_t> v, const char* (*standard)(uint64_t)) {
    if (!v) return failure(ERROR_EVT_MESSAGE_ID_NOT_FOUND);
    auto it = names.find(static_cast<uint32_t>(*v));
    if (it != names.end()) return textOf(it->second);
    if (standard)
        if (const char* s = standard(*v)) return ownText(s);
    return failure(ERROR_EVT_MESSAGE_ID_NOT_FOUND);
}

std::vector<std::string> keywordNames(const ProviderDef& def, uint64_t mask) {
    std::vector<std::string> names;
    for (const auto& [bits, name] : def.keywords)
        if (bits && (mask & bits) == bits) names.push_back(name);
    for (const auto& [bits, name] : kStandardKeywords)
        if ((mask & bits) == bits && std::none_of(def.keywords.begin(), def.keywords.end(), [&](const auto& k) { return k.first == bits; }))
            names.push_back(name);
    return names;
}

std::string renderingInfoXml(const ProviderDef* def, const ParsedEvent& p, const std::vector<std::string_view>& inserts) {
    auto part = [&](DWORD flag) {
        Formatted f = def ? formatWithPublisher(*def, &p, 0, flag, inserts) : failure(1);
        return f.hasText ? std::string(f.text()) : std::string();
    };
    std::string out = "<RenderingInfo Culture='en-US'>";
    const std::pair<DWORD, const char*> items[] = {{EvtFormatMessageEvent, "Message"}, {EvtFormatMessageLevel, "Level"},
                                                   {EvtFormatMessageTask, "Task"},     {EvtFormatMessageOpcode, "Opcode"},
                                                   {EvtFormatMessageChannel, "Channel"}, {EvtFormatMessageProvider, "Provider"}};
    for (const auto& [flag, name] : items) {
        out += std::string("<") + name + ">";
        appendEscaped(out, part(flag), false);
        out += std::string("</") + name + ">";
    }
    out += "<Keywords>";
    if (def)
        for (const auto& k : keywordNames(*def, systemNumber(p, "Keywords").value_or(0))) {
            out += "<Keyword>";
            appendEscaped(out, k, false);
            out += "</Keyword>";
        }
    out += "</Keywords></RenderingInfo>";
    return out;
}

Formatted eventXml(const EventObj& ev, const ProviderDef* def, const std::vector<std::string_view>& inserts) {
    const ParsedEvent& p = ev.parsed();
    std::string xml(ev.xml());
    if (!p.rendering) {
        size_t close = xml.rfind("</");
        if (close == std::string::npos) return failure(ERROR_EVT_INVALID_EVENT_DATA);
        xml.insert(close, renderingInfoXml(def, p, inserts));
    }
    return ownText(std::move(xml));
}

Formatted formatWithPublisher(const ProviderDef& def, const ParsedEvent* p, DWORD messageId, DWORD flags,
                              const std::vector<std::string_view>& inserts) {
    if (!def.resources) return failure(ERROR_EVT_MESSAGE_LOCALE_NOT_FOUND);
    switch (flags) {
    case EvtFormatMessageEvent: {
        auto id = systemNumber(*p, "EventID");
        auto it = id ? def.events.find(static_cast<uint32_t>(*id)) : def.events.end();
        if (it == def.events.end()) return failure(ERROR_EVT_MESSAGE_NOT_FOUND);
        Formatted f{0, true, {}, nullptr};
        if (!expand(it->second, inserts, &def, f.own)) f.error = ERROR_EVT_UNRESOLVED_VALUE_INSERT;
        return f;
    }
    case EvtFormatMessageLevel: return lookupName(def.levels, systemNumber(*p, "Level"), standardLevel);
    case EvtFormatMessageTask: return lookupName(def.tasks, systemNumber(*p, "Task"), nullptr);
    case EvtFormatMessageOpcode: return lookupName(def.opcodes, systemNumber(*p, "Opcode"), standardOpcode);
    case EvtFormatMessageKeyword: return keywordList(keywordNames(def, systemNumber(*p, "Keywords").value_or(0)));
    case EvtFormatMessageChannel: {
        const std::string* ch = systemText(*p, "Channel");
        auto it = ch ? def.channels.find(*ch) : def.channels.end();
        return it == def.channels.end() ? failure(ERROR_EVT_MESSAGE_ID_NOT_FOUND) : textOf(it->second);
    }
    case EvtFormatMessageProvider:
        return def.displayName.empty() ? failure(ERROR_EVT_MESSAGE_ID_NOT_FOUND) : textOf(def.displayName);
    case EvtFormatMessageId: {
        auto it = def.strings.find(messageId);
        if (it == def.strings.end()) return failure(ERROR_EVT_MESSAGE_ID_NOT_FOUND);
        Formatted f{0, true, {}, nullptr};
        if (!expand(it->second, inserts, &def, f.own)) f.error = ERROR_EVT_UNRESOLVED_VALUE_INSERT;
        return f;
    }
    default: return failure(ERROR_INVALID_PARAMETER);
    }
}

// Formats from the texts a forwarded event carries with it.
Formatted formatFromRenderingInfo(const ParsedEvent& p, DWORD flags) {
    const XmlNode* ri = p.rendering;
    DWORD missing = flags == EvtFormatMessageEvent ? ERROR_EVT_MESSAGE_NOT_FOUND : ERROR_EVT_MESSAGE_ID_NOT_FOUND;
    if (!ri) return failure(missing);
    if (flags == EvtFormatMessageKeyword) {
        const XmlNode* kws = ri->child("Keywords");
        if (!kws) return failure(missing);
        std::vector<std::string> names;
        for (const auto& k : kws->children) names.push_back(k.text);
        return keywordList(names);
    }
    static const char* names[] = {nullptr, "Message", "Level", "Task", "Opcode", nullptr, "Channel", "Provider"};
    const XmlNode* n = flags < 8 && names[flags] ? ri->child(names[flags]) : nullptr;
    return n ? textOf(n->text) : failure(missing);
}

}  // namespace

EVT_HANDLE WINAPI EvtOpenPublisherMetadata(EVT_HANDLE Session, LPCWSTR PublisherIdentity, LPCWSTR LogFilePath,
                                           LCID Locale, DWORD Flags) {
    (void)Locale;
    if (Session) return failWith<EVT_HANDLE>(RPC_S_UNKNOWN_IF, nullptr);
    if (!PublisherIdentity || LogFilePath || Flags != 0) return failWith<EVT_HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    std::string name = toUtf8(PublisherIdentity);
    if (DWORD f = injectedFault("EvtOpenPublisherMetadata", name)) return failWith<EVT_HANDLE>(f, nullptr);
    auto pub = std::make_unique<PublisherObj>();
    std::wstring root = storeRoot();
    if (root.empty() || !loadProvider(root, name, pub->def)) return failWith<EVT_HANDLE>(ERROR_FILE_NOT_FOUND, nullptr);
    return registerObject(std::move(pub));
}

BOOL WINAPI EvtFormatMessage(EVT_HANDLE PublisherMetadata, EVT_HANDLE Event, DWORD MessageId, DWORD ValueCount,
                             PEVT_VARIANT Values, DWORD Flags, DWORD BufferSize, LPWSTR Buffer, PDWORD BufferUsed) {
    if (!BufferUsed || (!Buffer && BufferSize != 0) || Flags < EvtFormatMessageEvent || Flags > EvtFormatMessageXml)
        return failWith(ERROR_INVALID_PARAMETER, FALSE);
    *BufferUsed = 0;
    PublisherObj* pub = nullptr;
    EventObj* ev = nullptr;
    if (PublisherMetadata && !(pub = lookupAs<PublisherObj>(PublisherMetadata))) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (Event && !(ev = lookupAs<EventObj>(Event))) return failWith(ERROR_INVALID_HANDLE, FALSE);
    bool needsEvent = Flags != EvtFormatMessageId && Flags != EvtFormatMessageProvider;
    if ((needsEvent && !ev) || (!pub && !ev) || (Flags == EvtFormatMessageId && !pub)) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    const ParsedEvent* p = ev ? &ev->parsed() : nullptr;
    if (p && !p->event) return failWith(ERROR_EVT_INVALID_EVENT_DATA, FALSE);

    std::string_view target;
    if (pub) target = pub->def.name;
    else if (const XmlNode* prov = p && p->system ? p->system->child("Provider") : nullptr; prov && prov->attr("Name"))
        target = *prov->attr("Name");
    if (DWORD f = injectedFault("EvtFormatMessage", target)) return failWith(f, FALSE);

    // Only messages take inserts; names of levels, tasks and the like do not, and
    // copying an event's data for each of them would dominate the call.
    const bool takesInserts = Flags == EvtFormatMessageEvent || Flags == EvtFormatMessageId || Flags == EvtFormatMessageXml;
    Inserts inserts;
    if (takesInserts) insertStrings(p, ValueCount, Values, inserts);
    Formatted result;
    if (Flags == EvtFormatMessageXml) {
        if (pub && !pub->def.resources) result = failure(ERROR_EVT_MESSAGE_LOCALE_NOT_FOUND);
        else result = eventXml(*ev, pub ? &pub->def : nullptr, inserts.values);
    } else if (pub) {
        result = formatWithPublisher(pub->def, p, MessageId, Flags, inserts.values);
    } else {
        result = formatFromRenderingInfo(*p, Flags);
    }
    if (!result.hasText) return failWith(result.error, FALSE);
    const std::string_view text = result.text();
    const size_t chars = wideLength(text);
    DWORD need = static_cast<DWORD>(chars + 1);
    *BufferUsed = need;
    if (BufferSize < need) return failWith(ERROR_INSUFFICIENT_BUFFER, FALSE);
    toWideInto(text, Buffer, chars);
    Buffer[chars] = L'\0';
    if (result.error) return failWith(result.error, FALSE);
    return TRUE;
}

}  // namespace evtsim
