#include "Store.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <winevt.h>

#include "SrwLock.h"
#include "Text.h"
#include "Xml.h"

namespace evtsim {

namespace {

std::string lastErrorText(const char* what) { return std::string(what) + " failed (error " + std::to_string(GetLastError()) + ")"; }

bool makeDirs(const std::wstring& path) {
    if (path.empty()) return false;
    DWORD attr = GetFileAttributesW(path.c_str());
    if (attr != INVALID_FILE_ATTRIBUTES) return (attr & FILE_ATTRIBUTE_DIRECTORY) != 0;
    size_t slash = path.find_last_of(L"\\/");
    if (slash != std::wstring::npos && slash > 0 && path[slash - 1] != L':') makeDirs(path.substr(0, slash));
    return CreateDirectoryW(path.c_str(), nullptr) || GetLastError() == ERROR_ALREADY_EXISTS;
}

bool writeAll(HANDLE h, std::string_view data) {
    while (!data.empty()) {
        DWORD chunk = static_cast<DWORD>(std::min<size_t>(data.size(), 1u << 24)), written = 0;
        if (!WriteFile(h, data.data(), chunk, &written, nullptr) || written == 0) return false;
        data.remove_prefix(written);
    }
    return true;
}

bool writeFileReplacing(const std::wstring& path, std::string_view content) {
    std::wstring tmp = path + L".tmp";
    {
        FileCloser f{CreateFileW(tmp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)};
        if (f.h == INVALID_HANDLE_VALUE || !writeAll(f.h, content)) return false;
    }
    // A reader that has the file open for a moment makes Wine refuse the
    // replacement (ERROR_ACCESS_DENIED) although readers share delete access:
    // try again for a while, as a writer racing readers must.
    for (int attempt = 0;; ++attempt) {
        if (MoveFileExW(tmp.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING)) return true;
        const DWORD error = GetLastError();
        if ((error != ERROR_ACCESS_DENIED && error != ERROR_SHARING_VIOLATION) || attempt == 200) return false;
        Sleep(10);
    }
}

std::string metaText(const ChannelMeta& m) {
    return "name=" + m.name + "\nincarnation=" + std::to_string(m.incarnation) +
           "\ngeneration=" + std::to_string(m.generation) + "\nnext_record_id=" + std::to_string(m.nextRecordId) + "\n";
}

// Exclusive lock over all store changes, held for the life of the object.
class WriterLock {
public:
    WriterLock(const std::wstring& root) {
        makeDirs(root);
        std::wstring path = root + L"\\.lock";
        for (int i = 0; i < 6000; ++i) {
            h_ = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
            if (h_ != INVALID_HANDLE_VALUE) return;
            if (GetLastError() != ERROR_SHARING_VIOLATION && GetLastError() != ERROR_ACCESS_DENIED) return;
            Sleep(5);
        }
    }
    ~WriterLock() {
        if (h_ != INVALID_HANDLE_VALUE) CloseHandle(h_);
    }
    // False, with `error` saying why, when the lock could not be had.
    bool held(std::string& error) const {
        if (h_ != INVALID_HANDLE_VALUE) return true;
        error = lastErrorText("locking the store");
        return false;
    }

private:
    HANDLE h_ = INVALID_HANDLE_VALUE;
};

uint64_t newIncarnation() {
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    return ((static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime) ^ (static_cast<uint64_t>(GetCurrentProcessId()) << 48);
}

}  // namespace

size_t scanFrames(std::string_view data, FrameList& out, bool& partial, bool& corrupt) {
    size_t pos = 0;
    partial = corrupt = false;
    while (pos < data.size()) {
        std::string_view rest = data.substr(pos);
        if (rest.size() < kFrameHeaderSize) {
            partial = true;
            corrupt = std::string_view("EVR1 ").substr(0, std::min<size_t>(rest.size(), 5)) != rest.substr(0, std::min<size_t>(rest.size(), 5));
            break;
        }
        auto id = parseUnsigned(rest.substr(5, 20));
        auto len = parseUnsigned(rest.substr(26, 10));
        if (rest.substr(0, 5) != "EVR1 " || rest[25] != ' ' || rest[36] != '\n' || !id || !len || *len > 0x7FFFFFFF) {
            partial = corrupt = true;
            break;
        }
        size_t total = kFrameHeaderSize + *len + kFrameTrailer.size();
        if (rest.size() < total) {
            partial = true;
            break;
        }
        if (rest.substr(kFrameHeaderSize + *len, kFrameTrailer.size()) != kFrameTrailer) {
            partial = corrupt = true;
            break;
        }
        out.push_back({*id, pos + kFrameHeaderSize, static_cast<uint32_t>(*len)});
        pos += total;
    }
    return pos;
}

void appendFrame(std::string& out, uint64_t recordId, std::string_view xml) {
    char header[kFrameHeaderSize + 1];
    std::snprintf(header, sizeof header, "EVR1 %020llu %010u\n", static_cast<unsigned long long>(recordId),
                  static_cast<unsigned>(xml.size()));
    out.append(header, kFrameHeaderSize);
    out.append(xml);
    out.append(kFrameTrailer);
}

std::wstring storeRootFromEnvironment() {
    wchar_t buf[1024];
    DWORD n = GetEnvironmentVariableW(L"EVTSIM_STORE", buf, 1024);
    if (n == 0 || n >= 1024) return {};
    return std::wstring(buf, n);
}

std::wstring channelsDir(const std::wstring& root) { return root + L"\\channels"; }
std::wstring channelDir(const std::wstring& root, std::string_view name) {
    return channelsDir(root) + L"\\" + encodeName(name);
}
std::wstring recordsPath(const std::wstring& dir, const ChannelMeta& meta) {
    // The incarnation in the name keeps a re-made channel's file apart from the old one.
    wchar_t name[64];
    swprintf(name, 64, L"\\records-%016llx-%llu.evr", static_cast<unsigned long long>(meta.incarnation),
             static_cast<unsigned long long>(meta.generation));
    return dir + name;
}
std::wstring providerPath(const std::wstring& root, std::string_view name) {
    return root + L"\\providers\\" + encodeName(name) + L".xml";
}

bool readWholeFile(const std::wstring& path, std::string& out) {
    FileCloser f{CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                             OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)};
    if (f.h == INVALID_HANDLE_VALUE) return false;
    LARGE_INTEGER size;
    if (!GetFileSizeEx(f.h, &size)) return false;
    out.resize(static_cast<size_t>(size.QuadPart));
    size_t got = 0;
    while (got < out.size()) {
        DWORD n = 0;
        if (!ReadFile(f.h, out.data() + got, static_cast<DWORD>(std::min<size_t>(out.size() - got, 1u << 24)), &n, nullptr) || n == 0)
            break;
        got += n;
    }
    out.resize(got);
    return true;
}

bool readChannelMeta(const std::wstring& dir, ChannelMeta& meta) {
    std::string text;
    if (!readWholeFile(dir + L"\\channel.txt", text)) return false;
    meta = ChannelMeta{};
    size_t pos = 0;
    bool named = false;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string::npos) nl = text.size();
        std::string_view line(text.data() + pos, nl - pos);
        pos = nl + 1;
        size_t eq = line.find('=');
        if (eq == std::string_view::npos) continue;
        std::string_view key = line.substr(0, eq), value = line.substr(eq + 1);
        if (key == "name") {
            meta.name = std::string(value);
            named = true;
        } else if (auto v = parseUnsigned(value)) {
            if (key == "incarnation") meta.incarnation = *v;
            else if (key == "generation") meta.generation = *v;
            else if (key == "next_record_id") meta.nextRecordId = *v;
        }
    }
    return named;
}

