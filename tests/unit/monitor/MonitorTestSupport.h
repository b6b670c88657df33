#pragma once
// A monitor with a fixed set of known channels, for configuration and filter tests.

#include <initializer_list>
#include <map>
#include <string>
#include <utility>

#include "modinput/InputConfig.h"
#include "monitor/WinEventMon.h"
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

}  // namespace skorva::test
