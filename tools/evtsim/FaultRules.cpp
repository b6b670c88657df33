#include "FaultRules.h"

#include "Store.h"
#include "Text.h"
#include "SrwLock.h"

namespace evtsim {

FaultRules::FaultRules(const char* environmentVariable, RootFn folder, Validator validate, TargetMatch targets)
    : variable_(environmentVariable), folder_(folder), validate_(validate), targetMatch_(targets) {}

bool FaultRules::targets(const Rule& rule, std::string_view target) const {
    if (rule.target.empty()) return true;
    if (targetMatch_ == TargetMatch::Whole) return iequals(rule.target, target);
    std::string_view want = rule.target;
    for (;;) {
        const size_t w = want.find('/'), t = target.find('/');
        const std::string_view part = want.substr(0, w);
        if (part != "*" && !iequals(part, target.substr(0, t))) return false;
        if (w == std::string_view::npos) return true;
        if (t == std::string_view::npos) return false;  // the call's target is shorter
        want.remove_prefix(w + 1);
        target.remove_prefix(t + 1);
    }
}

bool FaultRules::parse(std::string_view text, std::vector<Rule>& out, std::string* error) const {
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
        if (const char* why = validate_(r.function, nullptr)) return bad(why);
        size_t comma = rhs.find(',');
        auto code = parseUnsigned(rhs.substr(0, comma));
        if (!code || *code == 0 || *code > 0xFFFFFFFFull) return bad("bad error code");
        r.code = static_cast<DWORD>(*code);
        if (const char* why = validate_(r.function, &r.code)) return bad(why);
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

std::string FaultRules::environmentRules() const {
    char buf[4096];
    DWORD n = GetEnvironmentVariableA(variable_, buf, sizeof buf);
    return n > 0 && n < sizeof buf ? std::string(buf, n) : std::string();
}

// Reloads from the environment and the folder's file when the file changed.
void FaultRules::refreshLocked() {
    std::wstring root = folder_();
    std::wstring path = root + L"\\faults.txt";
    WIN32_FILE_ATTRIBUTE_DATA attr{};
    bool exists = !root.empty() && GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &attr);
    uint64_t size = exists ? (static_cast<uint64_t>(attr.nFileSizeHigh) << 32) | attr.nFileSizeLow : ~0ull;
    if (loaded_ && root == fileRoot_ && size == fileSize_ && CompareFileTime(&attr.ftLastWriteTime, &fileTime_) == 0)
        return;
    loaded_ = true;
    fileRoot_ = root;
    fileSize_ = size;
    fileTime_ = attr.ftLastWriteTime;
    std::vector<Rule> rules;
    parse(environmentRules(), rules, nullptr);
    std::string text;
    if (exists && readWholeFile(path, text)) parse(text, rules, nullptr);
    rules_ = std::move(rules);
    any_ = !rules_.empty();
}

bool FaultRules::check(std::string_view rules, std::string* error) const {
    std::vector<Rule> parsed;
    return parse(rules, parsed, error);
}

DWORD FaultRules::match(std::string_view function, std::string_view target) {
    ULONGLONG now = GetTickCount64();
    if (!overridden_ && now >= nextCheck_.load(std::memory_order_relaxed)) {
        std::lock_guard<Mutex> lock(mutex_);
        if (!overridden_) refreshLocked();
        nextCheck_ = now + 200;
    }
    if (!any_.load(std::memory_order_acquire)) return 0;
    std::lock_guard<Mutex> lock(mutex_);
    for (Rule& r : rules_) {
        if (r.function != function || !targets(r, target)) continue;
        uint64_t call = ++r.calls;
        if (call >= r.from && (r.times == 0 || call < r.from + r.times)) return r.code;
    }
    return 0;
}

bool FaultRules::set(std::string_view text, std::string* error) {
    std::vector<Rule> rules;
    if (!parse(text, rules, error)) return false;
    std::lock_guard<Mutex> lock(mutex_);
    overridden_ = true;
    rules_ = std::move(rules);
    any_ = !rules_.empty();
    return true;
}

void FaultRules::clear() {
    std::lock_guard<Mutex> lock(mutex_);
    overridden_ = false;
    loaded_ = false;
    rules_.clear();
    any_ = false;
    nextCheck_ = 0;
}

}  // namespace evtsim