std::vector<std::string> listChannels(const std::wstring& root) {
    std::vector<std::string> names;
    WIN32_FIND_DATAW fd;
    std::wstring pattern = channelsDir(root) + L"\\*";
    HANDLE find = FindFirstFileW(pattern.c_str(), &fd);
    if (find == INVALID_HANDLE_VALUE) return names;
    do {
        if (!(fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || fd.cFileName[0] == L'.') continue;
        ChannelMeta meta;
        if (readChannelMeta(channelsDir(root) + L"\\" + fd.cFileName, meta)) names.push_back(meta.name);
    } while (FindNextFileW(find, &fd));
    FindClose(find);
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return _stricmp(a.c_str(), b.c_str()) < 0;
    });
    return names;
}

namespace {

struct InType {
    const char* name;
    DWORD variant;
};
// The manifest's input types and the variant types the service renders them with.
// ANSI strings are kept as wide strings here.
constexpr InType kInTypes[] = {
    {"win:UnicodeString", EvtVarTypeString}, {"win:AnsiString", EvtVarTypeString}, {"win:Int8", EvtVarTypeSByte},
    {"win:UInt8", EvtVarTypeByte},           {"win:Int16", EvtVarTypeInt16},       {"win:UInt16", EvtVarTypeUInt16},
    {"win:Int32", EvtVarTypeInt32},          {"win:UInt32", EvtVarTypeUInt32},     {"win:Int64", EvtVarTypeInt64},
    {"win:UInt64", EvtVarTypeUInt64},        {"win:Boolean", EvtVarTypeBoolean},   {"win:Binary", EvtVarTypeBinary},
    {"win:GUID", EvtVarTypeGuid},            {"win:Pointer", EvtVarTypeSizeT},     {"win:FILETIME", EvtVarTypeFileTime},
    {"win:SID", EvtVarTypeSid},              {"win:HexInt32", EvtVarTypeHexInt32}, {"win:HexInt64", EvtVarTypeHexInt64},
};

// The Resources attribute: what is missing of the provider's message resources.
constexpr std::pair<const char*, DWORD> kResourceStates[] = {
    {"true", 0},
    {"false", ERROR_EVT_MESSAGE_LOCALE_NOT_FOUND},
    {"no-file", ERROR_MUI_FILE_NOT_FOUND},
    {"no-language", ERROR_RESOURCE_LANG_NOT_FOUND},
};

std::string_view dataName(const XmlNode& n) {
    const std::string* name = n.attr("Name");
    return name ? std::string_view(*name) : n.localName();
}

}  // namespace

