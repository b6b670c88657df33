#include "platform/Regex.h"

#if defined(_WIN32)
#include <windows.h>
#endif

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include "platform/Strings.h"

namespace skorva {

namespace {

// One match-data block per thread, enough for a yes/no search.
#if defined(_WIN32)
// Kept in fiber local storage, whose callback frees it when the thread ends (a
// thread_local object with a destructor is not reliably destroyed by MinGW's
// runtime).
void WINAPI freeMatchData(void* data) {
    if (data) pcre2_match_data_free(static_cast<pcre2_match_data*>(data));
}

pcre2_match_data* threadMatchData() {
    static const DWORD index = ::FlsAlloc(&freeMatchData);
    if (index == FLS_OUT_OF_INDEXES) return nullptr;
    auto* md = static_cast<pcre2_match_data*>(::FlsGetValue(index));
    if (!md) {
        md = pcre2_match_data_create(1, nullptr);
        ::FlsSetValue(index, md);
    }
    return md;
}
#else
// The native build of the text logic (sanitizers, fuzzing).
pcre2_match_data* threadMatchData() {
    struct Owner {
        pcre2_match_data* md = pcre2_match_data_create(1, nullptr);
        ~Owner() { pcre2_match_data_free(md); }
    };
    thread_local Owner owner;
    return owner.md;
}
#endif

}  // namespace

std::unique_ptr<Regex> Regex::compile(std::string_view pattern, std::string& error) {
    int code = 0;
    PCRE2_SIZE offset = 0;
    pcre2_code* re = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(), PCRE2_UTF | PCRE2_MATCH_INVALID_UTF,
                                   &code, &offset, nullptr);
    if (!re) {
        PCRE2_UCHAR msg[256];
        pcre2_get_error_message(code, msg, sizeof msg);
        error = format("%s at offset %zu", reinterpret_cast<const char*>(msg), static_cast<size_t>(offset));
        return nullptr;
    }
    std::unique_ptr<Regex> r(new Regex);
    r->code_ = re;
    r->pattern_ = std::string(pattern);
    r->jit_ = pcre2_jit_compile(re, PCRE2_JIT_COMPLETE) == 0;
    return r;
}

Regex::~Regex() { pcre2_code_free(static_cast<pcre2_code*>(code_)); }

bool Regex::search(std::string_view subject) const {
    auto* re = static_cast<pcre2_code*>(code_);
    pcre2_match_data* md = threadMatchData();
    if (!md) return false;
    int rc = jit_ ? pcre2_jit_match(re, reinterpret_cast<PCRE2_SPTR>(subject.data()), subject.size(), 0, 0, md, nullptr)
                  : pcre2_match(re, reinterpret_cast<PCRE2_SPTR>(subject.data()), subject.size(), 0, 0, md, nullptr);
    return rc >= 0;
}

}  // namespace skorva
