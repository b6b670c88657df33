#pragma once
// Where a channel's checkpoint lives. The file is named after the channel with
// every character a Windows file name cannot hold replaced by "_", followed by
// "_checkpoint" (and "_" plus a suffix for a secondary bookmark such as "reverse").

#include <string>
#include <string_view>

namespace skorva {

// SKORVA_DB\persistentstorage\WinEventLog (from the loader information).
std::wstring defaultCheckpointDirectory();

// "<channel with \ / : * ? \" < > | and control characters as _>_checkpoint[_suffix]"
std::wstring checkpointFileName(std::wstring_view channel, std::wstring_view suffix = {});

// The directory joined with the file name, in the form to hand to the file API.
std::wstring checkpointFilePath(std::wstring_view directory, std::wstring_view channel,
                                std::wstring_view suffix = {});

}  // namespace skorva
