#pragma once
// A temporary directory per test and raw file access for checkpoint tests.

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "TempFolder.h"
#include "platform/Paths.h"

namespace skorva::test {

struct TempDir : TempFolder {
    TempDir() : TempFolder(L"ckpt-test") {}
    std::wstring file(const std::wstring& name) const { return path() + L"\\" + name; }
};

// Empty when missing.
inline std::string readRaw(const std::wstring& path) {
    std::string out;
    readFile(path, out);
    return out;
}

// Names of the entries of `dir` that begin with `prefix` ("." and ".." included).
inline std::vector<std::wstring> listMatching(const std::wstring& dir, const std::wstring& prefix) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW fd;
    HANDLE find = ::FindFirstFileW((dir + L"\\*").c_str(), &fd);
    if (find == INVALID_HANDLE_VALUE) return names;
    do {
        if (std::wstring(fd.cFileName).rfind(prefix, 0) == 0) names.push_back(fd.cFileName);
    } while (::FindNextFileW(find, &fd));
    ::FindClose(find);
    return names;
}

// The bookmark text the event log service renders for `recordId` on `channel`.
inline std::string bookmarkXml(const std::string& channel, uint64_t recordId) {
    return "<BookmarkList>\r\n  <Bookmark Channel='" + channel + "' RecordId='" + std::to_string(recordId) +
           "' IsCurrent='true'/>\r\n</BookmarkList>";
}

}  // namespace skorva::test
