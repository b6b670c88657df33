// Evaluations per second of WinEventMon::include_event: ten key/regex rules
// (five whitelist rules, the last one admitting, and five blacklist rules that
// never match, so every rule is tried) over classic events of about 1 KB.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "monitor/WinEventMon.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

using namespace skorva;

namespace {

class BenchMon : public WinEventMon {
public:
    BenchMon() : WinEventMon(L"C:\\skorva-bench") { knownChannels()["security"] = "Security"; }

protected:
    bool systemIsVistaOrLater() const override { return true; }
};

std::string classicEvent(unsigned i) {
    std::string e = format(
        "01/31/2024 09:05:07 PM\nLogName=Security\nEventCode=%u\nEventType=0\nComputerName=host%02u.corp.example\n"
        "User=NOT_TRANSLATED\nSid=S-1-5-21-3623811015-3361044348-30300820-%u\nSidType=0\n"
        "SourceName=Microsoft Windows security auditing.\nType=Information\nRecordNumber=%u\n"
        "Keywords=Audit Success\nTaskCategory=Logon\nOpCode=Info\n"
        "Message=An account was successfully logged on.\n\nSubject:\n\tSecurity ID:\t\tS-1-5-18\n"
        "\tAccount Name:\t\tHOST%02u$\n\tAccount Domain:\t\tCORP\n\tLogon ID:\t\t0x3E7\n\n"
        "Logon Information:\n\tLogon Type:\t\t%u\n\tRestricted Admin Mode:\t-\n\tVirtual Account:\t\tNo\n"
        "\tElevated Token:\t\tYes\n\nImpersonation Level:\t\tImpersonation\n\nNew Logon:\n"
        "\tSecurity ID:\t\tS-1-5-21-3623811015-3361044348-30300820-%u\n\tAccount Name:\t\tuser%u\n"
        "\tAccount Domain:\t\tCORP\n\tLogon ID:\t\t0x%X\n\tLinked Logon ID:\t\t0x0\n",
        4624 + i % 2, i % 50, 1000 + i, 386038 + i, i % 50, i % 2 ? 3 : 10, 1000 + i, i, 0x1000 + i);
    while (e.size() < 1024) e += "\tProcess Information:\t\tC:\\Windows\\System32\\lsass.exe\n";
    return e;
}

}  // namespace

int main(int argc, char** argv) {
    const long count = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 200000;
    LoggerConfig quiet;
    quiet.level = LogLevel::Warn;
    Logger::instance().apply(quiet);

    const std::string stanza = "WinEventLog://Security";
    Stanza s{stanza,
             {{"whitelist", "ComputerName=%^nohost%"},
              {"whitelist1", "TaskCategory=%Logoff%"},
              {"whitelist2", "Keywords=%Audit Failure%"},
              {"whitelist3", "SourceName=%^Application%"},
              {"whitelist4", R"(Message=%Logon Type:\s{1,}(3|10)%)"},
              {"blacklist", "EventCode=%^4634$%"},
              {"blacklist1", "User=%^SYSTEM$%"},
              {"blacklist2", "Sid=%-500$%"},
              {"blacklist3", "RecordNumber=%^0$%"},
              {"blacklist4", "OpCode=%Stop%"}}};
    BenchMon mon;
    if (!mon.configure({{stanza, s}})) return 1;

    std::vector<std::string> events;
    size_t bytes = 0;
    for (unsigned i = 0; i < 64; ++i) {
        events.push_back(classicEvent(i));
        bytes += events.back().size();
    }
    long admitted = 0;
    for (const auto& e : events) admitted += mon.include_event(e, stanza);  // warm-up
    if (admitted != static_cast<long>(events.size())) {
        std::fprintf(stderr, "unexpected decision: %ld of %zu admitted\n", admitted, events.size());
        return 1;
    }
    auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < count; ++i) admitted += mon.include_event(events[static_cast<size_t>(i) & 63], stanza);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("include_event: %ld evaluations of %zu-byte classic events, 10 key/regex rules: %.3f s, %.0f "
                "evaluations/s\n",
                count, bytes / events.size(), seconds, count / seconds);
    return admitted > 0 ? 0 : 1;
}
