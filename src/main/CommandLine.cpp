#include "main/CommandLine.h"

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cwchar>

#include "platform/Strings.h"

namespace skorva {

CommandLine parseCommandLine(int argc, const wchar_t* const* argv) {
    CommandLine cl;
    if (argc < 2) return cl;
    if (argc == 2) {
        const wchar_t* a = argv[1];
        if (wcscmp(a, L"/?") == 0 || wcscmp(a, L"-h") == 0 || wcscmp(a, L"-help") == 0) {
            cl.showUsage = true;
            return cl;
        }
    }
    // Every word must be -rm-checkpoint, optionally followed by one channel name.
    for (int i = 1; i < argc; ++i) {
        if (wcscmp(argv[i], L"-rm-checkpoint") != 0) {
            cl = CommandLine{};
            cl.showUsage = true;
            return cl;
        }
        cl.removeCheckpoint = true;
        if (i + 1 < argc) {
            cl.checkpointChannel = argv[i + 1];
            ++i;
        }
    }
    return cl;
}

std::string usageText() {
    const char* exe = "skorva-winevtlog.exe";
    std::string text = "Usage:\n";
    text += format(" %s -rm-checkpoint <log channel> /?\n", exe);
    text += format(" %s -help | /?\n", exe);
    text += "\n If there is no argument, run in modular input mode.\n"
            " -rm-checkpoint - Remove a specific checkpoint file given the log channel name.  If you don't\n"
            "            specify a channel name, it will delete all of the checkpoint files belongin to event logs.\n"
            "\nOptions:\n\n";
    text += "\n";
    return text;
}

void printUsage() {
    std::string text = usageText();
    fflush(stderr);
    // Binary mode: the bytes reach a pipe as written, without CR insertion.
    int mode = _setmode(_fileno(stderr), _O_BINARY);
    fwrite(text.data(), 1, text.size(), stderr);
    fflush(stderr);
    if (mode != -1) _setmode(_fileno(stderr), mode);
}

}  // namespace skorva
