// Publisher metadata and message formatting.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>

#include "Evtsim.h"
#include "Faults.h"
#include "Internal.h"
#include "Text.h"

namespace evtsim {

namespace {

struct PublisherObj : Object {
    PublisherObj() : Object(Kind::Publisher) {}
    static bool accepts(Kind k) { return k == Kind::Publisher; }
    std::shared_ptr<const ProviderDef> def;
};

// The names Winmeta.xml defines, which the service formats for every publisher
// that uses them and for events formatted without a publisher handle (the
// EvtFormatMessage documentation: "You can also set this parameter to NULL if the
// event property that you are formatting is defined in the Winmeta.xml file").
// Display names as providers list them (logman query providers: "win:LogAlways
// Log Always", "win:EventlogClassic Classic"; beats winlogbeat/sys/wineventlog/winmeta.go).
const char* standardLevel(uint64_t v) {
    static const char* names[] = {"Log Always", "Critical", "Error", "Warning", "Information", "Verbose"};
    return v < 6 ? names[v] : nullptr;
}
const char* standardTask(uint64_t v) { return v == 0 ? "None" : nullptr; }
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
    {0x0001000000000000ull, "Response Time"}, {0x0002000000000000ull, "WDI Context"},
    {0x0004000000000000ull, "WDI Diag"},      {0x0008000000000000ull, "SQM"},
    {0x0010000000000000ull, "Audit Failure"}, {0x0020000000000000ull, "Audit Success"},
    {0x0040000000000000ull, "Correlation Hint"}, {0x0080000000000000ull, "Classic"},
};

const std::string* systemText(const ParsedEvent& p, const char* element) {
    const XmlNode* n = p.system ? p.system->child(element) : nullptr;
    return n ? &n->text : nullptr;
}

std::optional<uint64_t> systemNumber(const ParsedEvent& p, const char* element) {
    const std::string* t = systemText(p, element);
    return t ? parseUnsigned(*t) : std::nullopt;
}

// The insert strings: the caller's values when given, else the event's data values
// in order, typed by the publisher's template when there is one.
// A call's inserts and texts, in buffers the calling thread reuses from call to
// call: the service does not serialise its readers on one heap, and a stand-in
// allocating a dozen times per message under Wine's single-lock heap would make
// two threads formatting at once wait on each other.
struct Inserts {
    std::vector<std::string> owned;        // texts made for this call: the first `used`
    size_t used = 0;
    std::vector<std::string_view> values;  // one per insert, into `owned` or the event
    std::vector<DataValue> bound;
    std::string& next() {
        if (used == owned.size()) owned.emplace_back();
        std::string& text = owned[used++];
        text.clear();
        return text;
    }
    void clear() {
        used = 0;
        values.clear();
    }
};

struct FormatScratch {
    Inserts inserts;
    std::string text;                      // the text of the last message or keyword list
    std::vector<std::string_view> names;   // keyword names
};

std::string variantText(const EVT_VARIANT& v) {
    char buf[32];
    switch (v.Type) {
    case EvtVarTypeString: return v.StringVal ? toUtf8(v.StringVal) : std::string();
    case EvtVarTypeSByte: return std::to_string(v.SByteVal);
    case EvtVarTypeByte: return std::to_string(v.ByteVal);
    case EvtVarTypeInt16: return std::to_string(v.Int16Val);
    case EvtVarTypeUInt16: return std::to_string(v.UInt16Val);
    case EvtVarTypeInt32: return std::to_string(v.Int32Val);
    case EvtVarTypeUInt32: return std::to_string(v.UInt32Val);
    case EvtVarTypeInt64: return std::to_string(v.Int64Val);
    case EvtVarTypeUInt64: return std::to_string(v.UInt64Val);
    case EvtVarTypeBoolean: return v.BooleanVal ? "true" : "false";
    case EvtVarTypeHexInt32: std::snprintf(buf, sizeof buf, "0x%X", v.UInt32Val); return buf;
    case EvtVarTypeHexInt64:
    case EvtVarTypeSizeT:
        std::snprintf(buf, sizeof buf, "0x%llX", static_cast<unsigned long long>(v.UInt64Val));
        return buf;
    case EvtVarTypeFileTime: return formatSystemTime(v.FileTimeVal);
    case EvtVarTypeGuid: return v.GuidVal ? formatGuid(*v.GuidVal) : std::string();
    case EvtVarTypeSid: return v.SidVal ? formatSid(v.SidVal) : std::string();
    default: return std::string();
    }
}

const std::vector<TemplateItem>* templateOf(const ProviderDef* def, const ParsedEvent& p) {
    auto id = systemNumber(p, "EventID");
    if (!def || !id) return nullptr;
    auto it = def->templates.find(static_cast<uint32_t>(*id));
    return it == def->templates.end() ? nullptr : &it->second;
}

void insertStrings(const ParsedEvent* p, const ProviderDef* def, DWORD count, const EVT_VARIANT* values, Inserts& out) {
    out.clear();
    if (values && count) {
        for (DWORD i = 0; i < count; ++i) out.next() = variantText(values[i]);
        out.values.assign(out.owned.begin(), out.owned.begin() + static_cast<std::ptrdiff_t>(out.used));
        return;
    }
    if (!p) return;
    const std::vector<DataValue>& bound = out.bound;
    bindTemplate(p->data, templateOf(def, *p), out.bound);
    // Strings are used in place; a typed value reads as the formatter writes it,
    // an array as its elements joined by ", ". Views are taken once every text is made.
    for (const DataValue& v : bound) {
        if (v.type == EvtVarTypeString && !v.array) continue;
        std::string& text = out.next();
        for (size_t i = 0; i < v.count; ++i) {
            if (i) text += ", ";
            text += insertText(v.type, p->data[v.first + i]->text);
        }
    }
    size_t next = 0;
    for (const DataValue& v : bound) {
        if (v.type == EvtVarTypeString && !v.array) out.values.emplace_back(p->data[v.first]->text);
        else out.values.emplace_back(out.owned[next++]);
    }
}

// Expands %1..%99 (with an optional !format!), %n, %t, %r and %%; an insert that is
// itself "%%<id>" is replaced by the publisher's parameter string <id>. Returns 0,
// or the error the service reports with the text: ERROR_EVT_UNRESOLVED_VALUE_INSERT
// when an insert had no value (its marker stays in the text),
// ERROR_EVT_UNRESOLVED_PARAMETER_INSERT when a parameter string is missing (the
// insert stays as it is).
DWORD expand(const std::string& tmpl, const std::vector<std::string_view>& inserts, const ProviderDef* def, std::string& out) {
    DWORD error = 0;
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
                if (param && (!def || it == def->strings.end()) && !error) error = ERROR_EVT_UNRESOLVED_PARAMETER_INSERT;
            } else {
                out.append(tmpl, i, j - i);
                error = ERROR_EVT_UNRESOLVED_VALUE_INSERT;
            }
            i = j - 1;
        } else {
            out += c;
        }
    }
    return error;
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

