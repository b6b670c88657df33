#include "CheckpointTestSupport.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>

#include "platform/Handles.h"
#include "platform/Paths.h"

namespace skorva::test {

TempDir::TempDir() {
    static std::atomic<unsigned> counter{0};
    wchar_t base[MAX_PATH + 1];
    const DWORD n = ::GetTempPathW(MAX_PATH + 1, base);
    path_ = std::wstring(base, n) + L"ckpt-test-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
            std::to_wstring(counter++);
    std::vector<std::string> ignored;
    if (pathExists(path_)) removeRecursive(path_, ignored);
    EXPECT_TRUE(createDirectories(path_));
}

TempDir::~TempDir() {
    std::vector<std::string> ignored;
    removeRecursive(path_, ignored);
}

void writeRaw(const std::wstring& path, const std::string& content) {
    UniqueHandle h(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(h.valid());
    DWORD written = 0;
    ASSERT_TRUE(::WriteFile(h.get(), content.data(), static_cast<DWORD>(content.size()), &written, nullptr));
}

std::string readRaw(const std::wstring& path) {
    std::string out;
    readFile(path, out);
    return out;
}

std::vector<std::wstring> listMatching(const std::wstring& dir, const std::wstring& prefix) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW fd;
    HANDLE find = ::FindFirstFileW((dir + L"\\*").c_str(), &fd);
    if (find == INVALID_HANDLE_VALUE) return names;
    do {
        std::wstring name = fd.cFileName;
        if (name.rfind(prefix, 0) == 0) names.push_back(name);
    } while (::FindNextFileW(find, &fd));
    ::FindClose(find);
    return names;
}

std::string bookmarkXml(const std::string& channel, uint64_t recordId) {
    return "<BookmarkList>\r\n  <Bookmark Channel='" + channel + "' RecordId='" + std::to_string(recordId) +
           "' IsCurrent='true'/>\r\n</BookmarkList>";
}

}  // namespace skorva::test
