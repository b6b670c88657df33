#include "platform/Paths.h"

#include <windows.h>

#include "platform/Handles.h"
#include "platform/SkorvaException.h"
#include "platform/Strings.h"

namespace skorva {

std::wstring joinPath(std::wstring_view a, std::wstring_view b) {
    std::wstring out(a);
    while (!out.empty() && (out.back() == L'\\' || out.back() == L'/')) out.pop_back();
    while (!b.empty() && (b.front() == L'\\' || b.front() == L'/')) b.remove_prefix(1);
    if (!out.empty() && !b.empty()) out.push_back(L'\\');
    out.append(b);
    return out;
}

std::string joinPath(std::string_view a, std::string_view b) {
    return narrow(joinPath(widen(a), widen(b)));
}

std::wstring longPath(std::wstring_view path) {
    std::wstring p(path);
    for (auto& c : p)
        if (c == L'/') c = L'\\';
    if (p.size() < MAX_PATH || p.rfind(L"\\\\?\\", 0) == 0) return p;
    if (p.rfind(L"\\\\", 0) == 0) return L"\\\\?\\UNC\\" + p.substr(2);
    if (p.size() >= 3 && p[1] == L':' && p[2] == L'\\') return L"\\\\?\\" + p;
    return p;  // relative: the prefix would change its meaning
}

bool pathExists(const std::wstring& path) {
    return ::GetFileAttributesW(longPath(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool isDirectory(const std::wstring& path) {
    DWORD a = ::GetFileAttributesW(longPath(path).c_str());
    return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY);
}

bool createDirectories(const std::wstring& path) {
    if (path.empty()) return false;
    if (isDirectory(path)) return true;
    std::wstring p = path;
    while (!p.empty() && (p.back() == L'\\' || p.back() == L'/')) p.pop_back();
    size_t cut = p.find_last_of(L"\\/");
    if (cut != std::wstring::npos && cut > 0) {
        std::wstring parent = p.substr(0, cut);
        // Stop at a drive root ("C:") or the long-path prefix.
        if (!(parent.size() == 2 && parent[1] == L':') && parent != L"\\\\?" && !isDirectory(parent))
            if (!createDirectories(parent)) return false;
    }
    if (::CreateDirectoryW(longPath(p).c_str(), nullptr)) return true;
    return ::GetLastError() == ERROR_ALREADY_EXISTS && isDirectory(p);
}

static void noteFailure(const std::wstring& path, std::vector<std::string>& failures) {
    DWORD err = ::GetLastError();
    failures.push_back(narrow(path) + ": " + systemErrorText(err));
}

bool removeRecursive(const std::wstring& path, std::vector<std::string>& failures) {
    const size_t before = failures.size();
    DWORD attrs = ::GetFileAttributesW(longPath(path).c_str());
    if (attrs == INVALID_FILE_ATTRIBUTES) {
        noteFailure(path, failures);
        return false;
    }
    if (attrs & FILE_ATTRIBUTE_READONLY)
        ::SetFileAttributesW(longPath(path).c_str(), attrs & ~FILE_ATTRIBUTE_READONLY);
    if (!(attrs & FILE_ATTRIBUTE_DIRECTORY) || (attrs & FILE_ATTRIBUTE_REPARSE_POINT)) {
        BOOL ok = (attrs & FILE_ATTRIBUTE_DIRECTORY) ? ::RemoveDirectoryW(longPath(path).c_str())
                                                     : ::DeleteFileW(longPath(path).c_str());
        if (!ok) noteFailure(path, failures);
        return failures.size() == before;
    }
    WIN32_FIND_DATAW fd;
    HANDLE find = ::FindFirstFileW(longPath(joinPath(path, L"*")).c_str(), &fd);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            std::wstring name = fd.cFileName;
            if (name == L"." || name == L"..") continue;
            removeRecursive(joinPath(path, name), failures);
        } while (::FindNextFileW(find, &fd));
        ::FindClose(find);
    }
    if (!::RemoveDirectoryW(longPath(path).c_str())) noteFailure(path, failures);
    return failures.size() == before;
}

bool readFile(const std::wstring& path, std::string& out) {
    out.clear();
    UniqueHandle h(::CreateFileW(longPath(path).c_str(), GENERIC_READ,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                 OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!h) return false;
    char buf[8192];
    DWORD got = 0;
    for (;;) {
        if (!::ReadFile(h.get(), buf, sizeof buf, &got, nullptr)) return false;
        if (got == 0) return true;
        out.append(buf, got);
    }
}

}  // namespace skorva
