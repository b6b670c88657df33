#include "SubscriptionStore.h"

#include <algorithm>
#include <cctype>
#include <mutex>

namespace ecsim {

namespace {

// Subscription-level properties and their variant types, from the
// EC_SUBSCRIPTION_PROPERTY_ID page ("This property is an EcVarTypeBoolean value" ...).
// Not kept: the event sources (an object array, see ApiManage.cpp), their own four
// properties, Expires (DateTime), CommonPassword (write-only) and the three
// certificate lists (string arrays); reading them gives EcVarTypeNull.
const PropertyDef kKept[] = {
    {EcSubscriptionEnabled, "Enabled", ValueType::Boolean},
    {EcSubscriptionDescription, "Description", ValueType::String},
    {EcSubscriptionURI, "URI", ValueType::String},
    {EcSubscriptionConfigurationMode, "ConfigurationMode", ValueType::UInt32},
    {EcSubscriptionQuery, "Query", ValueType::String},
    {EcSubscriptionTransportName, "TransportName", ValueType::String},
    {EcSubscriptionTransportPort, "TransportPort", ValueType::UInt32},
    {EcSubscriptionDeliveryMode, "DeliveryMode", ValueType::UInt32},
    {EcSubscriptionDeliveryMaxItems, "DeliveryMaxItems", ValueType::UInt32},
    {EcSubscriptionDeliveryMaxLatencyTime, "DeliveryMaxLatencyTime", ValueType::UInt32},
    {EcSubscriptionHeartbeatInterval, "HeartbeatInterval", ValueType::UInt32},
    {EcSubscriptionLocale, "Locale", ValueType::String},
    {EcSubscriptionContentFormat, "ContentFormat", ValueType::UInt32},
    {EcSubscriptionLogFile, "LogFile", ValueType::String},
    {EcSubscriptionPublisherName, "PublisherName", ValueType::String},
    {EcSubscriptionCredentialsType, "CredentialsType", ValueType::UInt32},
    {EcSubscriptionCommonUserName, "CommonUserName", ValueType::String},
    {EcSubscriptionHostName, "HostName", ValueType::String},
    {EcSubscriptionReadExistingEvents, "ReadExistingEvents", ValueType::Boolean},
    {EcSubscriptionDialect, "Dialect", ValueType::String},
    {EcSubscriptionType, "Type", ValueType::UInt32},
    {EcSubscriptionAllowedSourceDomainComputers, "AllowedSourceDomainComputers", ValueType::String},
};

const char* const kAllKeys[] = {
    "Enabled", "EventSources", "EventSourceAddress", "EventSourceEnabled", "EventSourceUserName",
    "EventSourcePassword", "Description", "URI", "ConfigurationMode", "Expires", "Query", "TransportName",
    "TransportPort", "DeliveryMode", "DeliveryMaxItems", "DeliveryMaxLatencyTime", "HeartbeatInterval", "Locale",
    "ContentFormat", "LogFile", "PublisherName", "CredentialsType", "CommonUserName", "CommonPassword", "HostName",
    "ReadExistingEvents", "Dialect", "Type", "AllowedIssuerCAs", "AllowedSubjects", "DeniedSubjects",
    "AllowedSourceDomainComputers"};

// The enumerations' names, accepted and written for the UInt32 properties they type.
struct NamedValue {
    EC_SUBSCRIPTION_PROPERTY_ID id;
    const char* name;
    uint32_t value;
};
const NamedValue kNamed[] = {
    {EcSubscriptionContentFormat, "Events", EcContentFormatEvents},
    {EcSubscriptionContentFormat, "RenderedText", EcContentFormatRenderedText},
    {EcSubscriptionDeliveryMode, "Pull", EcDeliveryModePull},
    {EcSubscriptionDeliveryMode, "Push", EcDeliveryModePush},
    {EcSubscriptionConfigurationMode, "Normal", EcConfigurationModeNormal},
    {EcSubscriptionConfigurationMode, "Custom", EcConfigurationModeCustom},
    {EcSubscriptionConfigurationMode, "MinLatency", EcConfigurationModeMinLatency},
    {EcSubscriptionConfigurationMode, "MinBandwidth", EcConfigurationModeMinBandwidth},
    {EcSubscriptionType, "SourceInitiated", EcSubscriptionTypeSourceInitiated},
    {EcSubscriptionType, "CollectorInitiated", EcSubscriptionTypeCollectorInitiated},
    {EcSubscriptionCredentialsType, "Default", EcSubscriptionCredDefault},
    {EcSubscriptionCredentialsType, "Negotiate", EcSubscriptionCredNegotiate},
    {EcSubscriptionCredentialsType, "Digest", EcSubscriptionCredDigest},
    {EcSubscriptionCredentialsType, "Basic", EcSubscriptionCredBasic},
    {EcSubscriptionCredentialsType, "LocalMachine", EcSubscriptionCredLocalMachine},
};

bool iequalsAscii(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
    return s;
}

std::optional<uint32_t> parseNumber(std::string_view s) {
    if (s.empty() || s.size() > 10) return std::nullopt;
    uint64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return std::nullopt;
        v = v * 10 + static_cast<unsigned>(c - '0');
    }
    if (v > 0xFFFFFFFFull) return std::nullopt;
    return static_cast<uint32_t>(v);
}

bool parseValue(const PropertyDef& def, std::string_view text, Value& out) {
    out.type = def.type;
    switch (def.type) {
    case ValueType::Boolean:
        if (iequalsAscii(text, "true") || text == "1") out.number = 1;
        else if (iequalsAscii(text, "false") || text == "0") out.number = 0;
        else return false;
        return true;
    case ValueType::UInt32:
        for (const NamedValue& n : kNamed) {
            if (n.id == def.id && iequalsAscii(text, n.name)) {
                out.number = n.value;
                return true;
            }
        }
        if (auto n = parseNumber(text)) {
            out.number = *n;  // any number, so clients meet values they do not know
            return true;
        }
        return false;
    case ValueType::String:
        out.text = toWide(text);
        return true;
    }
    return false;
}

std::string formatValue(EC_SUBSCRIPTION_PROPERTY_ID id, const Value& v) {
    switch (v.type) {
    case ValueType::Boolean: return v.number ? "true" : "false";
    case ValueType::UInt32:
        for (const NamedValue& n : kNamed)
            if (n.id == id && n.value == v.number) return n.name;
        return std::to_string(v.number);
    case ValueType::String: return toUtf8(v.text);
    }
    return {};
}

struct RootState {
    std::mutex mutex;
    std::wstring root;
    bool overridden = false;
};

RootState& rootState() {
    static RootState* s = new RootState;  // outlives static destruction
    return *s;
}

struct FileCloser {
    HANDLE h;
    ~FileCloser() {
        if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
    }
};

std::mutex& saveMutex() {
    static std::mutex* m = new std::mutex;
    return *m;
}

}  // namespace

