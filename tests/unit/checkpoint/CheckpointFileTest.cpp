// Reading, validating, loading and saving checkpoint files.
#include <gtest/gtest.h>

#include "CheckpointTestSupport.h"
#include "EvtsimInProcess.h"
#include "LogCapture.h"
#include "checkpoint/WELCheckPoint.h"
#include "platform/Handles.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace skorva {
namespace {

using test::LogCapture;
using test::TempDir;

TEST(CheckpointFile, ReadsContentWithLinesJoined) {
    TempDir dir;
    const std::wstring path = dir.file(L"Application_checkpoint");
    struct Case {
        const char* content;  // null: no file
        bool read;
        std::string out;
    } cases[] = {
        {"<BookmarkList>\r\n  <Bookmark Channel='Application' RecordId='386038' IsCurrent='true'/>\r\n</BookmarkList>\r\n",
         true, "<BookmarkList>  <Bookmark Channel='Application' RecordId='386038' IsCurrent='true'/></BookmarkList>"},
        {"a=1,\r\r\nb=2\n", true, "a=1,\rb=2"},  // only the CR of a CR LF pair ends a line
        {"\r\n", false, ""},
        {nullptr, false, ""},
    };
    for (const auto& c : cases) {
        ::DeleteFileW(path.c_str());
        EXPECT_TRUE(!c.content || test::writeFile(path, c.content));
        std::string out = "stale";
        EXPECT_EQ(WELCheckPointBase::getCheckpointStr(path, out), c.read) << c.out;
        EXPECT_EQ(out, c.out);
    }
}

// Anything but a bookmark or a checkpoint string is refused, so that the
// channel is not silently restarted from its first event.
TEST(CheckpointFile, ValidationAcceptsBookmarksAndCheckpointStringsOnly) {
    test::EvtsimStore service;  // the bookmark parser
    TempDir dir;
    const std::wstring path = dir.file(L"Security_checkpoint");
    struct Case {
        std::string content;
        bool valid;
    } cases[] = {
        {test::bookmarkXml("Security", 12), true},
        {"channel=Security,record_id=12", true},
        {"<BookmarkList>\n</BookmarkList>\n", true},
        {"x", false},
        {"<BookmarkList>\r\n  <Bookmark Chan", false},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(test::writeFile(path, c.content));
        LogCapture log;
        EXPECT_EQ(WELCheckPointBase::validateCheckpointStr(path), c.valid) << c.content;
        EXPECT_EQ(log.contains("To avoid duplicate events, we're throwing an error"), !c.valid);
    }
    EXPECT_FALSE(WELCheckPointBase::validateCheckpointStr(dir.file(L"missing")));
}

TEST(CheckpointFile, SaveWritesAndReplacesInBothModes) {
    TempDir dir;
    const std::wstring path = dir.file(L"Application_checkpoint");
    for (bool sync : {false, true}) {
        SCOPED_TRACE(sync);
        ASSERT_TRUE(test::writeFile(path, std::string(500, 'o')));  // longer than what replaces it
        ASSERT_TRUE(WELCheckPoint::saveCheckpointStr(path, test::bookmarkXml("Application", 7), sync));
        EXPECT_EQ(test::readRaw(path), test::bookmarkXml("Application", 7));
        EXPECT_TRUE(test::listMatching(dir.path(), L"Application_checkpoint.tmp.").empty());
    }
}

TEST(CheckpointFile, RefusedSaveLeavesTheFileAsItWas) {
    TempDir dir;
    const std::wstring path = dir.file(L"Application_checkpoint");
    const std::wstring unwritable = dir.file(L"no\\such\\dir\\X_checkpoint");
    ASSERT_TRUE(test::writeFile(path, "record_id=1"));
    for (bool sync : {false, true}) {
        struct Case {
            std::wstring path;
            const char* content;
            std::string error;  // the start of the line logged
        } cases[] = {
            {path, "", "Unable to write checkpoint with a null string\n"},
            {L"C:\\", "record_id=2", "Unable to find checkpoint file path\n"},
            {unwritable, "record_id=2",
             "Unable to open checkpoint file='" + narrow(unwritable) + (sync ? ".tmp." : "' for write\n")},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.error + (sync ? " (sync)" : ""));
            LogCapture log;
            EXPECT_FALSE(WELCheckPoint::saveCheckpointStr(c.path, c.content, sync));
            EXPECT_NE(log.dump().find("ERROR WELCheckPoint::saveCheckpointStr: " + c.error), std::string::npos)
                << log.dump();
        }
    }
    EXPECT_EQ(test::readRaw(path), "record_id=1");
    EXPECT_EQ(test::listMatching(dir.path(), L"").size(), 3u);  // ".", ".." and the file
}

TEST(CheckpointFile, FailedRenameFallsBackToDirectWrite) {
    TempDir dir;
    const std::wstring path = dir.file(L"Security_checkpoint");
    ASSERT_TRUE(test::writeFile(path, "record_id=1"));
    // An open handle that does not share deletion blocks replacing the file,
    // but not writing it.
    UniqueHandle holder(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(holder.valid());
    ASSERT_TRUE(WELCheckPoint::saveCheckpointStr(path, "record_id=2", true));
    holder.reset();
    EXPECT_EQ(test::readRaw(path), "record_id=2");
    EXPECT_TRUE(test::listMatching(dir.path(), L"Security_checkpoint.tmp.").empty());
}

}  // namespace
}  // namespace skorva
