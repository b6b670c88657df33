// The checkpoint string and the line joining of checkpoint files.
#include <gtest/gtest.h>

#include "checkpoint/WELCheckPointBase.h"

namespace skorva {
namespace {

TEST(CheckpointString, BuildsPairsInKeyOrderAndRefusesEmptyParts) {
    struct Case {
        CheckpointMap map;
        bool ok;
        std::string expected;
    } cases[] = {
        {{}, true, ""},
        {{{"record_id", "42"}}, true, "record_id=42"},
        {{{"b", "2"}, {"a", "1"}}, true, "a=1,b=2"},
        // Byte-wise order: upper case before lower case.
        {{{"record_id", "7"}, {"channel", "Security"}, {"Z", "z"}}, true, "Z=z,channel=Security,record_id=7"},
        {{{"a", "1"}, {"b", ""}}, false, ""},
        {{{"", "1"}}, false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        std::string out = "stale";
        EXPECT_EQ(WELCheckPointBase::buildCheckpointStr(c.map, out), c.ok);
        EXPECT_EQ(out, c.expected);
    }
}

TEST(CheckpointString, ParseCases) {
    struct Case {
        std::string text;
        bool ok;
        CheckpointMap expected;
    } cases[] = {
        {"a=1,b=2", true, {{"a", "1"}, {"b", "2"}}},
        {"a=1,a=3", true, {{"a", "3"}}},    // later duplicate wins
        {"a=x=y", true, {{"a", "x=y"}}},    // only the first '=' separates
        {"x", false, {}},      {"a=", false, {}},       {"a=1,b", false, {}},
        {"=1", false, {}},     {"a=1,,b=2", false, {}}, {"a=1,", false, {}},
        {"", false, {}},
    };
    for (const auto& c : cases) {
        CheckpointMap out;
        EXPECT_EQ(WELCheckPointBase::parseCheckpointStr(c.text, out), c.ok) << c.text;
        if (c.ok) EXPECT_EQ(out, c.expected) << c.text;
    }
}

// (A bookmark's CR LF lines joined: CheckpointFile ReadsContentWithLinesJoined.)
TEST(CheckpointString, JoinLinesDropsLineEnds) {
    struct Case {
        std::string content, expected;
    } cases[] = {
        {"a=1,\nb=2\n", "a=1,b=2"},
        {"a\r\r\nb", "a\rb"},  // only the CR of a CRLF pair is a line end
        {"\n\r\n", ""},
        {"one", "one"},
    };
    for (const auto& c : cases) {
        std::string out = "stale";
        WELCheckPointBase::joinLines(c.content, out);
        EXPECT_EQ(out, c.expected);
    }
}

}  // namespace
}  // namespace skorva