DWORD readWholeFile(const std::wstring& path, std::string& out) {
    FileCloser f{CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                             OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)};
    if (f.h == INVALID_HANDLE_VALUE) {
        DWORD e = GetLastError();
        return e == ERROR_PATH_NOT_FOUND ? ERROR_FILE_NOT_FOUND : e;
    }
    LARGE_INTEGER size;
    if (!GetFileSizeEx(f.h, &size)) return GetLastError();
    if (size.QuadPart > (1 << 24)) return ERROR_INVALID_DATA;
    out.resize(static_cast<size_t>(size.QuadPart));
    DWORD got = 0;
    if (!out.empty() && !ReadFile(f.h, out.data(), static_cast<DWORD>(out.size()), &got, nullptr)) return GetLastError();
    out.resize(got);
    return 0;
}

const PropertyDef* findProperty(EC_SUBSCRIPTION_PROPERTY_ID id) {
    for (const PropertyDef& d : kKept)
        if (d.id == id) return &d;
    return nullptr;
}

const PropertyDef* findProperty(std::string_view key) {
    for (const PropertyDef& d : kKept)
        if (iequalsAscii(d.key, key)) return &d;
    return nullptr;
}

std::string propertyKey(EC_SUBSCRIPTION_PROPERTY_ID id) {
    auto i = static_cast<size_t>(id);
    return i < std::size(kAllKeys) ? kAllKeys[i] : std::to_string(i);
}

const Value* Subscription::get(EC_SUBSCRIPTION_PROPERTY_ID id) const {
    for (const auto& [pid, v] : properties)
        if (pid == id) return &v;
    return nullptr;
}

void Subscription::set(EC_SUBSCRIPTION_PROPERTY_ID id, const Value& v) {
    for (auto& [pid, old] : properties) {
        if (pid == id) {
            old = v;
            return;
        }
    }
    properties.emplace_back(id, v);
}

void Subscription::clear(EC_SUBSCRIPTION_PROPERTY_ID id) {
    std::erase_if(properties, [id](const auto& p) { return p.first == id; });
}

bool Subscription::enabled() const {
    const Value* v = get(EcSubscriptionEnabled);
    return v && v->number != 0;
}

bool parseSubscriptions(std::string_view text, std::vector<Subscription>& out, std::string* error) {
    out.clear();
    if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
    size_t pos = 0, lineNo = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string_view::npos) nl = text.size();
        std::string_view raw = text.substr(pos, nl - pos);
        pos = nl + 1;
        ++lineNo;
        std::string_view line = trim(raw);
        auto bad = [&](const char* why) {
            if (error) *error = "line " + std::to_string(lineNo) + ": " + why + ": " + std::string(line);
            return false;
        };
        if (line.empty() || line.front() == '#') continue;
        if (line.front() == '[') {
            if (line.back() != ']' || line.size() < 3) return bad("bad subscription header");
            std::wstring name = toWide(trim(line.substr(1, line.size() - 2)));
            if (name.empty()) return bad("empty subscription name");
            if (findSubscription(out, name)) return bad("subscription named twice");
            out.push_back(Subscription{std::move(name), {}, {}});
            continue;
        }
        if (out.empty()) return bad("property before the first [subscription]");
        size_t eq = line.find('=');
        if (eq == std::string_view::npos) return bad("missing '='");
        std::string_view key = trim(line.substr(0, eq)), value = trim(line.substr(eq + 1));
        if (iequalsAscii(key, "EventSource")) {
            EventSource src;
            constexpr std::string_view kDisabled = "(disabled)";
            if (value.size() > kDisabled.size() && value.substr(value.size() - kDisabled.size()) == kDisabled) {
                src.enabled = false;
                value = trim(value.substr(0, value.size() - kDisabled.size()));
            }
            if (value.empty()) return bad("empty event source");
            src.address = toWide(value);
            out.back().sources.push_back(std::move(src));
            continue;
        }
        const PropertyDef* def = findProperty(key);
        if (!def) return bad("unknown property");
        Value v;
        if (!parseValue(*def, value, v)) return bad("bad value");
        out.back().set(def->id, v);
    }
    return true;
}

