#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "main/CommandLine.h"

using namespace skorva;

// (No argument, usage and the checkpoint removal of one channel or all run end to end.)
TEST(CommandLine, Modes) {
    struct Case {
        std::vector<const wchar_t*> args;  // without the program name
        bool usage;
        bool remove;
        const wchar_t* channel;  // null: none
    } cases[] = {
        {{L"-rm-checkpoint", L"a", L"-rm-checkpoint", L"b"}, false, true, L"b"},
        {{L"-rm-checkpoint", L"-help"}, false, true, L"-help"},
    };
    for (const auto& c : cases) {
        std::vector<const wchar_t*> argv{L"skorva-winevtlog.exe"};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        CommandLine cl = parseCommandLine(static_cast<int>(argv.size()), argv.data());
        std::wstring label;
        for (auto* a : c.args) label += std::wstring(a) + L" ";
        SCOPED_TRACE(std::string(label.begin(), label.end()));
        EXPECT_EQ(cl.showUsage, c.usage);
        EXPECT_EQ(cl.removeCheckpoint, c.remove);
        EXPECT_EQ(cl.checkpointChannel.has_value(), c.channel != nullptr);
        if (c.channel && cl.checkpointChannel) {
            EXPECT_EQ(*cl.checkpointChannel, c.channel);
        }
    }
}
