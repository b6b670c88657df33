#pragma once
// Regular expressions over PCRE2: compiled once (JIT where available), searched
// anywhere in the subject, safe to match from many threads at once. A match
// allocates nothing after a thread's first one (match data is kept per thread).

#include <memory>
#include <string>
#include <string_view>

namespace skorva {

class Regex {
public:
    // Null with `error` set ("<PCRE2 message> at offset N") when it does not compile.
    static std::unique_ptr<Regex> compile(std::string_view pattern, std::string& error);
    ~Regex();
    Regex(const Regex&) = delete;
    Regex& operator=(const Regex&) = delete;

    bool search(std::string_view subject) const;
    const std::string& pattern() const { return pattern_; }
    bool jitCompiled() const { return jit_; }

private:
    Regex() = default;
    void* code_ = nullptr;  // pcre2_code_8
    std::string pattern_;
    bool jit_ = false;
};

}  // namespace skorva