std::string formatSubscriptions(const std::vector<Subscription>& subs) {
    std::string text = "# Subscriptions of the simulated event collector (tools/ecsim/README.md).\n";
    for (const Subscription& s : subs) {
        text += "\n[" + toUtf8(s.name) + "]\n";
        for (const auto& [id, v] : s.properties) text += std::string(findProperty(id)->key) + " = " + formatValue(id, v) + "\n";
        for (const EventSource& src : s.sources)
            text += "EventSource = " + toUtf8(src.address) + (src.enabled ? "" : " (disabled)") + "\n";
    }
    return text;
}

void setStoreRoot(const std::wstring& root) {
    RootState& s = rootState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.root = root;
    s.overridden = !root.empty();
}

std::wstring storeRoot() {
    RootState& s = rootState();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.overridden) return s.root;
    }
    wchar_t buf[1024];
    DWORD n = GetEnvironmentVariableW(L"ECSIM_STORE", buf, 1024);
    return n == 0 || n >= 1024 ? std::wstring() : std::wstring(buf, n);
}

std::wstring collectorDir() {
    std::wstring root = storeRoot();
    return root.empty() ? root : root + L"\\collector";
}

bool collectorRunning() {
    std::wstring dir = collectorDir();
    if (dir.empty()) return false;
    DWORD attr = GetFileAttributesW(dir.c_str());
    return attr != INVALID_FILE_ATTRIBUTES && (attr & FILE_ATTRIBUTE_DIRECTORY);
}

// Wecsvc is reached over local RPC. "If you receive the message 'The RPC server is
// unavailable' or 'The interface is unknown' when you try to run wecutil, you need
// to start the Windows Event Collector service (wecsvc)" (Wecutil.exe page,
// learn.microsoft.com/windows/win32/wec/wecutil): without the collector folder every
// call that needs the service answers RPC_S_SERVER_UNAVAILABLE (1722); a fault rule
// gives RPC_S_UNKNOWN_IF (1717).
DWORD loadSubscriptions(std::vector<Subscription>& out) {
    out.clear();
    if (!collectorRunning()) return RPC_S_SERVER_UNAVAILABLE;
    std::string text;
    DWORD e = readWholeFile(collectorDir() + L"\\subscriptions.txt", text);
    if (e == ERROR_FILE_NOT_FOUND) return 0;
    if (e) return e;
    return parseSubscriptions(text, out, nullptr) ? 0 : ERROR_INVALID_DATA;
}

DWORD saveSubscriptions(const std::vector<Subscription>& subs) {
    if (!collectorRunning()) return RPC_S_SERVER_UNAVAILABLE;
    std::lock_guard<std::mutex> lock(saveMutex());
    const std::wstring path = collectorDir() + L"\\subscriptions.txt";
    const std::wstring temp = path + L".new";
    const std::string text = formatSubscriptions(subs);
    DWORD e = 0;
    {
        FileCloser f{CreateFileW(temp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)};
        if (f.h == INVALID_HANDLE_VALUE) return GetLastError();
        DWORD written = 0;
        if (!WriteFile(f.h, text.data(), static_cast<DWORD>(text.size()), &written, nullptr)) e = GetLastError();
        else if (written != text.size()) e = ERROR_WRITE_FAULT;
    }
    if (!e && !MoveFileExW(temp.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING)) e = GetLastError();
    if (e) DeleteFileW(temp.c_str());
    return e;
}

bool sameName(std::wstring_view a, std::wstring_view b) {
    return a.size() == b.size() &&
           CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
               CSTR_EQUAL;
}

Subscription* findSubscription(std::vector<Subscription>& subs, std::wstring_view name) {
    for (Subscription& s : subs)
        if (sameName(s.name, name)) return &s;
    return nullptr;
}

std::wstring toWide(std::string_view utf8) {
    if (utf8.empty()) return {};
    int n = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
    std::wstring out(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), out.data(), n);
    return out;
}

std::string toUtf8(std::wstring_view wide) {
    if (wide.empty()) return {};
    int n = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), out.data(), n, nullptr, nullptr);
    return out;
}

}  // namespace ecsim
