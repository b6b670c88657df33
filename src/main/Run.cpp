#include "main/Run.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <exception>
#include <map>
#include <string>

#include "main/RmCheckpoint.h"
#include "modinput/ConfigXmlStreamingParser.h"
#include "platform/LoaderInfo.h"
#include "platform/Logger.h"
#include "platform/Paths.h"
#include "platform/SkorvaException.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

const char kRun[] = "runWinEventMon";

void configureLogging(const std::wstring& home) {
    const std::wstring configPath = joinPath(joinPath(home, L"etc"), L"log-cmdline.cfg");
    const std::wstring logDir = joinPath(joinPath(joinPath(home, L"var"), L"log"), L"skorva");
    std::map<std::string, std::string> substitutions{{"${SKORVA_HOME}", narrow(home)}};
    Logger::instance().configure(configPath, substitutions, joinPath(logDir, L"skorva-winevtlog.log"));
    LOG_INFO("%s: Using logging configuration at %s", kRun, narrow(configPath).c_str());
}

// The modular input run: reads the configuration from stdin and reports it.
int runInput() {
    ConfigXmlStreamingParser parser;
    InputConfig config = readConfigFromStdin(parser);
    LOG_INFO("%s: configuration read: server_host='%s' server_uri='%s' checkpoint_dir='%s' stanzas=%zu", kRun,
             config.serverHost.c_str(), config.serverUri.c_str(), config.checkpointDir.c_str(), config.stanzas.size());
    for (const auto& [name, stanza] : config.stanzas)
        LOG_INFO("%s: stanza '%s' with %zu parameters", kRun, name.c_str(), stanza.params.size());
    return 0;
}

}  // namespace

int runWinEventMon(const CommandLine& commandLine) {
    LoaderInfo* info = LoaderInfo::instance();
    if (!info) {
        LOG_ERROR("%s: Failed to run Skorva Windows Event Log Monitor: error getting LoaderInfo instance.", kRun);
        return 1;
    }
    info->refresh();
    const std::wstring home = info->home();
    if (home.empty()) {
        fprintf(stderr, "%s: SKORVA_HOME must be set.  Stopping.\n", kRun);
        fflush(stderr);
        LOG_ERROR("%s: SKORVA_HOME must be set.  Stopping", kRun);
        return 1;
    }
    configureLogging(home);

    if (commandLine.removeCheckpoint) {
        rm_checkpoint(commandLine.checkpointChannel ? commandLine.checkpointChannel->c_str() : nullptr);
        return 0;
    }

    try {
        return runInput();
    } catch (const SkorvaException& e) {
        LOG_ERROR("%s:  Failed to run Skorva Windows event log Monitor: '%s'", kRun, e.what());
    } catch (const std::exception& e) {
        LOG_ERROR("%s:  Failed to run Skorva Windows event log Monitor: '%s'", kRun, e.what());
    }
    return -1;
}

int programMain(int argc, wchar_t** argv) {
    // Standard error carries exact texts (usage, start-up failures): no CR insertion.
    _setmode(_fileno(stderr), _O_BINARY);
    CommandLine commandLine = parseCommandLine(argc, argv);
    if (commandLine.showUsage) {
        printUsage();
        return 1;
    }
    return runWinEventMon(commandLine);
}

}  // namespace skorva
