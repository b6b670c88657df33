// Rendering events (values through a render context, XML) and bookmarks.
#include <algorithm>
#include <array>
#include <iterator>
#include <cstring>

#include "Evtsim.h"
#include "Faults.h"
#include "Internal.h"
#include "Text.h"
#include "SrwLock.h"

namespace evtsim {

namespace {

struct Step {
    std::string name;
    std::string attrName, attrValue;  // [@attrName='attrValue']
    int index = 0;                    // [n], 1-based
};

struct ValuePath {
    std::vector<Step> steps;  // below the root element
    std::string attr;         // final @attribute, or empty for the element's text
    EVT_VARIANT_TYPE type = EvtVarTypeString;
    bool data = false;        // leads into EventData or UserData: typed by the provider's template
    int system = -1;          // a system value: its place in kSystemValues
};

// System values and their types, in the order of EVT_SYSTEM_PROPERTY_ID.
struct SystemValue {
    const char* element;
    const char* attr;
    EVT_VARIANT_TYPE type;
};
constexpr SystemValue kSystemValues[] = {
    {"Provider", "Name", EvtVarTypeString},
    {"Provider", "Guid", EvtVarTypeGuid},
    {"EventID", "", EvtVarTypeUInt16},
    {"EventID", "Qualifiers", EvtVarTypeUInt16},
    {"Level", "", EvtVarTypeByte},
    {"Task", "", EvtVarTypeUInt16},
    {"Opcode", "", EvtVarTypeByte},
    {"Keywords", "", EvtVarTypeHexInt64},
    {"TimeCreated", "SystemTime", EvtVarTypeFileTime},
    {"EventRecordID", "", EvtVarTypeUInt64},
    {"Correlation", "ActivityID", EvtVarTypeGuid},
    {"Correlation", "RelatedActivityID", EvtVarTypeGuid},
    {"Execution", "ProcessID", EvtVarTypeUInt32},
    {"Execution", "ThreadID", EvtVarTypeUInt32},
    {"Channel", "", EvtVarTypeString},
    {"Computer", "", EvtVarTypeString},
    {"Security", "UserID", EvtVarTypeSid},
    {"Version", "", EvtVarTypeByte},
};
static_assert(sizeof(kSystemValues) / sizeof(kSystemValues[0]) == EvtSystemPropertyIdEND);

struct RenderContextObj : Object {
    RenderContextObj() : Object(Kind::RenderContext) {}
    static bool accepts(Kind k) { return k == Kind::RenderContext; }
    DWORD flags = 0;
    std::vector<ValuePath> paths;
    bool allSystem = false;  // every path is a system value
};

// One system value's text in a record, as the System element holds it.
struct SystemField {
    std::string_view text;
    bool present = false;
};
using SystemFields = std::array<SystemField, EvtSystemPropertyIdEND>;

// Finds every system value of a record by one pass over its System element
// alone. The service keeps events in binary form, so rendering their system
// values never parses the whole event and costs a fraction of rendering its
// XML; this keeps that proportion. False for a record it cannot read this way
// (an entity in a value, a layout other than the service's), which then goes
// through the full parse.
bool scanSystem(std::string_view xml, SystemFields& out) {
    out.fill(SystemField{});
    const size_t open = xml.find("<System>");
    const size_t close = open == std::string_view::npos ? open : xml.find("</System>", open);
    if (close == std::string_view::npos) return false;
    const std::string_view sys = xml.substr(open + 8, close - open - 8);
    const auto put = [&](std::string_view element, std::string_view attr, std::string_view value) {
        if (value.find('&') != std::string_view::npos) return false;
        for (size_t k = 0; k < out.size(); ++k)
            if (element == kSystemValues[k].element && attr == kSystemValues[k].attr) out[k] = {value, true};
        return true;
    };
    size_t pos = 0;
    while (pos < sys.size()) {
        if (sys[pos] != '<') return false;
        const size_t nameEnd = sys.find_first_of(" />", pos + 1);
        if (nameEnd == std::string_view::npos) return false;
        const std::string_view element = sys.substr(pos + 1, nameEnd - pos - 1);
        pos = nameEnd;
        while (pos < sys.size() && sys[pos] == ' ') {
            const size_t eq = sys.find('=', pos + 1);
            if (eq == std::string_view::npos || eq + 1 >= sys.size() || (sys[eq + 1] != '\'' && sys[eq + 1] != '"'))
                return false;
            const size_t end = sys.find(sys[eq + 1], eq + 2);
            if (end == std::string_view::npos || !put(element, sys.substr(pos + 1, eq - pos - 1), sys.substr(eq + 2, end - eq - 2)))
                return false;
            pos = end + 1;
        }
        if (sys.substr(pos, 2) == "/>") {
            pos += 2;
            continue;
        }
        if (pos >= sys.size() || sys[pos] != '>') return false;
        const size_t textEnd = sys.find('<', pos + 1);
        if (textEnd == std::string_view::npos || sys.substr(textEnd, 2) != "</" || !put(element, {}, sys.substr(pos + 1, textEnd - pos - 1)))
            return false;
        const size_t endTag = sys.find('>', textEnd);
        if (endTag == std::string_view::npos) return false;
        pos = endTag + 1;
    }
    return true;
}

ValuePath systemPath(const SystemValue& v) {
    ValuePath p;
    p.steps.resize(2);
    p.steps[0].name = "System";
    p.steps[1].name = v.element;
    p.attr = v.attr;
    p.type = v.type;
    return p;
}

bool parsePath(std::wstring_view wide, ValuePath& out) {
    std::string path = toUtf8(wide);
    std::string_view s(path);
    while (!s.empty() && s.front() == '/') s.remove_prefix(1);
    std::vector<std::string_view> parts;
    size_t start = 0;
    char quote = 0;
    for (size_t i = 0; i <= s.size(); ++i) {
        if (i < s.size() && quote) {
            if (s[i] == quote) quote = 0;
        } else if (i < s.size() && (s[i] == '\'' || s[i] == '"')) {
            quote = s[i];
        } else if (i == s.size() || s[i] == '/') {
            parts.push_back(s.substr(start, i - start));
            start = i + 1;
        }
    }
    if (quote || parts.size() < 2 || parts[0] != "Event") return false;
    out = ValuePath{};
    for (size_t i = 1; i < parts.size(); ++i) {
        std::string_view part = parts[i];
        if (part.empty()) return false;
        if (part[0] == '@') {
            if (i + 1 != parts.size() || part.size() < 2) return false;
            out.attr = std::string(part.substr(1));
            break;
        }
        Step step;
        size_t bracket = part.find('[');
        step.name = std::string(part.substr(0, bracket));
        if (step.name.empty()) return false;
        if (bracket != std::string_view::npos) {
            if (part.back() != ']') return false;
            std::string_view pred = part.substr(bracket + 1, part.size() - bracket - 2);
            if (!pred.empty() && pred[0] == '@') {
                size_t eq = pred.find('=');
                if (eq == std::string_view::npos || pred.size() < eq + 3) return false;
                char q = pred[eq + 1];
                if ((q != '\'' && q != '"') || pred.back() != q) return false;
                step.attrName = std::string(pred.substr(1, eq - 1));
                step.attrValue = std::string(pred.substr(eq + 2, pred.size() - eq - 3));
            } else {
                auto n = parseUnsigned(pred);
                if (!n || *n == 0 || *n > 100000) return false;
                step.index = static_cast<int>(*n);
            }
        }
        out.steps.push_back(std::move(step));
    }
    if (out.steps.empty()) return false;
    out.data = out.steps[0].name == "EventData" || out.steps[0].name == "UserData";
    // Paths of system values carry the type the service gives them.
    if (out.steps.size() == 2 && out.steps[0].name == "System" && out.steps[0].attrName.empty() && out.steps[1].attrName.empty() &&
        out.steps[0].index == 0 && out.steps[1].index == 0) {
        for (size_t k = 0; k < std::size(kSystemValues); ++k)
            if (out.steps[1].name == kSystemValues[k].element && out.attr == kSystemValues[k].attr) {
                out.type = kSystemValues[k].type;
                out.system = static_cast<int>(k);
            }
    }
    return true;
}

// The text a path selects, or null when the event has nothing there; `element`
// receives the element it is in.
const std::string* resolve(const ParsedEvent& ev, const ValuePath& path, const XmlNode*& element) {
    const XmlNode* node = ev.event;
    if (!node) return nullptr;
    for (const Step& step : path.steps) {
        const XmlNode* found = nullptr;
        int seen = 0;
        for (const auto& c : node->children) {
            if (c.localName() != step.name) continue;
            if (!step.attrName.empty()) {
                const std::string* v = c.attr(step.attrName);
                if (!v || *v != step.attrValue) continue;
            }
            if (step.index > 0 && ++seen != step.index) continue;
            found = &c;
            break;
        }
        if (!found) return nullptr;
        node = found;
    }
    element = node;
    return path.attr.empty() ? &node->text : node->attr(path.attr);
}

// One value ready to be laid out: the fixed part and any bytes it points to.
struct Slot {
    DWORD type = EvtVarTypeNull;  // with EVT_VARIANT_TYPE_ARRAY for an array
    DWORD count = 0;              // elements of an array, bytes of a binary value
    uint64_t number = 0;          // fixed-size values, signed ones in two's complement
    std::string blob;             // SID, GUID or binary bytes; the elements of a fixed-size array
    std::wstring text;            // a string; the elements of a string array, each ending in NUL
};

// Bytes of a fixed-size value in the variant; 0 for values the variant points to.
size_t elementSize(DWORD type) {
    switch (type) {
    case EvtVarTypeSByte:
    case EvtVarTypeByte: return 1;
    case EvtVarTypeInt16:
    case EvtVarTypeUInt16: return 2;
    case EvtVarTypeInt32:
    case EvtVarTypeUInt32:
    case EvtVarTypeHexInt32:
    case EvtVarTypeBoolean: return 4;
    case EvtVarTypeInt64:
    case EvtVarTypeUInt64:
    case EvtVarTypeHexInt64:
    case EvtVarTypeFileTime:
    case EvtVarTypeSizeT: return 8;
    default: return 0;
    }
}

// The fixed-size value `raw` stands for, as the service writes it in XML (numbers
// in decimal or 0x hex, "true"/"false", ISO 8601 times); false when it is none.
bool parseFixed(std::string_view raw, DWORD type, uint64_t& out) {
    const size_t size = elementSize(type);
    switch (type) {
    case EvtVarTypeSByte:
    case EvtVarTypeInt16:
    case EvtVarTypeInt32:
    case EvtVarTypeInt64: {
        const int64_t max = static_cast<int64_t>((size == 8 ? ~0ull : (1ull << (8 * size))) >> 1) - (size == 8 ? 0 : 1);
        auto v = parseSigned(raw);
        if (!v || *v > max || *v < -max - 1) return false;
        out = static_cast<uint64_t>(*v);
        return true;
    }
    case EvtVarTypeBoolean:
        if (raw != "true" && raw != "false" && raw != "1" && raw != "0") return false;
        out = raw == "true" || raw == "1";
        return true;
    case EvtVarTypeFileTime: {
        auto t = parseSystemTime(raw);
        if (t) out = *t;
        return t.has_value();
    }
    default: {
        auto v = parseUnsigned(raw);
        if (!size || !v || (size < 8 && *v >> (8 * size))) return false;
        out = *v;
        return true;
    }
    }
}

void appendWide(std::wstring& out, std::string_view utf8) {
    const size_t at = out.size();
    out.resize(at + wideLength(utf8));
    toWideInto(utf8, out.data() + at, out.size() - at);
}

void reset(Slot& slot) {
    slot.type = EvtVarTypeNull;
    slot.count = 0;
    slot.number = 0;
    slot.blob.clear();
    slot.text.clear();
}

// Slots are reused from event to event: clearing keeps their strings' storage.
void convert(const std::string_view* raw, DWORD type, Slot& slot) {
    reset(slot);
    if (!raw) return;
    switch (type) {
    case EvtVarTypeString:
        slot.type = type;
        appendWide(slot.text, *raw);
        return;
    case EvtVarTypeSid:
        if (parseSid(*raw, slot.blob)) slot.type = type;
        return;
    case EvtVarTypeGuid: {
        GUID g;
        if (parseGuid(*raw, g)) slot.type = type, slot.blob.assign(reinterpret_cast<const char*>(&g), sizeof g);
        return;
    }
    case EvtVarTypeBinary:
        if (parseBinary(*raw, slot.blob)) slot.type = type, slot.count = static_cast<DWORD>(slot.blob.size());
        return;
    default:
        if (parseFixed(*raw, type, slot.number)) slot.type = type;
        return;
    }
}

// An array value: its elements are a run of data elements. Arrays of strings and
// of fixed-size values are laid out as the service does; others are given as
// arrays of strings.
void convertArray(const ParsedEvent& p, const DataValue& value, Slot& slot) {
    reset(slot);
    const size_t size = elementSize(value.type);
    for (size_t i = 0; i < value.count; ++i) {
        const std::string& raw = p.data[value.first + i]->text;
        if (!size) {
            appendWide(slot.text, raw);
            slot.text += L'\0';
            continue;
        }
        uint64_t n = 0;
        if (!parseFixed(raw, value.type, n)) return reset(slot);
        slot.blob.append(reinterpret_cast<const char*>(&n), size);
    }
    slot.type = (size ? value.type : DWORD{EvtVarTypeString}) | EVT_VARIANT_TYPE_ARRAY;
    slot.count = static_cast<DWORD>(value.count);
}

size_t alignUp(size_t v, size_t a) { return (v + a - 1) / a * a; }

// Places what a value points to at `at` (aligned as its type needs) and points the
// variant there; without a buffer it only counts. Returns the end of what it placed.
size_t placeData(const Slot& s, size_t at, BYTE* base, EVT_VARIANT* v) {
    const DWORD type = s.type & EVT_VARIANT_TYPE_MASK;
    if (s.type & EVT_VARIANT_TYPE_ARRAY) {
        at = alignUp(at, 8);
        if (type != EvtVarTypeString) {
            if (base) {
                std::memcpy(base + at, s.blob.data(), s.blob.size());
                v->ByteArr = base + at;
            }
            return at + s.blob.size();
        }
        const size_t strings = at + s.count * sizeof(wchar_t*);
        if (base) {
            auto** pointers = reinterpret_cast<wchar_t**>(base + at);
            auto* text = reinterpret_cast<wchar_t*>(base + strings);
            std::memcpy(text, s.text.data(), s.text.size() * sizeof(wchar_t));
            for (DWORD i = 0, pos = 0; i < s.count; ++i) {
                pointers[i] = text + pos;
                pos += static_cast<DWORD>(wcslen(text + pos)) + 1;
            }
            v->StringArr = pointers;
        }
        return strings + s.text.size() * sizeof(wchar_t);
    }
    switch (type) {
    case EvtVarTypeString:
        at = alignUp(at, sizeof(wchar_t));
        if (base) {
            auto* dst = reinterpret_cast<wchar_t*>(base + at);
            std::memcpy(dst, s.text.c_str(), (s.text.size() + 1) * sizeof(wchar_t));
            v->StringVal = dst;
        }
        return at + (s.text.size() + 1) * sizeof(wchar_t);
    case EvtVarTypeSid:
    case EvtVarTypeGuid:
    case EvtVarTypeBinary:
        if (type != EvtVarTypeBinary) at = alignUp(at, 4);
        if (base) {
            std::memcpy(base + at, s.blob.data(), s.blob.size());
            if (type == EvtVarTypeSid) v->SidVal = base + at;
            else if (type == EvtVarTypeGuid) v->GuidVal = reinterpret_cast<GUID*>(base + at);
            else v->BinaryVal = base + at;
        }
        return at + s.blob.size();
    default: return at;
    }
}

// Lays the values out as the service does: the variant array, then the strings,
// SIDs, GUIDs, binary values and arrays they point to. Returns the bytes needed.
size_t layout(const std::vector<Slot>& slots, BYTE* buffer, size_t bufferSize) {
    size_t need = slots.size() * sizeof(EVT_VARIANT);
    for (const Slot& s : slots) need = placeData(s, need, nullptr, nullptr);
    if (!buffer || bufferSize < need) return need;
    auto* vars = reinterpret_cast<EVT_VARIANT*>(buffer);
    size_t at = slots.size() * sizeof(EVT_VARIANT);
    for (size_t i = 0; i < slots.size(); ++i) {
        const Slot& s = slots[i];
        EVT_VARIANT& v = vars[i];
        std::memset(&v, 0, sizeof v);
        v.Type = s.type;
        v.Count = s.count;
        if (!(s.type & EVT_VARIANT_TYPE_ARRAY))  // the value field comes first in the variant
            std::memcpy(&v, &s.number, elementSize(s.type));
        at = placeData(s, at, buffer, &v);
    }
    return need;
}

BOOL finishRender(size_t need, DWORD bufferSize, PDWORD used) {
    *used = static_cast<DWORD>(need);
    if (bufferSize < need) return failWith(ERROR_INSUFFICIENT_BUFFER, FALSE);
    return TRUE;
}

// The calling thread's reusable slots and data values (threadOwn).
struct Scratch {
    std::vector<Slot> slots;
    std::vector<DataValue> values;
};

// The event's data values as its provider's template for the event declares them:
// the service renders data with their types (beats winlogbeat/sys/wineventlog/
// renderer.go reads UInt32, HexInt64, GUID, SID, FileTime, Boolean, binary and
// arrays from the user context). It keeps the types in the stored event; here they
// come from the provider file, so the data of a provider without one are strings.
void bindEventData(const ParsedEvent& p, std::vector<DataValue>& out) {
    const XmlNode* provider = p.system ? p.system->child("Provider") : nullptr;
    const std::string* name = provider ? provider->attr("Name") : nullptr;
    const XmlNode* idNode = p.system ? p.system->child("EventID") : nullptr;
    auto id = idNode ? parseUnsigned(idNode->text) : std::nullopt;
    std::shared_ptr<const ProviderDef> def;
    if (name && id) {
        const std::wstring root = storeRoot();
        if (!root.empty()) def = cachedProvider(root, *name);
    }
    const std::vector<TemplateItem>* items = nullptr;
    if (def)
        if (auto it = def->templates.find(static_cast<uint32_t>(*id)); it != def->templates.end()) items = &it->second;
    bindTemplate(p.data, items, out);
}

// The type of the data element `node`: its value's, or its array's element type.
DWORD dataType(const ParsedEvent& p, const std::vector<DataValue>& values, const XmlNode* node) {
    auto at = std::find(p.data.begin(), p.data.end(), node);
    const size_t index = static_cast<size_t>(at - p.data.begin());
    for (const DataValue& v : values)
        if (index >= v.first && index < v.first + v.count) return v.type;
    return EvtVarTypeString;
}

// System values only: the record's System element is all that is read.
bool renderSystemValues(const RenderContextObj& ctx, const EventObj& ev, std::vector<Slot>& slots) {
    SystemFields fields;
    if (!scanSystem(ev.xml(), fields)) return false;
    slots.resize(ctx.paths.size());
    for (size_t i = 0; i < ctx.paths.size(); ++i) {
        const SystemField& f = fields[static_cast<size_t>(ctx.paths[i].system)];
        convert(f.present ? &f.text : nullptr, ctx.paths[i].type, slots[i]);
    }
    return true;
}

BOOL renderValues(RenderContextObj& ctx, EventObj& ev, DWORD bufferSize, PVOID buffer, PDWORD used, PDWORD count) {
    Scratch* scratch = threadOwn<Scratch>();
    if (!scratch) return failWith(ERROR_OUTOFMEMORY, FALSE);
    if (ctx.allSystem && renderSystemValues(ctx, ev, scratch->slots)) {
        *count = static_cast<DWORD>(scratch->slots.size());
        return finishRender(layout(scratch->slots, static_cast<BYTE*>(buffer), buffer ? bufferSize : 0), bufferSize, used);
    }
    const ParsedEvent& p = ev.parsed();
    if (!p.event) return failWith(ERROR_EVT_INVALID_EVENT_DATA, FALSE);
    std::vector<Slot>& slots = scratch->slots;
    slots.clear();
    if (ctx.flags == EvtRenderContextUser) {
        bindEventData(p, scratch->values);
        slots.resize(scratch->values.size());
        for (size_t i = 0; i < slots.size(); ++i) {
            const DataValue& v = scratch->values[i];
            if (v.array) convertArray(p, v, slots[i]);
            else {
                const std::string_view text = p.data[v.first]->text;
                convert(&text, v.type, slots[i]);
            }
        }
    } else {
        slots.resize(ctx.paths.size());
        bool bound = false;
        for (size_t i = 0; i < ctx.paths.size(); ++i) {
            const ValuePath& path = ctx.paths[i];
            const XmlNode* element = nullptr;
            const std::string* raw = resolve(p, path, element);
            DWORD type = path.type;
            if (raw && path.data && path.attr.empty()) {
                if (!bound) bindEventData(p, scratch->values), bound = true;
                type = dataType(p, scratch->values, element);
            }
            const std::string_view text = raw ? std::string_view(*raw) : std::string_view();
            convert(raw ? &text : nullptr, type, slots[i]);
        }
    }
    *count = static_cast<DWORD>(slots.size());
    size_t need = layout(slots, static_cast<BYTE*>(buffer), buffer ? bufferSize : 0);
    return finishRender(need, bufferSize, used);
}

BOOL renderText(const std::wstring& text, DWORD bufferSize, PVOID buffer, PDWORD used) {
    size_t need = (text.size() + 1) * sizeof(wchar_t);
    if (buffer && bufferSize >= need) std::memcpy(buffer, text.c_str(), need);
    return finishRender(need, buffer ? bufferSize : 0, used);
}

BOOL renderXml(EventObj& ev, DWORD bufferSize, PVOID buffer, PDWORD used) {
    size_t chars = ev.wideLength();
    size_t need = (chars + 1) * sizeof(wchar_t);
    if (buffer && bufferSize >= need) {
        auto* out = static_cast<wchar_t*>(buffer);
        toWideInto(ev.xml(), out, chars);
        out[chars] = L'\0';
    }
    return finishRender(need, buffer ? bufferSize : 0, used);
}

}  // namespace

std::wstring bookmarkText(BookmarkObj& bm) {
    std::lock_guard<Mutex> lock(bm.mutex);
    std::wstring out = bm.backward ? L"<BookmarkList Direction='backward'>\r\n" : L"<BookmarkList>\r\n";
    for (size_t i = 0; i < bm.entries.size(); ++i) {
        out += L"  <Bookmark Channel='";
        appendEscaped(out, bm.entries[i].channel, true);
        out += L"' RecordId='" + std::to_wstring(bm.entries[i].recordId) + L"'";
        if (static_cast<int>(i) == bm.current) out += L" IsCurrent='true'";
        out += L"/>\r\n";
    }
    out += L"</BookmarkList>";
    return out;
}

EVT_HANDLE WINAPI EvtCreateRenderContext(DWORD ValuePathsCount, LPCWSTR* ValuePaths, DWORD Flags) {
    if (DWORD f = injectedFault("EvtCreateRenderContext", "")) return failWith<EVT_HANDLE>(f, nullptr);
    auto ctx = std::make_unique<RenderContextObj>();
    ctx->flags = Flags;
    switch (Flags) {
    case EvtRenderContextValues:
        if (ValuePathsCount == 0 || !ValuePaths) return failWith<EVT_HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
        for (DWORD i = 0; i < ValuePathsCount; ++i) {
            ValuePath p;
            if (!ValuePaths[i] || !parsePath(ValuePaths[i], p)) return failWith<EVT_HANDLE>(ERROR_EVT_INVALID_QUERY, nullptr);
            ctx->paths.push_back(std::move(p));
        }
        ctx->allSystem = std::all_of(ctx->paths.begin(), ctx->paths.end(), [](const ValuePath& p) { return p.system >= 0; });
        break;
    case EvtRenderContextSystem:
        if (ValuePathsCount != 0) return failWith<EVT_HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
        for (size_t k = 0; k < std::size(kSystemValues); ++k) {
            ctx->paths.push_back(systemPath(kSystemValues[k]));
            ctx->paths.back().system = static_cast<int>(k);
        }
        ctx->allSystem = true;
        break;
    case EvtRenderContextUser:
        if (ValuePathsCount != 0) return failWith<EVT_HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
        break;
    default: return failWith<EVT_HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    }
    return registerObject(std::move(ctx));
}

BOOL WINAPI EvtRender(EVT_HANDLE Context, EVT_HANDLE Fragment, DWORD Flags, DWORD BufferSize, PVOID Buffer,
                      PDWORD BufferUsed, PDWORD PropertyCount) {
    if (!BufferUsed || !PropertyCount || (!Buffer && BufferSize != 0)) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    *PropertyCount = 0;
    Object* obj = lookupObject(Fragment);
    if (!obj) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (obj->kind == Kind::Event) {
        auto& ev = *static_cast<EventObj*>(obj);
        if (DWORD f = injectedFault("EvtRender", ev.log->meta().name)) return failWith(f, FALSE);
        if (Flags == EvtRenderEventXml) {
            if (Context) return failWith(ERROR_INVALID_PARAMETER, FALSE);
            return renderXml(ev, BufferSize, Buffer, BufferUsed);
        }
        if (Flags == EvtRenderEventValues) {
            RenderContextObj* ctx = lookupAs<RenderContextObj>(Context);
            if (!ctx) return failWith(Context ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER, FALSE);
            return renderValues(*ctx, ev, BufferSize, Buffer, BufferUsed, PropertyCount);
        }
        return failWith(ERROR_INVALID_PARAMETER, FALSE);
    }
    if (obj->kind == Kind::Bookmark) {
        if (Flags != EvtRenderBookmark || Context) return failWith(ERROR_INVALID_PARAMETER, FALSE);
        if (DWORD f = injectedFault("EvtRender", "")) return failWith(f, FALSE);
        return renderText(bookmarkText(*static_cast<BookmarkObj*>(obj)), BufferSize, Buffer, BufferUsed);
    }
    return failWith(ERROR_INVALID_PARAMETER, FALSE);
}

EVT_HANDLE WINAPI EvtCreateBookmark(LPCWSTR BookmarkXml) {
    if (DWORD f = injectedFault("EvtCreateBookmark", "")) return failWith<EVT_HANDLE>(f, nullptr);
    auto bm = std::make_unique<BookmarkObj>();
    if (BookmarkXml) {
        XmlNode doc;
        std::string text = toUtf8(BookmarkXml);
        if (!parseXml(text, doc) || doc.children.size() != 1 || doc.children[0].name != "BookmarkList")
            return failWith<EVT_HANDLE>(ERROR_EVT_MALFORMED_XML_TEXT, nullptr);
        const XmlNode& list = doc.children[0];
        if (const std::string* dir = list.attr("Direction")) {
            if (*dir == "backward") bm->backward = true;
            else if (*dir != "forward") return failWith<EVT_HANDLE>(ERROR_EVT_MALFORMED_XML_TEXT, nullptr);
        }
        for (const auto& c : list.children) {
            const std::string* channel = c.attr("Channel");
            const std::string* id = c.attr("RecordId");
            auto rid = id ? parseUnsigned(*id) : std::nullopt;
            if (c.name != "Bookmark" || !channel || channel->empty() || !rid)
                return failWith<EVT_HANDLE>(ERROR_EVT_MALFORMED_XML_TEXT, nullptr);
            if (const std::string* cur = c.attr("IsCurrent"); cur && *cur == "true")
                bm->current = static_cast<int>(bm->entries.size());
            bm->entries.push_back({toWide(*channel), *rid});
        }
    }
    return registerObject(std::move(bm));
}

BOOL WINAPI EvtUpdateBookmark(EVT_HANDLE Bookmark, EVT_HANDLE Event) {
    BookmarkObj* bm = lookupAs<BookmarkObj>(Bookmark);
    EventObj* ev = lookupAs<EventObj>(Event);
    if (!bm || !ev) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (DWORD f = injectedFault("EvtUpdateBookmark", ev->log->meta().name)) return failWith(f, FALSE);
    std::lock_guard<Mutex> lock(bm->mutex);
    const std::wstring& channel = ev->log->wideName();
    auto it = std::find_if(bm->entries.begin(), bm->entries.end(),
                           [&](const BookmarkObj::Entry& e) { return iequals(e.channel, channel); });
    if (it == bm->entries.end()) it = bm->entries.insert(bm->entries.end(), {channel, 0});
    it->channel = channel;
    it->recordId = ev->record.id;
    bm->current = static_cast<int>(it - bm->entries.begin());
    bm->backward = ev->backward;
    return TRUE;
}

}  // namespace evtsim
