#pragma once
// A private folder under %TEMP% for one test's life, removed with everything in it,
// and a file written whole.

#include <windows.h>

#include <atomic>
#include <stdexcept>
#include <string>

namespace skorva::test {

class TempFolder {
public:
    // `prefix` names the folder's owner ("evtsim", "dssim"); throws std::runtime_error.
    explicit TempFolder(const wchar_t* prefix) {
        static std::atomic<unsigned> counter{0};
        wchar_t temp[MAX_PATH];
        DWORD n = GetTempPathW(MAX_PATH, temp);
        if (n == 0 || n >= MAX_PATH) throw std::runtime_error("no temporary folder: " + std::to_string(GetLastError()));
        path_ = std::wstring(temp, n) + prefix + L"-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                std::to_wstring(GetTickCount64()) + L"-" + std::to_wstring(counter++);
        if (!CreateDirectoryW(path_.c_str(), nullptr))
            throw std::runtime_error("cannot create a temporary folder: " + std::to_string(GetLastError()));
    }
    ~TempFolder() { removeTree(path_); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::wstring& path() const { return path_; }

private:
    static void removeTree(const std::wstring& dir) {
        WIN32_FIND_DATAW fd;
        HANDLE find = FindFirstFileW((dir + L"\\*").c_str(), &fd);
        if (find != INVALID_HANDLE_VALUE) {
            do {
                std::wstring name = fd.cFileName;
                if (name == L"." || name == L"..") continue;
                std::wstring path = dir + L"\\" + name;
                if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) removeTree(path);
                else DeleteFileW(path.c_str());
            } while (FindNextFileW(find, &fd));
            FindClose(find);
        }
        RemoveDirectoryW(dir.c_str());
    }

    std::wstring path_;
};

// Writes `content` to `path`, created or replaced; false on failure.
inline bool writeFile(const std::wstring& path, const std::string& content) {
    HANDLE f = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD written = 0;
    const bool ok = f != INVALID_HANDLE_VALUE &&
                    WriteFile(f, content.data(), static_cast<DWORD>(content.size()), &written, nullptr) &&
                    written == content.size();
    if (f != INVALID_HANDLE_VALUE) CloseHandle(f);
    return ok;
}

}  // namespace skorva::test
