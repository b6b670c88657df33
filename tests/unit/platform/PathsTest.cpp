#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "TempFolder.h"
#include "platform/Handles.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

using namespace skorva;

TEST(Paths, LongPathPrefix) {
    std::wstring shortPath = L"C:\\dir\\file";
    EXPECT_EQ(longPath(shortPath), shortPath);
    std::wstring longOne = L"C:\\" + std::wstring(300, L'd');
    EXPECT_EQ(longPath(longOne), L"\\\\?\\" + longOne);
    EXPECT_EQ(longPath(L"\\\\?\\" + longOne), L"\\\\?\\" + longOne);
    std::wstring unc = L"\\\\server\\share\\" + std::wstring(300, L'u');
    EXPECT_EQ(longPath(unc), L"\\\\?\\UNC\\server\\share\\" + std::wstring(300, L'u'));
    EXPECT_EQ(longPath(L"C:/a/b"), L"C:\\a\\b");
}

TEST(Paths, CreateReadAndRemoveTreesBeyondMaxPath) {
    test::TempFolder temp(L"skorva-paths");
    const std::wstring root = joinPath(temp.path(), L"tree");
    std::wstring deep = root;
    for (int i = 0; i < 12; ++i) deep = joinPath(deep, L"level-" + std::wstring(20, wchar_t(L'a' + i)));
    ASSERT_GT(deep.size(), 300u);
    ASSERT_TRUE(createDirectories(deep));
    EXPECT_TRUE(isDirectory(deep));
    EXPECT_TRUE(createDirectories(deep));  // already there

    const std::wstring file = joinPath(deep, L"checkpoint");
    ASSERT_TRUE(test::writeFile(longPath(file), "line1\nline2"));
    std::string content;
    ASSERT_TRUE(readFile(file, content));
    EXPECT_EQ(content, "line1\nline2");
    EXPECT_FALSE(readFile(joinPath(deep, L"missing"), content));

    ASSERT_TRUE(test::writeFile(joinPath(root, L"top.txt"), "x"));
    std::vector<std::string> failures;
    EXPECT_TRUE(removeRecursive(root, failures)) << (failures.empty() ? "" : failures[0]);
    EXPECT_TRUE(failures.empty());
    EXPECT_FALSE(pathExists(root));
}

TEST(Paths, RemovalCollectsWhatItCannotRemove) {
    test::TempFolder temp(L"skorva-paths");
    const std::wstring root = joinPath(temp.path(), L"locked");
    ASSERT_TRUE(createDirectories(joinPath(root, L"sub")));
    const std::wstring locked = joinPath(joinPath(root, L"sub"), L"in-use");
    ASSERT_TRUE(test::writeFile(locked, "held") && test::writeFile(joinPath(root, L"free"), "free"));
    {
        // An open handle without delete sharing keeps the file (and its folders).
        UniqueHandle hold(CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(hold.valid());
        std::vector<std::string> failures;
        EXPECT_FALSE(removeRecursive(root, failures));
        ASSERT_FALSE(failures.empty());
        EXPECT_NE(failures[0].find("in-use"), std::string::npos) << failures[0];
        EXPECT_FALSE(pathExists(joinPath(root, L"free")));  // the rest was removed
    }
    std::vector<std::string> failures;
    EXPECT_TRUE(removeRecursive(root, failures));
    std::vector<std::string> missing;
    EXPECT_FALSE(removeRecursive(root, missing));
    EXPECT_EQ(missing.size(), 1u);
}
