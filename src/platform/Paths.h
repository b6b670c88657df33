#pragma once
// Path helpers over the wide file API. Paths longer than MAX_PATH are given the
// "\\?\" prefix before they reach the system.

#include <string>
#include <string_view>
#include <vector>

namespace skorva {

// Joins with a single backslash between the parts.
std::wstring joinPath(std::wstring_view a, std::wstring_view b);
std::string joinPath(std::string_view a, std::string_view b);

// The form to hand to the file API: absolute paths of 260 characters or more
// get the long-path prefix ("\\?\" or "\\?\UNC\"), with '/' turned into '\'.
std::wstring longPath(std::wstring_view path);

bool pathExists(const std::wstring& path);
bool isDirectory(const std::wstring& path);

// Creates the directory and every missing parent. True when it exists afterwards.
bool createDirectories(const std::wstring& path);

// Removes a file or a directory tree. Entries that could not be removed are
// appended to `failures` as "path: system error text". True when nothing failed.
bool removeRecursive(const std::wstring& path, std::vector<std::string>& failures);

// Reads a whole file; false when it cannot be opened or read.
bool readFile(const std::wstring& path, std::string& out);

}  // namespace skorva
