#pragma once
// The program's command line: no argument (run as the daemon's input),
// -help / -h / /? (usage), or -rm-checkpoint [channel].

#include <optional>
#include <string>

namespace skorva {

struct CommandLine {
    bool showUsage = false;
    bool removeCheckpoint = false;
    std::optional<std::wstring> checkpointChannel;  // the argument after -rm-checkpoint
};

CommandLine parseCommandLine(int argc, const wchar_t* const* argv);

// The usage text, byte for byte as written to standard error.
std::string usageText();
// Writes the usage text to standard error.
void printUsage();

}  // namespace skorva