DWORD variantTypeOf(std::string_view inType) {
    for (const auto& t : kInTypes)
        if (inType == t.name) return t.variant;
    return EvtVarTypeString;
}

const char* inTypeName(DWORD variantType) {
    for (const auto& t : kInTypes)
        if (variantType == t.variant) return t.name;
    return "win:UnicodeString";
}

void bindTemplate(const std::vector<const XmlNode*>& data, const std::vector<TemplateItem>* items,
                  std::vector<DataValue>& out) {
    out.clear();
    size_t i = 0;
    for (size_t item = 0; items && item < items->size(); ++item) {
        const TemplateItem& t = (*items)[item];
        if (!t.array) {
            if (i == data.size()) break;
            out.push_back({t.type, false, i++, 1});
            continue;
        }
        size_t n = 0;
        while (i + n < data.size() && dataName(*data[i + n]) == t.name) ++n;
        out.push_back({t.type, true, i, n});
        i += n;
    }
    for (; i < data.size(); ++i) out.push_back({EvtVarTypeString, false, i, 1});
}

bool loadProvider(const std::wstring& root, std::string_view name, ProviderDef& def) {
    std::string text;
    if (!readWholeFile(providerPath(root, name), text)) return false;
    XmlNode doc;
    if (!parseXml(text, doc) || doc.children[0].localName() != "Provider") return false;
    const XmlNode& p = doc.children[0];
    def = ProviderDef{};
    def.name = p.attr("Name") ? *p.attr("Name") : std::string(name);
    if (auto g = p.attr("Guid")) def.guid = *g;
    if (auto d = p.attr("DisplayName")) def.displayName = *d;
    if (auto r = p.attr("Resources"))
        for (const auto& [state, error] : kResourceStates)
            if (*r == state) def.missingResources = error;
    for (const auto& c : p.children) {
        std::string_view kind = c.localName();
        const std::string* message = c.attr("Message");
        const std::string& text = message ? *message : c.text;
        if (kind == "Channel") {
            if (auto n = c.attr("Name")) def.channels[*n] = text;
            continue;
        }
        if (kind == "Keyword") {
            if (auto m = c.attr("Mask"); m && parseUnsigned(*m)) def.keywords.emplace_back(*parseUnsigned(*m), text);
            continue;
        }
        const std::string* key = c.attr(kind == "Event" || kind == "String" ? "Id" : kind == "Template" ? "Event" : "Value");
        auto v = key ? parseUnsigned(*key) : std::nullopt;
        if (!v) continue;
        uint32_t id = static_cast<uint32_t>(*v);
        if (kind == "Level") def.levels[id] = text;
        else if (kind == "Task") def.tasks[id] = text;
        else if (kind == "Opcode") def.opcodes[id] = text;
        else if (kind == "Event") def.events[id] = text;
        else if (kind == "String") def.strings[id] = text;
        else if (kind == "Template") {
            std::vector<TemplateItem>& items = def.templates[id];
            for (const auto& d : c.children) {
                TemplateItem item;
                if (auto n = d.attr("Name")) item.name = *n;
                if (auto t = d.attr("InType")) item.type = variantTypeOf(*t);
                if (auto a = d.attr("Array")) item.array = *a == "true";
                items.push_back(std::move(item));
            }
        }
    }
    return true;
}

