#include "Faults.h"

#include <atomic>
#include <mutex>
#include <vector>

#include "Evtsim.h"
#include "Store.h"
#include "Text.h"

namespace evtsim {

namespace {

struct Rule {
    std::string function;
    std::string target;  // empty: any
    DWORD code = 0;
    uint64_t from = 1;   // first matching call that fails (1-based)
    uint64_t times = 0;  // 0: no limit
    uint64_t calls = 0;
};

// The classic event log functions of the legacy face (Legacy.h).
bool isLegacyEntryPoint(std::string_view name) {
    for (const char* f : {"OpenEventLogW", "ReadEventLogW", "GetNumberOfEventLogRecords", "GetOldestEventLogRecord"})
        if (name == f) return true;
    return false;
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
        if (colon != std::string_view::npos) r.target = std::string(lhs.substr(colon + 1));
        if (r.function.rfind("Evt", 0) != 0 && !isLegacyEntryPoint(r.function)) return bad("unknown entry point");
        size_t comma = rhs.find(',');
        auto code = parseUnsigned(rhs.substr(0, comma));
        if (!code || *code == 0 || *code > 0xFFFFFFFFull) return bad("bad error code");
        r.code = static_cast<DWORD>(*code);
        while (comma != std::string_view::npos) {
            rhs.remove_prefix(comma + 1);
            comma = rhs.find(',');
            std::string_view opt = rhs.substr(0, comma);
            if (opt == "once") r.times = 1;
            else if (opt == "always") r.times = 0;
            else if (opt.rfind("times=", 0) == 0 && parseUnsigned(opt.substr(6)) && *parseUnsigned(opt.substr(6)) > 0)
                r.times = *parseUnsigned(opt.substr(6));
            else if (opt.rfind("from=", 0) == 0 && parseUnsigned(opt.substr(5)) && *parseUnsigned(opt.substr(5)) > 0)
                r.from = *parseUnsigned(opt.substr(5));
            else return bad("unknown option");
        }
        out.push_back(std::move(r));
    }
    return true;
}

struct FaultState {
    std::mutex mutex;
    bool overridden = false;
    std::vector<Rule> rules;
    std::atomic<bool> any{false};
    std::atomic<ULONGLONG> nextCheck{0};
    std::wstring fileRoot;
    FILETIME fileTime{};
    uint64_t fileSize = ~0ull;
    bool loaded = false;
};

FaultState& state() {
    static FaultState s;
    return s;
}

std::string environmentRules() {
    char buf[4096];
    DWORD n = GetEnvironmentVariableA("EVTSIM_FAULTS", buf, sizeof buf);
    return n > 0 && n < sizeof buf ? std::string(buf, n) : std::string();
}

// Reloads from the environment and the store's file when the file changed.
void refreshLocked(FaultState& s) {
    std::wstring root = storeRoot();
    std::wstring path = root + L"\\faults.txt";
    WIN32_FILE_ATTRIBUTE_DATA attr{};
    bool exists = !root.empty() && GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &attr);
    uint64_t size = exists ? (static_cast<uint64_t>(attr.nFileSizeHigh) << 32) | attr.nFileSizeLow : ~0ull;
    if (s.loaded && root == s.fileRoot && size == s.fileSize && CompareFileTime(&attr.ftLastWriteTime, &s.fileTime) == 0)
        return;
    s.loaded = true;
    s.fileRoot = root;
    s.fileSize = size;
    s.fileTime = attr.ftLastWriteTime;
    std::vector<Rule> rules;
    parseRules(environmentRules(), rules, nullptr);
    std::string text;
    if (exists && readWholeFile(path, text)) parseRules(text, rules, nullptr);
    s.rules = std::move(rules);
    s.any = !s.rules.empty();
}

}  // namespace

bool checkFaultRules(std::string_view rules, std::string* error) {
    std::vector<Rule> parsed;
    return parseRules(rules, parsed, error);
}

DWORD injectedFault(const char* function, std::string_view target) {
    FaultState& s = state();
    ULONGLONG now = GetTickCount64();
    if (!s.overridden && now >= s.nextCheck.load(std::memory_order_relaxed)) {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!s.overridden) refreshLocked(s);
        s.nextCheck = now + 200;
    }
    if (!s.any.load(std::memory_order_acquire)) return 0;
    std::lock_guard<std::mutex> lock(s.mutex);
    for (Rule& r : s.rules) {
        if (r.function != function || (!r.target.empty() && !iequals(r.target, target))) continue;
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
    s.any = !s.rules.empty();
    return true;
}

void clearFaults() {
    FaultState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.overridden = false;
    s.loaded = false;
    s.rules.clear();
    s.any = false;
    s.nextCheck = 0;
}

}  // namespace evtsim
