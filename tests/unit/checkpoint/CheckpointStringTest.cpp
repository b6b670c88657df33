// The checkpoint string read from a file (built natively under the sanitizers too).
#include <gtest/gtest.h>

#include "checkpoint/WELCheckPointBase.h"

namespace skorva {
namespace {

// A checkpoint string as a file may hold it (the strings the product writes are
// pinned byte for byte by the readers' tests; a parsed string builds back, fuzz_checkpoint).
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
        if (c.ok) {
            EXPECT_EQ(out, c.expected) << c.text;
        }
    }
}

}  // namespace
}  // namespace skorva