std::string providerXml(const ProviderDef& d) {
    std::string out = "<Provider Name='";
    appendEscaped(out, d.name, true);
    out += "' Guid='" + d.guid + "' DisplayName='";
    appendEscaped(out, d.displayName, true);
    const char* resources = "true";
    for (const auto& [state, error] : kResourceStates)
        if (d.missingResources == error) resources = state;
    out += std::string("' Resources='") + resources + "'>\n";
    auto item = [&out](const char* kind, const char* keyName, const std::string& key, const std::string& text) {
        out += std::string("  <") + kind + " " + keyName + "='";
        appendEscaped(out, key, true);
        out += "'>";
        appendEscaped(out, text, false);
        out += std::string("</") + kind + ">\n";
    };
    for (const auto& [n, t] : d.channels) item("Channel", "Name", n, t);
    for (const auto& [v, t] : d.levels) item("Level", "Value", std::to_string(v), t);
    for (const auto& [v, t] : d.tasks) item("Task", "Value", std::to_string(v), t);
    for (const auto& [v, t] : d.opcodes) item("Opcode", "Value", std::to_string(v), t);
    for (const auto& [m, t] : d.keywords) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(m));
        item("Keyword", "Mask", buf, t);
    }
    for (const auto& [v, t] : d.strings) item("String", "Id", std::to_string(v), t);
    for (const auto& [v, t] : d.events) item("Event", "Id", std::to_string(v), t);
    for (const auto& [id, items] : d.templates) {
        out += "  <Template Event='" + std::to_string(id) + "'>\n";
        for (const auto& t : items) {
            out += "    <Data Name='";
            appendEscaped(out, t.name, true);
            out += std::string("' InType='") + inTypeName(t.type) + "'" + (t.array ? " Array='true'" : "") + "/>\n";
        }
        out += "  </Template>\n";
    }
    out += "</Provider>\n";
    return out;
}

