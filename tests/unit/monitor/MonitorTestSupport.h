#pragma once
// A monitor with a fixed set of known channels, for configuration and filter
// tests, and its output captured in a file.

#include <cstdio>
#include <initializer_list>
#include <map>
#include <string>
#include <utility>

#include "TempFolder.h"
#include "modinput/InputConfig.h"
#include "monitor/WinEventMon.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace skorva::test {

class TestMon : public WinEventMon {
public:
    explicit TestMon(bool vista = true) : WinEventMon(L"C:\\skorva-test\\checkpoints"), vista_(vista) {
        for (const char* name : {"Application", "Security", "System", "ForwardedEvents",
                                 "Microsoft-Windows-Sysmon/Operational"})
            knownChannels()[asciiLower(name)] = name;
    }

protected:
    bool systemIsVistaOrLater() const override { return vista_; }

private:
    bool vista_;
};

using Params = std::map<std::string, std::string>;

inline std::map<std::string, Stanza> stanzas(std::initializer_list<std::pair<std::string, Params>> list) {
    std::map<std::string, Stanza> out;
    for (const auto& [name, params] : list) out[name] = Stanza{name, params};
    return out;
}

// The monitor's output, read back while it is written (the writer flushes after
// each event).
class CapturedOutput {
public:
    CapturedOutput() : file_(_wfopen((folder_.path() + L"\\out").c_str(), L"w+b")) {}
    ~CapturedOutput() { fclose(file_); }
    FILE* file() const { return file_; }
    std::string text() const {
        std::string s;
        readFile(folder_.path() + L"\\out", s);
        return s;
    }

private:
    TempFolder folder_{L"out"};
    FILE* file_;
};

}  // namespace skorva::test
