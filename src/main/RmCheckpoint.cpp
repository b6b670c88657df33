#include "main/RmCheckpoint.h"

#include <windows.h>

#include <string>
#include <vector>

#include "checkpoint/CheckpointPath.h"
#include "platform/Logger.h"
#include "platform/Paths.h"
#include "platform/SkorvaException.h"
#include "platform/Strings.h"

namespace skorva {

void rm_checkpoint(const wchar_t* channel) {
    const std::wstring directory = defaultCheckpointDirectory();
    if (channel) {
        const std::wstring target = checkpointFilePath(directory, channel);
        const std::string targetN = narrow(target);
        if (!pathExists(target)) {
            LOG_ERROR("Checkpoint location='%s' doesn't exist", targetN.c_str());
            return;
        }
        LOG_INFO("Deleting checkpoint file='%s'", targetN.c_str());
        if (!::DeleteFileW(target.c_str()))
            LOG_ERROR("%s: Failed to delete checkpoint file='%s'", "rm_checkpoint", targetN.c_str());
        // The reverse-reading bookmark belongs to the same checkpoint.
        const std::wstring reverse = checkpointFilePath(directory, channel, L"reverse");
        if (pathExists(reverse)) {
            const std::string reverseN = narrow(reverse);
            LOG_INFO("Deleting checkpoint file='%s'", reverseN.c_str());
            if (!::DeleteFileW(reverse.c_str()))
                LOG_ERROR("%s: Failed to delete checkpoint file='%s'", "rm_checkpoint", reverseN.c_str());
        }
        return;
    }
    const std::string directoryN = narrow(directory);
    if (!pathExists(directory)) {
        LOG_ERROR("Checkpoint location='%s' doesn't exist", directoryN.c_str());
        return;
    }
    LOG_INFO("Deleting checkpoint directory: %s", directoryN.c_str());
    std::vector<std::string> failures;
    if (!removeRecursive(directory, failures)) {
        std::string text;
        for (const auto& f : failures) {
            if (!text.empty()) text += "; ";
            text += f;
        }
        Logger::instance().write(LogLevel::Error,
                                 std::string("rm_checkpoint") + ": Failed to delete checkpoint dir=" + directoryN + ": " + text);
    }
}

}  // namespace skorva