std::shared_ptr<const ProviderDef> cachedProvider(const std::wstring& root, std::string_view name) {
    struct Entry {
        std::shared_ptr<const ProviderDef> def;
        FILETIME created, written;
        uint64_t size;
    };
    struct Cache {
        SRWLOCK lock = SRWLOCK_INIT;
        std::map<std::wstring, Entry> entries;
    };
    // Outlives static destruction, as the handle registry does. Every rendering
    // of event data asks it: the file is looked at outside the lock, and the
    // look-up shares it.
    static auto* cache = new Cache;
    const std::wstring path = providerPath(root, name);
    WIN32_FILE_ATTRIBUTE_DATA attr;
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &attr)) {
        ExclusiveLock lock(cache->lock);
        cache->entries.erase(path);
        return nullptr;
    }
    const uint64_t size = (static_cast<uint64_t>(attr.nFileSizeHigh) << 32) | attr.nFileSizeLow;
    auto same = [](const FILETIME& a, const FILETIME& b) {
        return a.dwLowDateTime == b.dwLowDateTime && a.dwHighDateTime == b.dwHighDateTime;
    };
    {
        SharedLock lock(cache->lock);
        auto it = cache->entries.find(path);
        if (it != cache->entries.end() && it->second.size == size && same(it->second.created, attr.ftCreationTime) &&
            same(it->second.written, attr.ftLastWriteTime))
            return it->second.def;
    }
    auto def = std::make_shared<ProviderDef>();
    const bool loaded = loadProvider(root, name, *def);
    ExclusiveLock lock(cache->lock);
    if (!loaded) {
        cache->entries.erase(path);
        return nullptr;
    }
    cache->entries[path] = Entry{def, attr.ftCreationTime, attr.ftLastWriteTime, size};
    return def;
}

bool prepareEvent(std::string_view xml, uint64_t recordId, std::string_view channel, std::string& out, std::string& error) {
    XmlNode doc;
    if (!parseXml(xml, doc, &error)) return false;
    XmlNode& ev = doc.children[0];
    auto sys = std::find_if(ev.children.begin(), ev.children.end(), [](const XmlNode& c) { return c.localName() == "System"; });
    if (ev.localName() != "Event" || doc.children.size() != 1 || sys == ev.children.end()) {
        error = "not one <Event> element with <System>";
        return false;
    }
    auto child = [&](std::string_view name) {
        return std::find_if(sys->children.begin(), sys->children.end(), [&](const XmlNode& c) { return c.localName() == name; });
    };
    auto rid = child("EventRecordID");
    if (rid == sys->children.end()) {
        rid = sys->children.emplace(sys->children.end());
        rid->name = "EventRecordID";
    }
    rid->text = std::to_string(recordId);
    if (child("Channel") == sys->children.end()) {
        XmlNode& chan = sys->children.emplace_back();
        chan.name = "Channel";
        chan.text = std::string(channel);
    }
    // The service keeps events in binary form and renders them anew: whatever
    // layout the text came in, it is stored as the service renders it (events
    // rendered on Windows, e.g. beats winlogbeat/sys/wineventlog/testdata/ec1.xml).
    out.clear();
    appendCanonical(out, ev);
    return true;
}

namespace {

// What every change of one channel begins with: the writer lock, then the
// channel's folder and its description as the store holds them.
class ChannelChange {
public:
    ChannelChange(const std::wstring& root, std::string_view name) : dir(channelDir(root, name)), lock_(root) {}
    // False, with `error` set, when the store cannot be locked or the channel's
    // existence is not `exists`.
    bool begin(bool exists, std::string& error) {
        if (!lock_.held(error)) return false;
        if (readChannelMeta(dir, meta) == exists) return true;
        error = exists ? "no such channel" : "channel exists";
        return false;
    }

    const std::wstring dir;
    ChannelMeta meta;

private:
    WriterLock lock_;
};

}  // namespace

bool StoreWriter::createChannel(std::string_view name, std::string& error) {
    ChannelChange change(root_, name);
    if (!change.begin(false, error)) return false;
    const std::wstring& dir = change.dir;
    ChannelMeta& meta = change.meta;
    if (!makeDirs(dir)) return error = lastErrorText("creating the channel folder"), false;
    meta = ChannelMeta{std::string(name), newIncarnation(), 0, 1};
    FileCloser f{CreateFileW(recordsPath(dir, meta).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL, nullptr)};
    if (f.h == INVALID_HANDLE_VALUE) return error = lastErrorText("creating the records file"), false;
    if (!writeFileReplacing(dir + L"\\channel.txt", metaText(meta))) return error = lastErrorText("writing channel.txt"), false;
    return true;
}