Formatted keywordList(const std::vector<std::string_view>& names, std::string& text) {
    text.clear();
    for (const auto& n : names) {
        text += n;
        text += '\0';
    }
    return textOf(text);  // the terminator added on output ends the list
}

// Formats from the publisher's resources.
Formatted formatWithPublisher(const ProviderDef& def, const ParsedEvent* p, DWORD messageId, DWORD flags,
                              const std::vector<std::string_view>& inserts, FormatScratch& scratch);

Formatted lookupName(const std::map<uint32_t, std::string>& names, std::optional<uint64_t> v, const char* (*standard)(uint64_t)) {
    if (!v) return failure(ERROR_EVT_MESSAGE_ID_NOT_FOUND);
    auto it = names.find(static_cast<uint32_t>(*v));
    if (it != names.end()) return textOf(it->second);
    if (standard)
        if (const char* s = standard(*v)) return ownText(s);
    return failure(ERROR_EVT_MESSAGE_ID_NOT_FOUND);
}

// The publisher's names of the bits set in `mask`, then the Winmeta names of the others.
const std::vector<std::string_view>& keywordNames(const ProviderDef* def, uint64_t mask,
                                                 std::vector<std::string_view>& names) {
    static const std::vector<std::pair<uint64_t, std::string>> none;
    const auto& own = def ? def->keywords : none;
    names.clear();
    for (const auto& [bits, name] : own)
        if (bits && (mask & bits) == bits) names.push_back(name);
    for (const auto& [bits, name] : kStandardKeywords)
        if ((mask & bits) == bits && std::none_of(own.begin(), own.end(), [&](const auto& k) { return k.first == bits; }))
            names.push_back(name);
    return names;
}

