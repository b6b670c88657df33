#pragma once
// The monitor's output captured in a temporary file, read back as text.

#include <windows.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace skorva::test {

class CapturedOutput {
public:
    CapturedOutput() {
        wchar_t dir[MAX_PATH] = {};
        wchar_t name[MAX_PATH] = {};
        if (!::GetTempPathW(MAX_PATH, dir) || !::GetTempFileNameW(dir, L"out", 0, name))
            throw std::runtime_error("no temporary file");
        path_ = name;
        file_ = _wfopen(name, L"w+b");
        if (!file_) throw std::runtime_error("temporary file cannot be opened");
    }
    ~CapturedOutput() {
        fclose(file_);
        ::DeleteFileW(path_.c_str());
    }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    FILE* file() const { return file_; }
    // Everything written so far (the writer flushes after each event).
    std::string text() const {
        FILE* in = _wfopen(path_.c_str(), L"rb");
        std::string s;
        if (!in) return s;
        char buf[65536];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, in)) > 0) s.append(buf, n);
        fclose(in);
        return s;
    }

private:
    std::wstring path_;
    FILE* file_ = nullptr;
};

}  // namespace skorva::test
