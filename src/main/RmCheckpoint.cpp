#include "main/RmCheckpoint.h"

#include <windows.h>

#include <string>
#include <vector>

#include "checkpoint/CheckpointPath.h"
#include "platform/Logger.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

void deleteCheckpointFile(const std::wstring& path) {
    const std::string pathN = narrow(path);
    LOG_INFO("Deleting checkpoint file='%s'", pathN.c_str());
    if (!::DeleteFileW(path.c_str()))
        LOG_ERROR("%s: Failed to delete checkpoint file='%s'", "rm_checkpoint", pathN.c_str());
}

}  // namespace

void rm_checkpoint(const wchar_t* channel) {
    const std::wstring directory = defaultCheckpointDirectory();
    if (channel) {
        const std::wstring target = checkpointFilePath(directory, channel);
        if (pathExists(target))
            deleteCheckpointFile(target);
        else
            LOG_ERROR("Checkpoint location='%s' doesn't exist", narrow(target).c_str());
        // The reverse-reading bookmark belongs to the same checkpoint and goes
        // even when the main file has gone already: left behind, it would make
        // the next newest-first reading resume there instead of starting over.
        const std::wstring reverse = checkpointFilePath(directory, channel, L"reverse");
        if (pathExists(reverse)) deleteCheckpointFile(reverse);
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
