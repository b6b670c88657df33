// Test helper: saves checkpoints the way a channel does.
//
//   checkpoint-saver loop <file> <channel> <first record id>
//       saves bookmark texts of growing record ids to <file> with the durable
//       save, printing "saved <id>" after each, until it is killed.
//   checkpoint-saver once <directory> <channel> <record id>
//       saves one bookmark as the channel's checkpoint file in <directory> and
//       prints the file's path.
#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "checkpoint/CheckpointPath.h"
#include "checkpoint/WELCheckPoint.h"
#include "platform/Logger.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace {

std::string bookmarkXml(const std::string& channel, unsigned long long recordId) {
    return "<BookmarkList>\r\n  <Bookmark Channel='" + channel + "' RecordId='" + std::to_string(recordId) +
           "' IsCurrent='true'/>\r\n</BookmarkList>";
}

int usage() {
    std::fputs("usage: checkpoint-saver loop <file> <channel> <first id> | once <directory> <channel> <id>\n", stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    _setmode(_fileno(stdout), _O_BINARY);
    skorva::LoggerConfig log;  // failures (and the failed rename) to stderr
    log.level = skorva::LogLevel::Warn;
    log.alsoStderr = true;
    skorva::Logger::instance().apply(log);
    if (argc != 5) return usage();
    const std::string mode = argv[1];
    const std::string channel = argv[3];
    unsigned long long recordId = std::strtoull(argv[4], nullptr, 10);
    if (mode == "loop") {
        const std::wstring path = skorva::widen(argv[2]);
        for (;; ++recordId) {
            if (!skorva::WELCheckPoint::saveCheckpointStr(path, bookmarkXml(channel, recordId), true)) return 1;
            std::printf("saved %llu\n", recordId);
            std::fflush(stdout);
        }
    }
    if (mode == "once") {
        const std::wstring directory = skorva::widen(argv[2]);
        const std::wstring path = skorva::checkpointFilePath(directory, skorva::widen(channel));
        if (!skorva::createDirectories(directory) ||
            !skorva::WELCheckPoint::saveCheckpointStr(path, bookmarkXml(channel, recordId), true))
            return 1;
        std::printf("%s\n", skorva::narrow(path).c_str());
        return 0;
    }
    return usage();
}
