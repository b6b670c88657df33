#include "checkpoint/WELCheckPoint.h"

#include <windows.h>
#include <bcrypt.h>

#include "platform/Handles.h"
#include "platform/Logger.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

constexpr const char* kSave = "WELCheckPoint::saveCheckpointStr";

enum class WriteResult { Ok, CannotOpen, CannotWrite };

// Replaces the file's content with `data`; with `durable` the data is on disk
// before this returns.
WriteResult writeWhole(const std::wstring& path, const std::string& data, DWORD disposition, bool durable) {
    UniqueHandle file(::CreateFileW(longPath(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, disposition,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return WriteResult::CannotOpen;
    const char* p = data.data();
    size_t left = data.size();
    while (left > 0) {
        const DWORD chunk = left > 0x40000000u ? 0x40000000u : static_cast<DWORD>(left);
        DWORD written = 0;
        if (!::WriteFile(file.get(), p, chunk, &written, nullptr) || written == 0) return WriteResult::CannotWrite;
        p += written;
        left -= written;
    }
    if (durable && !::FlushFileBuffers(file.get())) return WriteResult::CannotWrite;
    return WriteResult::Ok;
}

bool reportedWrite(const std::wstring& path, const std::string& data, DWORD disposition, bool durable) {
    const WriteResult written = writeWhole(path, data, disposition, durable);
    if (written != WriteResult::Ok)
        LOG_ERROR(written == WriteResult::CannotOpen ? "%s: Unable to open checkpoint file='%s' for write"
                                                     : "%s: Unable to write to checkpoint file='%s'",
                  kSave, narrow(path).c_str());
    return written == WriteResult::Ok;
}

// Deletes the temporary file unless it was moved into place.
class TemporaryFile {
public:
    explicit TemporaryFile(std::wstring path) : path_(std::move(path)) {}
    ~TemporaryFile() {
        if (!moved_) ::DeleteFileW(longPath(path_).c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    const std::wstring& path() const { return path_; }
    bool moveOver(const std::wstring& target) {
        moved_ = ::MoveFileExW(longPath(path_).c_str(), longPath(target).c_str(),
                               MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != FALSE;
        return moved_;
    }

private:
    std::wstring path_;
    bool moved_ = false;
};

}  // namespace

bool WELCheckPoint::load(const std::wstring& directory, const std::wstring& path, CheckpointMap& out) {
    static const char* const fn = "WELCheckPoint::load";
    LOG_DEBUG("%s: Load check point", fn);
    if (!createDirectories(directory)) {
        LOG_ERROR("%s: Failed to create check point directory='%s'", fn, narrow(directory).c_str());
        return false;
    }
    return getFromFile(path, out);
}

std::wstring WELCheckPoint::temporaryPath(const std::wstring& path) {
    unsigned char random[8];
    if (!BCRYPT_SUCCESS(::BCryptGenRandom(nullptr, random, sizeof random, BCRYPT_USE_SYSTEM_PREFERRED_RNG)))
        return std::wstring();
    static const wchar_t digits[] = L"0123456789abcdef";
    std::wstring out = path + L".tmp.";
    for (unsigned char b : random) {
        out.push_back(digits[b >> 4]);
        out.push_back(digits[b & 15]);
    }
    return out;
}

bool WELCheckPoint::saveCheckpointStr(const std::wstring& path, const std::string& str, bool sync) {
    LOG_DEBUG("%s: Save checkpoint str %s, checkpointSync: %s", kSave, str.c_str(), sync ? "true" : "false");
    if (str.empty()) {
        LOG_ERROR("%s: Unable to write checkpoint with a null string", kSave);
        return false;
    }
    if (path.size() <= 3) {
        LOG_ERROR("%s: Unable to find checkpoint file path", kSave);
        return false;
    }
    bool direct = !sync;
    if (sync) {
        const std::wstring tmpPath = temporaryPath(path);
        if (tmpPath.empty()) {
            LOG_WARN("%s: Failed to create a temporary name for checkpoint file '%s'", kSave, narrow(path).c_str());
            direct = true;
        } else {
            TemporaryFile tmp(tmpPath);
            if (!reportedWrite(tmp.path(), str, CREATE_NEW, true)) return false;
            if (!tmp.moveOver(path)) {
                LOG_WARN("%s: Failed to rename checkpoint file '%s' -> '%s'", kSave, narrow(tmp.path()).c_str(),
                         narrow(path).c_str());
                direct = true;
            }
        }
    }
    if (direct && !reportedWrite(path, str, CREATE_ALWAYS, sync)) return false;
    LOG_DEBUG("%s: saving checkpoint done. : %s", kSave, narrow(path).c_str());
    return true;
}

}  // namespace skorva
