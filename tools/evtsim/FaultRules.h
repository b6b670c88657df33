#pragma once
// Fault rules as every stand-in reads them:
//   Function[:target]=code[,once|,times=N|,from=K|,always]
// one per line or separated by ';', '#' starting a comment. A set of rules comes
// from an environment variable together with faults.txt in the stand-in's folder
// (re-read when it changes, at most every 200 ms), unless the process sets them itself.
// Calls are counted per rule: from=K fails the K-th matching call and later ones,
// times=N fails N calls, once is times=1, always (the default) has no end.
// Targets match whole, or (Parts) by their parts between '/': "*" matches any
// one, and a rule's shorter target matches every call whose leading parts it
// matches.

#include <windows.h>

#include <atomic>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "SrwLock.h"

namespace evtsim {

class FaultRules {
public:
    // Null when rules may name `function` (and, when `code` is given, fail it with
    // that code), else why not.
    using Validator = const char* (*)(std::string_view function, const DWORD* code);
    using RootFn = std::wstring (*)();
    enum class TargetMatch { Whole, Parts };

    FaultRules(const char* environmentVariable, RootFn folder, Validator validate,
               TargetMatch targets = TargetMatch::Whole);
    FaultRules(const FaultRules&) = delete;
    FaultRules& operator=(const FaultRules&) = delete;

    // The code of the first rule for `function` (and `target`, matched without case;
    // a rule without target matches every call) whose window the call falls in, or 0.
    DWORD match(std::string_view function, std::string_view target);
    // Rules for this process, replacing the environment and the file; false on bad syntax.
    bool set(std::string_view rules, std::string* error);
    // Back to the environment and the file.
    void clear();
    // Parses rules without applying them.
    bool check(std::string_view rules, std::string* error) const;

private:
    struct Rule {
        std::string function;
        std::string target;  // empty: any
        DWORD code = 0;
        uint64_t from = 1;   // first matching call that fails (1-based)
        uint64_t times = 0;  // 0: no limit
        uint64_t calls = 0;
    };

    bool parse(std::string_view text, std::vector<Rule>& out, std::string* error) const;
    bool targets(const Rule& rule, std::string_view target) const;
    std::string environmentRules() const;
    void refreshLocked();

    const char* const variable_;
    const RootFn folder_;
    const Validator validate_;
    const TargetMatch targetMatch_;
    Mutex mutex_;
    bool overridden_ = false;
    std::vector<Rule> rules_;
    std::atomic<bool> any_{false};
    std::atomic<ULONGLONG> nextCheck_{0};
    std::wstring fileRoot_;
    FILETIME fileTime_{};
    uint64_t fileSize_ = ~0ull;
    bool loaded_ = false;
};

}  // namespace evtsim
