#pragma once
// The checkpoint file format. A modern channel's file holds the event log
// service's bookmark XML unchanged; a legacy channel's holds a checkpoint string,
// key=value pairs in key order joined by ",".
//
// Building and parsing the string (WELCheckPointBaseText.cpp) need no Windows
// service and include no Windows header; reading and validating a file
// (WELCheckPointBase.cpp) are the thin Windows side.

#include <map>
#include <string>
#include <string_view>

namespace skorva {

using CheckpointMap = std::map<std::string, std::string>;

class WELCheckPointBase {
public:
    // Pairs in key order, "k=v" joined by ","; false on an empty key or value.
    static bool buildCheckpointStr(const CheckpointMap& map, std::string& out);
    // The reverse of the above; a later duplicate key overwrites an earlier one.
    static bool parseCheckpointStr(const std::string& str, CheckpointMap& out);

    // True when the file holds a bookmark the event log service accepts, or a
    // parsable checkpoint string. Anything else is refused so that the channel
    // is not silently restarted from its first event (which would resend events).
    static bool validateCheckpointStr(const std::wstring& path);
    // The whole content of the file, its lines joined without line ends.
    static bool getCheckpointStr(const std::wstring& path, std::string& out);
    static bool getFromFile(const std::wstring& path, CheckpointMap& out);

    // What reading a file in text mode line by line gives: every "\n" and the
    // "\r" before it are dropped.
    static void joinLines(std::string_view content, std::string& out);
};

}  // namespace skorva
