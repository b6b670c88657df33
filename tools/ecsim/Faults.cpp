#include "Faults.h"

#include <mutex>
#include <string>
#include <vector>

#include "Ecsim.h"
#include "SubscriptionStore.h"

namespace ecsim {

namespace {

struct Rule {
    std::string function;
    std::vector<std::wstring> target;  // parts split at '/'; empty: any call
    DWORD code = 0;
    uint64_t from = 1;   // first matching call that fails (1-based)
    uint64_t times = 0;  // 0: no limit
    uint64_t calls = 0;
};

std::vector<std::wstring> splitTarget(std::wstring_view t) {
    std::vector<std::wstring> parts;
    if (t.empty()) return parts;
    size_t pos = 0;
    while (true) {
        size_t slash = t.find(L'/', pos);
        parts.emplace_back(t.substr(pos, slash == std::wstring_view::npos ? std::wstring_view::npos : slash - pos));
        if (slash == std::wstring_view::npos) return parts;
        pos = slash + 1;
    }
}

bool parseCount(std::string_view s, uint64_t& out) {
    if (s.empty() || s.size() > 18) return false;
    out = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        out = out * 10 + static_cast<unsigned>(c - '0');
    }
    return true;
}

bool parseRules(std::string_view text, std::vector<Rule>& out, std::string* error) {
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find_first_of(";\n", pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;
        if (size_t hash = line.find('#'); hash != std::string_view::npos) line = line.substr(0, hash);
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
        while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r')) line.remove_suffix(1);
        if (line.empty()) continue;
        auto bad = [&](const char* why) {
            if (error) *error = std::string(why) + ": " + std::string(line);
            return false;
        };
        size_t eq = line.find('=');
        if (eq == std::string_view::npos) return bad("missing '='");
        Rule r;
        std::string_view lhs = line.substr(0, eq), rhs = line.substr(eq + 1);
        size_t colon = lhs.find(':');
        r.function = std::string(lhs.substr(0, colon));
        if (colon != std::string_view::npos) r.target = splitTarget(toWide(lhs.substr(colon + 1)));
        if (r.function.size() < 3 || r.function.rfind("Ec", 0) != 0) return bad("unknown entry point");
        size_t comma = rhs.find(',');
        uint64_t code = 0;
        if (!parseCount(rhs.substr(0, comma), code) || code == 0 || code > 0xFFFFFFFFull) return bad("bad error code");
        r.code = static_cast<DWORD>(code);
        while (comma != std::string_view::npos) {
            rhs.remove_prefix(comma + 1);
            comma = rhs.find(',');
            std::string_view opt = rhs.substr(0, comma);
            uint64_t n = 0;
            if (opt == "once") r.times = 1;
            else if (opt == "always") r.times = 0;
            else if (opt.rfind("times=", 0) == 0 && parseCount(opt.substr(6), n) && n > 0) r.times = n;
            else if (opt.rfind("from=", 0) == 0 && parseCount(opt.substr(5), n) && n > 0) r.from = n;
            else return bad("unknown option");
        }
        out.push_back(std::move(r));
    }
    return true;
}

bool matches(const Rule& r, std::wstring_view target) {
    if (r.target.empty()) return true;
    std::vector<std::wstring> parts = splitTarget(target);
    if (parts.size() < r.target.size()) return false;
    for (size_t i = 0; i < r.target.size(); ++i)
        if (r.target[i] != L"*" && !sameName(r.target[i], parts[i])) return false;
    return true;
}

struct FaultState {
    std::mutex mutex;
    bool overridden = false;
    bool loaded = false;
    std::vector<Rule> rules;
    std::wstring filePath;
    FILETIME fileTime{};
    uint64_t fileSize = ~0ull;
};

FaultState& state() {
    static FaultState* s = new FaultState;
    return *s;
}

std::string environmentRules() {
    char buf[4096];
    DWORD n = GetEnvironmentVariableA("ECSIM_FAULTS", buf, sizeof buf);
    return n > 0 && n < sizeof buf ? std::string(buf, n) : std::string();
}

// Reloads the environment's and the file's rules when the file changed; the calls
// counted by the rules start again then.
void refreshLocked(FaultState& s) {
    std::wstring dir = collectorDir();
    std::wstring path = dir.empty() ? dir : dir + L"\\faults.txt";
    WIN32_FILE_ATTRIBUTE_DATA attr{};
    bool exists = !path.empty() && GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &attr);
    uint64_t size = exists ? (static_cast<uint64_t>(attr.nFileSizeHigh) << 32) | attr.nFileSizeLow : ~0ull;
    if (s.loaded && path == s.filePath && size == s.fileSize && CompareFileTime(&attr.ftLastWriteTime, &s.fileTime) == 0)
        return;
    s.loaded = true;
    s.filePath = path;
    s.fileSize = size;
    s.fileTime = attr.ftLastWriteTime;
    std::vector<Rule> rules;
    parseRules(environmentRules(), rules, nullptr);
    std::string text;
    if (exists && readWholeFile(path, text) == 0) parseRules(text, rules, nullptr);
    s.rules = std::move(rules);
}

}  // namespace

DWORD injectedFault(const char* function, std::wstring_view target) {
    FaultState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.overridden) refreshLocked(s);
    for (Rule& r : s.rules) {
        if (r.function != function || !matches(r, target)) continue;
        uint64_t call = ++r.calls;
        if (call >= r.from && (r.times == 0 || call < r.from + r.times)) return r.code;
    }
    return 0;
}

bool setFaults(std::string_view text, std::string* error) {
    std::vector<Rule> rules;
    if (!parseRules(text, rules, error)) return false;
    FaultState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.overridden = true;
    s.rules = std::move(rules);
    return true;
}

void clearFaults() {
    FaultState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.overridden = false;
    s.loaded = false;
    s.rules.clear();
}

}  // namespace ecsim
