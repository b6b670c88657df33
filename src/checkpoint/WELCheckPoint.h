#pragma once
// Loading and saving checkpoint files.

#include <string>

#include "checkpoint/WELCheckPointBase.h"

namespace skorva {

class WELCheckPoint : public WELCheckPointBase {
public:
    // Creates `directory` (with its parents) when missing, then reads `path`.
    static bool load(const std::wstring& directory, const std::wstring& path, CheckpointMap& out);

    // Writes `str` to `path`. With `sync` the write is durable and atomic: a
    // temporary file beside the target is written, flushed to disk and moved
    // over it, so a crash leaves either the old or the new content, never a
    // torn one. A failed move falls back to writing the target directly, so
    // the checkpoint still advances.
    static bool saveCheckpointStr(const std::wstring& path, const std::string& str, bool sync);

    // The temporary name used by a synchronous save: path + ".tmp." + 16 random
    // hexadecimal digits from the system's cryptographic generator.
    // Empty when the generator fails.
    static std::wstring temporaryPath(const std::wstring& path);
};

}  // namespace skorva
