// Rendering events (values through a render context, XML) and bookmarks.
#include <algorithm>
#include <cstring>

#include "Evtsim.h"
#include "Faults.h"
#include "Internal.h"
#include "Text.h"

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
};

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
    // Paths of system values carry the type the service gives them.
    if (out.steps.size() == 2 && out.steps[0].name == "System" && out.steps[0].attrName.empty() && out.steps[1].attrName.empty() &&
        out.steps[0].index == 0 && out.steps[1].index == 0) {
        for (const auto& v : kSystemValues)
            if (out.steps[1].name == v.element && out.attr == v.attr) out.type = v.type;
    }
    return true;
}

// The text a path selects, or null when the event has nothing there.
const std::string* resolve(const ParsedEvent& ev, const ValuePath& path) {
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
    return path.attr.empty() ? &node->text : node->attr(path.attr);
}

// One value ready to be laid out: the fixed part and any bytes it points to.
struct Slot {
    EVT_VARIANT_TYPE type = EvtVarTypeNull;
    uint64_t number = 0;
    std::string blob;      // SID or GUID bytes
    std::wstring text;     // strings
};

// Slots are reused from event to event: clearing keeps their strings' storage.
void convert(const std::string* raw, EVT_VARIANT_TYPE type, Slot& slot) {
    slot.type = EvtVarTypeNull;
    slot.number = 0;
    slot.blob.clear();
    slot.text.clear();
    if (!raw) return;
    switch (type) {
    case EvtVarTypeString:
        slot.type = type;
        slot.text.resize(wideLength(*raw));
        toWideInto(*raw, slot.text.data(), slot.text.size());
        return;
    case EvtVarTypeByte:
    case EvtVarTypeUInt16:
    case EvtVarTypeUInt32:
    case EvtVarTypeUInt64:
    case EvtVarTypeHexInt64: {
        auto v = parseUnsigned(*raw);
        uint64_t max = type == EvtVarTypeByte ? 0xFF : type == EvtVarTypeUInt16 ? 0xFFFF : type == EvtVarTypeUInt32 ? 0xFFFFFFFFull : ~0ull;
        if (v && *v <= max) slot.type = type, slot.number = *v;
        return;
    }
    case EvtVarTypeFileTime:
        if (auto t = parseSystemTime(*raw)) slot.type = type, slot.number = *t;
        return;
    case EvtVarTypeSid:
        if (parseSid(*raw, slot.blob)) slot.type = type;
        return;
    case EvtVarTypeGuid: {
        GUID g;
        if (parseGuid(*raw, g)) slot.type = type, slot.blob.assign(reinterpret_cast<const char*>(&g), sizeof g);
        return;
    }
    default: return;
    }
}

size_t alignUp(size_t v, size_t a) { return (v + a - 1) / a * a; }

// Lays the values out as the service does: the variant array, then the strings,
// SIDs and GUIDs they point to. Returns the bytes needed.
size_t layout(const std::vector<Slot>& slots, BYTE* buffer, size_t bufferSize) {
    size_t need = slots.size() * sizeof(EVT_VARIANT);
    for (const Slot& s : slots) {
        if (s.type == EvtVarTypeString) need += (s.text.size() + 1) * sizeof(wchar_t);
        else if (s.type == EvtVarTypeSid || s.type == EvtVarTypeGuid) need = alignUp(need, 4) + s.blob.size();
    }
    if (!buffer || bufferSize < need) return need;
    auto* vars = reinterpret_cast<EVT_VARIANT*>(buffer);
    size_t at = slots.size() * sizeof(EVT_VARIANT);
    for (size_t i = 0; i < slots.size(); ++i) {
        const Slot& s = slots[i];
        EVT_VARIANT& v = vars[i];
        std::memset(&v, 0, sizeof v);
        v.Type = s.type;
        v.Count = 0;
        switch (s.type) {
        case EvtVarTypeString: {
            auto* dst = reinterpret_cast<wchar_t*>(buffer + at);
            std::memcpy(dst, s.text.c_str(), (s.text.size() + 1) * sizeof(wchar_t));
            v.StringVal = dst;
            at += (s.text.size() + 1) * sizeof(wchar_t);
            break;
        }
        case EvtVarTypeSid:
        case EvtVarTypeGuid:
            at = alignUp(at, 4);
            std::memcpy(buffer + at, s.blob.data(), s.blob.size());
            if (s.type == EvtVarTypeSid) v.SidVal = buffer + at;
            else v.GuidVal = reinterpret_cast<GUID*>(buffer + at);
            at += s.blob.size();
            break;
        case EvtVarTypeByte: v.ByteVal = static_cast<UINT8>(s.number); break;
        case EvtVarTypeUInt16: v.UInt16Val = static_cast<UINT16>(s.number); break;
        case EvtVarTypeUInt32: v.UInt32Val = static_cast<UINT32>(s.number); break;
        case EvtVarTypeUInt64:
        case EvtVarTypeHexInt64: v.UInt64Val = s.number; break;
        case EvtVarTypeFileTime: v.FileTimeVal = s.number; break;
        default: break;
        }
    }
    return need;
}

BOOL finishRender(size_t need, DWORD bufferSize, PDWORD used) {
    *used = static_cast<DWORD>(need);
    if (bufferSize < need) return failWith(ERROR_INSUFFICIENT_BUFFER, FALSE);
    return TRUE;
}

// The calling thread's reusable slots. Kept in fiber-local storage, whose
// callback frees them when the thread ends: a thread_local object with a
// destructor is destroyed after its storage is gone by this toolchain's runtime,
// which corrupts the heap of a process whose threads come and go.
void WINAPI freeSlots(void* slots) { delete static_cast<std::vector<Slot>*>(slots); }

std::vector<Slot>* threadSlots() {
    static const DWORD index = ::FlsAlloc(&freeSlots);
    if (index == FLS_OUT_OF_INDEXES) return nullptr;
    auto* slots = static_cast<std::vector<Slot>*>(::FlsGetValue(index));
    if (!slots) {
        slots = new std::vector<Slot>;
        ::FlsSetValue(index, slots);
    }
    return slots;
}

BOOL renderValues(RenderContextObj& ctx, EventObj& ev, DWORD bufferSize, PVOID buffer, PDWORD used, PDWORD count) {
    const ParsedEvent& p = ev.parsed();
    if (!p.event) return failWith(ERROR_EVT_INVALID_EVENT_DATA, FALSE);
    std::vector<Slot>* slotsOwner = threadSlots();
    if (!slotsOwner) return failWith(ERROR_OUTOFMEMORY, FALSE);
    std::vector<Slot>& slots = *slotsOwner;
    slots.clear();
    if (ctx.flags == EvtRenderContextUser) {
        slots.resize(p.data.size());
        for (size_t i = 0; i < p.data.size(); ++i) convert(&p.data[i]->text, EvtVarTypeString, slots[i]);
    } else {
        slots.resize(ctx.paths.size());
        for (size_t i = 0; i < ctx.paths.size(); ++i) convert(resolve(p, ctx.paths[i]), ctx.paths[i].type, slots[i]);
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
    std::lock_guard<std::mutex> lock(bm.mutex);
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
        break;
    case EvtRenderContextSystem:
        if (ValuePathsCount != 0) return failWith<EVT_HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
        for (const auto& v : kSystemValues) ctx->paths.push_back(systemPath(v));
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
    std::lock_guard<std::mutex> lock(bm->mutex);
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
