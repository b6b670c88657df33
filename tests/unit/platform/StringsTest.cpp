#include <gtest/gtest.h>

#include <string>

#include "platform/Strings.h"

using namespace skorva;

// Valid text both ways, NULs included, is fuzz_utf16's (always valid UTF-8, and
// back unchanged); the exact bytes of "café" on the stream, ProcessEvent's.
TEST(Strings, InvalidInputKeepsTheRest) {
    const std::wstring R(1, wchar_t(0xFFFD));
    struct Case {
        std::string in;
        std::wstring out;
    } cases[] = {
        {"a\xFF" "b", L"a" + R + L"b"},                 // byte that starts nothing
        {"a\xC3" "b", L"a" + R + L"b"},                 // truncated two-byte sequence
        {"\xE2\x82" "x", R + L"x"},                     // truncated three-byte sequence
        {"\xC0\xAF", R + R},                            // overlong
        {"\xED\xA0\x80" "z", R + R + R + L"z"},         // encoded surrogate (each byte rejected)
        {"end\xF0\x9F", L"end" + R},                    // cut at the end
    };
    for (const auto& c : cases) EXPECT_EQ(widen(c.in), c.out) << c.in;

    // A lone surrogate in UTF-16 becomes U+FFFD, the text around it survives.
    std::wstring lone = L"x";
    lone.push_back(wchar_t(0xD800));
    lone += L"y";
    EXPECT_EQ(narrow(lone), "x\xEF\xBF\xBDy");
    std::wstring trailing = L"z";
    trailing.push_back(wchar_t(0xDC00));
    EXPECT_EQ(narrow(trailing), "z\xEF\xBF\xBD");
}

TEST(Strings, TrimSplitLower) {
    EXPECT_EQ(trim(" \t\n\v\f\rvalue \r\n"), "value");
    EXPECT_EQ(trim(" \t "), "");
    EXPECT_EQ(split("a,,b,", ','), (std::vector<std::string>{"a", "", "b", ""}));
    EXPECT_EQ(split("", ','), (std::vector<std::string>{""}));
    EXPECT_EQ(asciiLower("WinEventLog://\xC3\x89T\xC3\xA9"), "wineventlog://\xC3\x89t\xC3\xA9");
    EXPECT_TRUE(iequalsAscii("ForwardedEvents", "forwardedevents"));
    EXPECT_FALSE(iequalsAscii("Security", "Securit"));
}

TEST(Strings, ReplaceAll) {
    std::string s = "%{S-1-5-18} and %{S-1-5-18}";
    EXPECT_EQ(replaceAll(s, "%{S-1-5-18}", "SYSTEM"), 2u);
    EXPECT_EQ(s, "SYSTEM and SYSTEM");
    std::string grow = "aaa";
    EXPECT_EQ(replaceAll(grow, "a", "aa"), 3u);  // no re-scan of replaced text
    EXPECT_EQ(grow, "aaaaaa");
    EXPECT_EQ(replaceAll(grow, "", "x"), 0u);
}

// The word-at-a-time search against the standard one, with the needle and
// decoys of its first byte on both sides of every eight-byte boundary and at
// the very end.
TEST(Strings, FindTextFindsWhatFindFinds) {
    for (size_t length = 0; length <= 19; ++length)
        for (size_t at = 0; at < length; ++at) {
            std::string text(length, 'x');
            text.replace(at, std::min<size_t>(4, length - at), std::string("S-1-").substr(0, length - at));
            if (at >= 2) text[at - 2] = 'S';
            const std::wstring wide = widen(text);
            for (const std::string_view needle : {"S-1-", "S", "x", "-1-x", "S-1-x"})
                for (size_t pos = 0; pos <= length + 1; ++pos) {
                    ASSERT_EQ(findText(text, needle, pos), std::string_view(text).find(needle, pos))
                        << text << " / " << needle << " from " << pos;
                    ASSERT_EQ(findText(wide, widen(needle), pos), std::wstring_view(wide).find(widen(needle), pos))
                        << text << " / " << needle << " from " << pos;
                }
        }
}

TEST(Strings, IntegerParsing) {
    struct Case {
        const char* text;
        bool ok;
        int64_t value;
    } cases[] = {
        {"10", true, 10},       {" -5 ", true, -5},       {"+7", true, 7},
        {"", false, 0},         {"12abc", false, 0},      {"0x10", false, 0},
        {"-", false, 0},
    };
    for (const auto& c : cases) {
        int64_t v = 0;
        EXPECT_EQ(parseInt64(c.text, v), c.ok) << c.text;
        if (c.ok) {
            EXPECT_EQ(v, c.value) << c.text;
        }
    }
    uint64_t u = 0;
    EXPECT_TRUE(parseUInt64("18446744073709551615", u));
    EXPECT_EQ(u, UINT64_MAX);
    EXPECT_FALSE(parseUInt64("18446744073709551616", u));
    EXPECT_FALSE(parseUInt64("-1", u));
}

TEST(Strings, FormatGrowsPastItsStackBuffer) {
    std::string big(5000, 'x');
    EXPECT_EQ(format("<%s>", big.c_str()), "<" + big + ">");
    EXPECT_EQ(format("%llu/%d", 18446744073709551615ull, -1), "18446744073709551615/-1");
}
