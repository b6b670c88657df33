#pragma once
// A temporary directory per test and raw file access for checkpoint tests.

#include <cstdint>
#include <string>
#include <vector>

namespace skorva::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::wstring& path() const { return path_; }
    std::wstring file(const std::wstring& name) const { return path_ + L"\\" + name; }

private:
    std::wstring path_;
};

void writeRaw(const std::wstring& path, const std::string& content);
std::string readRaw(const std::wstring& path);  // empty when missing
// Names of the entries of `dir` that begin with `prefix` ("." and ".." included).
std::vector<std::wstring> listMatching(const std::wstring& dir, const std::wstring& prefix);
// The bookmark text the event log service renders for `recordId` on `channel`.
std::string bookmarkXml(const std::string& channel, uint64_t recordId);

}  // namespace skorva::test
