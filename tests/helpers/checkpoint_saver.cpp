// Test helper: saves checkpoints the way a channel does.
//
//   checkpoint-saver loop <file> <channel> <first record id>
//       saves bookmark texts of growing record ids to <file> with the durable
//       save, printing "saved <id>" after each, until it is killed.
#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "checkpoint/WELCheckPoint.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace {

std::string bookmarkXml(const std::string& channel, unsigned long long recordId) {
    return "<BookmarkList>\r\n  <Bookmark Channel='" + channel + "' RecordId='" + std::to_string(recordId) +
           "' IsCurrent='true'/>\r\n</BookmarkList>";
}

}  // namespace

int main(int argc, char** argv) {
    _setmode(_fileno(stdout), _O_BINARY);
    skorva::LoggerConfig log;  // failures (and the failed rename) to stderr
    log.level = skorva::LogLevel::Warn;
    log.alsoStderr = true;
    skorva::Logger::instance().apply(log);
    if (argc != 5 || std::string(argv[1]) != "loop") {
        std::fputs("usage: checkpoint-saver loop <file> <channel> <first id>\n", stderr);
        return 2;
    }
    const std::wstring path = skorva::widen(argv[2]);
    for (unsigned long long recordId = std::strtoull(argv[4], nullptr, 10);; ++recordId) {
        // A failed save is tried again, as a channel does at its next batch: the
        // file system may still hold the file of a saver killed a moment ago.
        // The failure itself is on standard error.
        for (int attempt = 1; !skorva::WELCheckPoint::saveCheckpointStr(path, bookmarkXml(argv[3], recordId), true);
             ++attempt) {
            if (attempt == 50) {
                std::fprintf(stderr, "checkpoint-saver: saving %llu failed %d times\n", recordId, attempt);
                return 1;
            }
            Sleep(20);
        }
        std::printf("saved %llu\n", recordId);
        std::fflush(stdout);
    }
}
