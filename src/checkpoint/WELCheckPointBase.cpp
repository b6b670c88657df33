#include "checkpoint/WELCheckPointBase.h"

#include "eventlog/Bookmark.h"
#include "platform/Logger.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

enum class ReadResult { Ok, CannotOpen, Empty };

ReadResult readJoined(const std::wstring& path, std::string& out) {
    out.clear();
    std::string raw;
    if (!readFile(path, raw)) return ReadResult::CannotOpen;
    WELCheckPointBase::joinLines(raw, out);
    return out.empty() ? ReadResult::Empty : ReadResult::Ok;
}

bool acceptedAsBookmark(const std::string& content) { return Bookmark().createFrom(content); }

}  // namespace

bool WELCheckPointBase::getCheckpointStr(const std::wstring& path, std::string& out) {
    static const char* const fn = "WELCheckPointBase::getCheckpointStr";
    const ReadResult read = readJoined(path, out);
    if (read == ReadResult::CannotOpen)
        LOG_ERROR("%s: Unable to open checkpoint file='%s'", fn, narrow(path).c_str());
    else if (read == ReadResult::Empty)
        LOG_DEBUG("%s: Unable to read checkpoint file='%s'", fn, narrow(path).c_str());
    return read == ReadResult::Ok;
}

bool WELCheckPointBase::getFromFile(const std::wstring& path, CheckpointMap& out) {
    std::string str;
    return getCheckpointStr(path, str) && parseCheckpointStr(str, out);
}

bool WELCheckPointBase::validateCheckpointStr(const std::wstring& path) {
    static const char* const fn = "WELCheckPointBase::validateCheckpointStr";
    const std::string narrowPath = narrow(path);
    LOG_DEBUG("%s: Validate checkpoint from file %s", fn, narrowPath.c_str());
    std::string content;
    const ReadResult read = readJoined(path, content);
    if (read != ReadResult::Ok) {
        LOG_DEBUG(read == ReadResult::CannotOpen ? "%s: Unable to open checkpoint file='%s'"
                                                 : "%s: Unable to read checkpoint file='%s':",
                  fn, narrowPath.c_str());
        return false;
    }
    if (acceptedAsBookmark(content)) return true;
    LOG_ERROR("%s Failed to create bookmark handle from checkpoint file: ", fn);
    CheckpointMap map;
    if (parseCheckpointStr(content, map)) return true;
    LOG_ERROR("%s: Failed to parse checkpoint string from file='%s'.  To avoid duplicate events, we're throwing an error",
              fn, narrowPath.c_str());
    return false;
}

}  // namespace skorva