bool StoreWriter::deleteChannel(std::string_view name, std::string& error) {
    ChannelChange change(root_, name);
    if (!change.begin(true, error)) return false;
    const std::wstring& dir = change.dir;
    ChannelMeta& meta = change.meta;
    // The description goes first: without it the channel no longer exists.
    DeleteFileW((dir + L"\\channel.txt").c_str());
    DeleteFileW(recordsPath(dir, meta).c_str());
    RemoveDirectoryW(dir.c_str());
    return true;
}

bool StoreWriter::clearChannel(std::string_view name, std::string& error) {
    ChannelChange change(root_, name);
    if (!change.begin(true, error)) return false;
    const std::wstring& dir = change.dir;
    ChannelMeta& meta = change.meta;
    ChannelMeta old = meta;
    ++meta.generation;
    {
        FileCloser f{CreateFileW(recordsPath(dir, meta).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                 CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)};
        if (f.h == INVALID_HANDLE_VALUE) return error = lastErrorText("creating the records file"), false;
    }
    if (!writeFileReplacing(dir + L"\\channel.txt", metaText(meta))) return error = lastErrorText("writing channel.txt"), false;
    DeleteFileW(recordsPath(dir, old).c_str());
    return true;
}

bool StoreWriter::append(std::string_view name, const std::vector<std::string>& events, std::string& error,
                         uint64_t* firstId, DWORD holdMs) {
    ChannelChange change(root_, name);
    if (!change.begin(true, error)) return false;
    const std::wstring& dir = change.dir;
    ChannelMeta& meta = change.meta;
    if (firstId) *firstId = meta.nextRecordId;
    FileCloser f{CreateFileW(recordsPath(dir, meta).c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_DELETE,
                             nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)};
    if (f.h == INVALID_HANDLE_VALUE) return error = lastErrorText("opening the records file"), false;
    // Ids are reserved before the data is written: a crash leaves a gap, never a duplicate.
    ChannelMeta after = meta;
    after.nextRecordId += events.size();
    if (!writeFileReplacing(dir + L"\\channel.txt", metaText(after))) return error = lastErrorText("writing channel.txt"), false;
    std::string buffer, prepared;
    uint64_t id = meta.nextRecordId;
    for (size_t i = 0; i < events.size(); ++i, ++id) {
        if (!prepareEvent(events[i], id, meta.name, prepared, error)) {
            error = "event " + std::to_string(i + 1) + ": " + error;
            writeAll(f.h, buffer);
            return false;
        }
        size_t frameStart = buffer.size();
        appendFrame(buffer, id, prepared);
        if (holdMs > 0 && i + 1 == events.size()) {
            size_t half = frameStart + (buffer.size() - frameStart) / 2;
            if (!writeAll(f.h, std::string_view(buffer).substr(0, half))) return error = lastErrorText("writing"), false;
            FlushFileBuffers(f.h);
            Sleep(holdMs);
            buffer.erase(0, half);
        }
        if (buffer.size() >= (4u << 20) || i + 1 == events.size()) {
            if (!writeAll(f.h, buffer)) return error = lastErrorText("writing"), false;
            buffer.clear();
        }
    }
    return true;
}

bool StoreWriter::writeProvider(const ProviderDef& def, std::string& error) {
    WriterLock lock(root_);
    if (!lock.held(error)) return false;
    if (!makeDirs(root_ + L"\\providers")) return error = lastErrorText("creating providers folder"), false;
    if (!writeFileReplacing(providerPath(root_, def.name), providerXml(def))) return error = lastErrorText("writing provider"), false;
    return true;
}

bool StoreWriter::writeFaults(std::string_view text, std::string& error) {
    makeDirs(root_);
    if (!writeFileReplacing(root_ + L"\\faults.txt", text)) return error = lastErrorText("writing faults.txt"), false;
    return true;
}

}  // namespace evtsim
