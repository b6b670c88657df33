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
    test::writeRaw(path, test::bookmarkXml("Application", 386038) + "\r\n");
    std::string out;
    ASSERT_TRUE(WELCheckPointBase::getCheckpointStr(path, out));
    EXPECT_EQ(out, "<BookmarkList>  <Bookmark Channel='Application' RecordId='386038' IsCurrent='true'/></BookmarkList>");

    test::writeRaw(path, "channel=Application,\nrecord_id=9\n");
    CheckpointMap map;
    ASSERT_TRUE(WELCheckPointBase::getFromFile(path, map));
    EXPECT_EQ(map, (CheckpointMap{{"channel", "Application"}, {"record_id", "9"}}));
}

TEST(CheckpointFile, MissingOrEmptyFileIsNotRead) {
    TempDir dir;
    const std::wstring missing = dir.file(L"none_checkpoint");
    const std::wstring empty = dir.file(L"empty_checkpoint");
    test::writeRaw(empty, "\r\n");
    LogCapture log;
    std::string out = "stale";
    EXPECT_FALSE(WELCheckPointBase::getCheckpointStr(missing, out));
    EXPECT_EQ(out, "");
    EXPECT_TRUE(log.has(LogLevel::Error, "WELCheckPointBase::getCheckpointStr: Unable to open checkpoint file='" +
                                             narrow(missing) + "'"));
    EXPECT_FALSE(WELCheckPointBase::getCheckpointStr(empty, out));
    EXPECT_TRUE(log.has(LogLevel::Debug, "WELCheckPointBase::getCheckpointStr: Unable to read checkpoint file='" +
                                             narrow(empty) + "'"));
}

TEST(CheckpointFile, ValidationAcceptsBookmarksAndCheckpointStringsOnly) {
    test::EvtsimStore service;  // the bookmark parser
    TempDir dir;
    const std::wstring path = dir.file(L"Security_checkpoint");
    struct Case {
        std::string content;
        bool valid;
        bool triedAsString;
    } cases[] = {
        {test::bookmarkXml("Security", 12), true, false},
        {"channel=Security,record_id=12", true, true},
        // Neither: refusing it keeps the channel from resending everything.
        {"x", false, true},
        {"<BookmarkList>\n</BookmarkList>\n", true, false},
        {"<BookmarkList>\r\n  <Bookmark Chan", false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        test::writeRaw(path, c.content);
        LogCapture log;
        EXPECT_EQ(WELCheckPointBase::validateCheckpointStr(path), c.valid);
        EXPECT_EQ(log.has(LogLevel::Error,
                          "WELCheckPointBase::validateCheckpointStr Failed to create bookmark handle from checkpoint file: "),
                  c.triedAsString);
        EXPECT_EQ(log.has(LogLevel::Error, "WELCheckPointBase::validateCheckpointStr: Failed to parse checkpoint string "
                                           "from file='" + narrow(path) +
                                               "'.  To avoid duplicate events, we're throwing an error"),
                  !c.valid);
    }

    LogCapture log;
    EXPECT_FALSE(WELCheckPointBase::validateCheckpointStr(dir.file(L"missing")));
    EXPECT_TRUE(log.contains("Unable to open checkpoint file="));
}

TEST(CheckpointFile, LoadCreatesTheDirectory) {
    TempDir dir;
    const std::wstring nested = dir.file(L"a\\b\\WinEventLog");
    CheckpointMap map;
    LogCapture log;
    EXPECT_FALSE(WELCheckPoint::load(nested, nested + L"\\X_checkpoint", map));  // no file yet
    EXPECT_TRUE(pathExists(nested));
    EXPECT_TRUE(log.has(LogLevel::Debug, "WELCheckPoint::load: Load check point"));

    test::writeRaw(nested + L"\\X_checkpoint", "record_id=5");
    EXPECT_TRUE(WELCheckPoint::load(nested, nested + L"\\X_checkpoint", map));
    EXPECT_EQ(map["record_id"], "5");
}

TEST(CheckpointFile, SaveWritesAndReplacesInBothModes) {
    TempDir dir;
    const std::wstring path = dir.file(L"Application_checkpoint");
    for (bool sync : {false, true}) {
        SCOPED_TRACE(sync);
        test::writeRaw(path, std::string(500, 'o'));  // longer than what replaces it
        ASSERT_TRUE(WELCheckPoint::saveCheckpointStr(path, test::bookmarkXml("Application", 7), sync));
        EXPECT_EQ(test::readRaw(path), test::bookmarkXml("Application", 7));
        EXPECT_TRUE(test::listMatching(dir.path(), L"Application_checkpoint.tmp.").empty());
    }
}

TEST(CheckpointFile, RefusedSaveLeavesTheFileAsItWas) {
    TempDir dir;
    const std::wstring path = dir.file(L"Application_checkpoint");
    const std::wstring unwritable = dir.file(L"no\\such\\dir\\X_checkpoint");
    test::writeRaw(path, "record_id=1");
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
    test::writeRaw(path, "record_id=1");
    // An open handle that does not share deletion blocks replacing the file,
    // but not writing it.
    UniqueHandle holder(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(holder.valid());
    LogCapture log;
    ASSERT_TRUE(WELCheckPoint::saveCheckpointStr(path, "record_id=2", true));
    EXPECT_TRUE(log.contains("WELCheckPoint::saveCheckpointStr: Failed to rename checkpoint file '" + narrow(path) +
                             ".tmp."))
        << log.dump();
    holder.reset();
    EXPECT_EQ(test::readRaw(path), "record_id=2");
    EXPECT_TRUE(test::listMatching(dir.path(), L"Security_checkpoint.tmp.").empty());
}

}  // namespace
}  // namespace skorva