std::string renderingInfoXml(const ProviderDef* def, const ParsedEvent& p, const std::vector<std::string_view>& inserts) {
    FormatScratch scratch;  // not the caller's: its inserts are in use
    auto part = [&](DWORD flag) {
        Formatted f = def ? formatWithPublisher(*def, &p, 0, flag, inserts, scratch) : failure(1);
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
        for (const auto& k : keywordNames(def, systemNumber(p, "Keywords").value_or(0), scratch.names)) {
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
                              const std::vector<std::string_view>& inserts, FormatScratch& scratch) {
    if (def.missingResources) return failure(def.missingResources);
    switch (flags) {
    case EvtFormatMessageEvent: {
        auto id = systemNumber(*p, "EventID");
        auto it = id ? def.events.find(static_cast<uint32_t>(*id)) : def.events.end();
        if (it == def.events.end()) return failure(ERROR_EVT_MESSAGE_NOT_FOUND);
        Formatted f = textOf(scratch.text);
        f.error = expand(it->second, inserts, &def, scratch.text);
        return f;
    }
    case EvtFormatMessageLevel: return lookupName(def.levels, systemNumber(*p, "Level"), standardLevel);
    case EvtFormatMessageTask: return lookupName(def.tasks, systemNumber(*p, "Task"), standardTask);
    case EvtFormatMessageOpcode: return lookupName(def.opcodes, systemNumber(*p, "Opcode"), standardOpcode);
    case EvtFormatMessageKeyword:
        return keywordList(keywordNames(&def, systemNumber(*p, "Keywords").value_or(0), scratch.names), scratch.text);
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
        Formatted f = textOf(scratch.text);
        f.error = expand(it->second, inserts, &def, scratch.text);
        return f;
    }
    default: return failure(ERROR_INVALID_PARAMETER);
    }
}

// Formats without a publisher: from the texts a forwarded event carries with it
// (RenderingInfo), else the names Winmeta.xml defines.
Formatted formatWithoutPublisher(const ParsedEvent& p, DWORD flags, FormatScratch& scratch) {
    const XmlNode* ri = p.rendering;
    DWORD missing = flags == EvtFormatMessageEvent ? ERROR_EVT_MESSAGE_NOT_FOUND : ERROR_EVT_MESSAGE_ID_NOT_FOUND;
    if (flags == EvtFormatMessageKeyword) {
        if (const XmlNode* kws = ri ? ri->child("Keywords") : nullptr) {
            scratch.names.clear();
            for (const auto& k : kws->children) scratch.names.emplace_back(k.text);
            return keywordList(scratch.names, scratch.text);
        }
        return keywordList(keywordNames(nullptr, systemNumber(p, "Keywords").value_or(0), scratch.names), scratch.text);
    }
    static const char* names[] = {nullptr, "Message", "Level", "Task", "Opcode", nullptr, "Channel", "Provider"};
    if (const XmlNode* n = ri && flags < 8 && names[flags] ? ri->child(names[flags]) : nullptr) return textOf(n->text);
    static const std::map<uint32_t, std::string> none;
    switch (flags) {
    case EvtFormatMessageLevel: return lookupName(none, systemNumber(p, "Level"), standardLevel);
    case EvtFormatMessageTask: return lookupName(none, systemNumber(p, "Task"), standardTask);
    case EvtFormatMessageOpcode: return lookupName(none, systemNumber(p, "Opcode"), standardOpcode);
    default: return failure(missing);
    }
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
    if (!root.empty()) pub->def = cachedProvider(root, name);
    if (!pub->def) return failWith<EVT_HANDLE>(ERROR_FILE_NOT_FOUND, nullptr);
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
    const ProviderDef* def = pub ? pub->def.get() : nullptr;

    std::string_view target;
    if (def) target = def->name;
    else if (const XmlNode* prov = p && p->system ? p->system->child("Provider") : nullptr; prov && prov->attr("Name"))
        target = *prov->attr("Name");
    if (DWORD f = injectedFault("EvtFormatMessage", target)) return failWith(f, FALSE);

    // Only messages take inserts; names of levels, tasks and the like do not, and
    // copying an event's data for each of them would dominate the call.
    const bool takesInserts = Flags == EvtFormatMessageEvent || Flags == EvtFormatMessageId || Flags == EvtFormatMessageXml;
    std::unique_ptr<FormatScratch> own;  // only when the thread has no storage for it
    FormatScratch* scratch = threadOwn<FormatScratch>();
    if (!scratch) scratch = (own = std::make_unique<FormatScratch>()).get();
    Inserts& inserts = scratch->inserts;
    inserts.clear();
    if (takesInserts) insertStrings(p, def, ValueCount, Values, inserts);
    Formatted result;
    if (Flags == EvtFormatMessageXml) {
        if (def && def->missingResources) result = failure(def->missingResources);
        else result = eventXml(*ev, def, inserts.values);
    } else if (def) {
        result = formatWithPublisher(*def, p, MessageId, Flags, inserts.values, *scratch);
    } else {
        result = formatWithoutPublisher(*p, Flags, *scratch);
    }
    if (!result.hasText) return failWith(result.error, FALSE);
    const std::string_view text = result.text();
    const size_t chars = wideLength(text);
    const DWORD need = static_cast<DWORD>(chars + 1);
    *BufferUsed = need;
    // Without a buffer: the size, and the formatting error in place of
    // ERROR_INSUFFICIENT_BUFFER when there is one (microsoft/windows-container-tools
    // #64 sizes on ERROR_EVT_UNRESOLVED_VALUE_INSERT as on 122).
    if (BufferSize == 0) return failWith(result.error ? result.error : ERROR_INSUFFICIENT_BUFFER, FALSE);
    if (BufferSize >= need) {
        toWideInto(text, Buffer, chars);
        Buffer[chars] = L'\0';
    } else {
        // A buffer too small is not refused: what fits is copied, terminated, and
        // the call succeeds with the full size in BufferUsed (beats
        // winlogbeat/sys/wineventlog/format_message.go).
        std::wstring whole(chars, L'\0');
        toWideInto(text, whole.data(), chars);
        std::memcpy(Buffer, whole.data(), (BufferSize - 1) * sizeof(wchar_t));
        Buffer[BufferSize - 1] = L'\0';
    }
    if (result.error) return failWith(result.error, FALSE);
    return TRUE;
}

}  // namespace evtsim
