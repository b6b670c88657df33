#include "checkpoint/CheckpointPath.h"

#include "platform/LoaderInfo.h"
#include "platform/Paths.h"

namespace skorva {

std::wstring defaultCheckpointDirectory() {
    return joinPath(joinPath(LoaderInfo::instance()->db(), L"persistentstorage"), L"WinEventLog");
}

std::wstring checkpointFileName(std::wstring_view channel, std::wstring_view suffix) {
    std::wstring name;
    name.reserve(channel.size() + 12 + suffix.size());
    for (wchar_t c : channel) {
        bool forbidden = c < 0x20 || c == L'\\' || c == L'/' || c == L':' || c == L'*' || c == L'?' ||
                         c == L'"' || c == L'<' || c == L'>' || c == L'|';
        name.push_back(forbidden ? L'_' : c);
    }
    name += L"_checkpoint";
    if (!suffix.empty()) {
        name += L'_';
        name += suffix;
    }
    return name;
}

std::wstring checkpointFilePath(std::wstring_view directory, std::wstring_view channel, std::wstring_view suffix) {
    return longPath(joinPath(directory, checkpointFileName(channel, suffix)));
}

}  // namespace skorva
