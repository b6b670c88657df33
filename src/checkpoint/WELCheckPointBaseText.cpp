// The text half of WELCheckPointBase: no Windows header, so it also builds
// natively for sanitizers and fuzzing.
#include "checkpoint/WELCheckPointBase.h"

#include "platform/Logger.h"

namespace skorva {

bool WELCheckPointBase::buildCheckpointStr(const CheckpointMap& map, std::string& out) {
    static const char* const fn = "WELCheckPointBase::buildCheckpointStr";
    out.clear();
    for (const auto& [key, value] : map) {
        if (key.empty() || value.empty()) {
            LOG_ERROR("%s: Checkpoint values are invalid", fn);
            out.clear();
            return false;
        }
        if (!out.empty()) out.push_back(',');
        out.append(key).append(1, '=').append(value);
    }
    LOG_DEBUG("%s: buld checkpoint with str %s", fn, out.c_str());
    return true;
}

bool WELCheckPointBase::parseCheckpointStr(const std::string& str, CheckpointMap& out) {
    static const char* const fn = "WELCheckPointBase::parseCheckpointStr";
    LOG_DEBUG("%s: parse checkpoint with str %s", fn, str.c_str());
    std::string_view rest(str);
    for (;;) {
        const size_t comma = rest.find(',');
        const std::string_view piece = rest.substr(0, comma);
        const size_t eq = piece.find('=');
        if (eq == 0 || piece.empty()) {
            LOG_ERROR("%s: Failed to read key from checkpoint string", fn);
            return false;
        }
        if (eq == std::string_view::npos || eq + 1 == piece.size()) {
            LOG_ERROR("%s: Failed to read key value pair from checkpoint string", fn);
            return false;
        }
        out[std::string(piece.substr(0, eq))] = std::string(piece.substr(eq + 1));
        if (comma == std::string_view::npos) return true;
        rest.remove_prefix(comma + 1);
    }
}

void WELCheckPointBase::joinLines(std::string_view content, std::string& out) {
    out.clear();
    out.reserve(content.size());
    for (size_t i = 0; i < content.size(); ++i) {
        const char c = content[i];
        if (c == '\n') continue;
        if (c == '\r' && i + 1 < content.size() && content[i + 1] == '\n') continue;
        out.push_back(c);
    }
}

}  // namespace skorva
