#include "Generator.h"

#include <cstdio>
#include <initializer_list>
#include <vector>

#include "EventBuilder.h"
#include "Text.h"

namespace evtsim {

namespace {

constexpr const char* kSecurity = "Microsoft-Windows-Security-Auditing";
constexpr const char* kSecurityGuid = "{54849625-5478-4994-a5ba-3e3b0328c30d}";
constexpr const char* kScm = "Service Control Manager";
constexpr const char* kScmGuid = "{555908d1-a6d7-4695-8e1e-26931d2012f4}";
constexpr const char* kKernel = "Microsoft-Windows-Kernel-General";
constexpr const char* kKernelGuid = "{a68ca8b7-004f-d7b6-a698-07e2de0f1f5d}";
constexpr const char* kEventLog = "EventLog";
constexpr const char* kAppError = "Application Error";
constexpr const char* kRestart = "Microsoft-Windows-RestartManager";
constexpr const char* kRestartGuid = "{0888e5ef-9b98-4695-979d-e92ce4247224}";
constexpr const char* kHostile = "Evtsim-Hostile";
constexpr const char* kNoLocale = "Evtsim-NoLocale";
constexpr const char* kUnregistered = "Evtsim-Unregistered";
// A classic source whose message files the test build makes (messages/*.mc) and
// the legacy face registers (sampleLegacySources).
constexpr const char* kClassic = "Evtsim-Classic";

struct Rng {
    uint64_t s;
    uint64_t next() {
        uint64_t z = (s += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    unsigned below(unsigned n) { return static_cast<unsigned>(next() % n); }
    template <class T, size_t N>
    const T& pick(const T (&a)[N]) { return a[below(N)]; }
};

const char* kUsers[] = {"alice", "bob", "carol", "svc_backup", "Administrator", "jürgen", "日本語ユーザー"};
const char* kHosts[] = {"WS-0142.corp.example.test", "DC01.corp.example.test", "SRV-FILE-02.corp.example.test"};
const char* kProcesses[] = {"C:\\Windows\\System32\\svchost.exe", "C:\\Windows\\explorer.exe",
                            "C:\\Program Files\\Tool\\tool.exe", "C:\\Windows\\System32\\cmd.exe"};
const char* kServices[] = {"Windows Update", "Print Spooler", "Background Intelligent Transfer Service", "Remote Registry"};
const char* kStates[] = {"running", "stopped"};
// Directory objects of the sample directory (examples/store/directory): per schema
// class, its GUID and the objectGUIDs of objects of that class; then the attributes,
// property sets and extended rights a directory-service access lists.
struct DsClass {
    const char* guid;
    std::vector<const char*> objects;
};
const DsClass kDsClasses[] = {
    {"{bf967aba-0de6-11d0-a285-00aa003049e2}",  // user
     {"{20983438-8bbc-45b7-9563-9a5fc0cc48ec}", "{45b246b9-1813-4f42-b065-ae90152c57ea}",
      "{3c291d17-431e-4724-93c4-97bf3637bbf7}", "{73188e3b-be50-4530-a743-35234ba2dd99}"}},
    {"{bf967a86-0de6-11d0-a285-00aa003049e2}",  // computer
     {"{2e393813-222b-4514-9caa-71b0840e5899}", "{6a4c3bad-313f-4e05-b94d-911488855fc8}"}},
    {"{bf967a9c-0de6-11d0-a285-00aa003049e2}",  // group
     {"{ea4c05dc-98e4-49b7-895d-eae2ab94270a}", "{85974b51-859c-438f-9ec9-c7fdf9ec2cdf}"}},
    {"{bf967aa5-0de6-11d0-a285-00aa003049e2}",  // organizationalUnit
     {"{ca9de656-954e-43d4-94a2-fae8684b124d}", "{b8c604f3-7917-48c9-812e-ab069aa49655}"}},
    {"{19195a5b-6da0-11d0-afd3-00c04fd930c9}", {"{e2974f72-8b87-4545-8eda-194a4ed274a8}"}},  // domainDNS
    {"{f30e3bc2-9ff0-11d1-b603-0000f80367c1}", {"{98ad88ce-b771-4573-9e21-0f50e414fef2}"}},  // groupPolicyContainer
};
const char* kDsProperties[] = {
    "{bf9679c0-0de6-11d0-a285-00aa003049e2}",  // member
    "{bf967a68-0de6-11d0-a285-00aa003049e2}",  // userAccountControl
    "{f3a64788-5306-11d1-a9c5-0000f80367c1}",  // servicePrincipalName
    "{f30e3bbe-9ff0-11d1-b603-0000f80367c1}",  // gPLink
    "{77b5b886-944a-11d1-aebd-0000f80367c1}",  // Personal Information
    "{1131f6aa-9c07-11d1-f79f-00c04fc2dcd2}",  // Replicating Directory Changes
    "{1131f6ad-9c07-11d1-f79f-00c04fc2dcd2}",  // Replicating Directory Changes All
    "{00299570-246d-11d0-a768-00aa006e0529}",  // Reset Password
    "{ab721a53-1e2f-11d0-9819-00aa0040529b}",  // Change Password
};

std::string userSid(Rng& r) { return "S-1-5-21-3623811015-3361044348-30300820-" + std::to_string(1000 + r.below(200)); }

std::string hex(uint64_t v) {
    char b[32];
    std::snprintf(b, sizeof b, "0x%llx", static_cast<unsigned long long>(v));
    return b;
}

EventSpec security(Rng& r) {
    EventSpec e;
    e.provider = kSecurity;
    e.providerGuid = kSecurityGuid;
    e.level = 0;
    e.keywords = 0x8020000000000000ull;
    e.processId = 680;
    std::string user = r.pick(kUsers), sid = userSid(r), logonId = hex(0x3e7 + r.below(0xFFFFF));
    switch (r.below(5)) {
    case 0:
        e.eventId = 4624, e.task = 12544, e.version = 2;
        e.data = {{"SubjectUserSid", "S-1-5-18"}, {"SubjectUserName", "WS-0142$"}, {"SubjectDomainName", "CORP"},
                  {"SubjectLogonId", "0x3e7"}, {"TargetUserSid", sid}, {"TargetUserName", user},
                  {"TargetDomainName", "CORP"}, {"TargetLogonId", logonId}, {"LogonType", std::to_string(2 + r.below(9))},
                  {"IpAddress", "10.0.0." + std::to_string(r.below(250))}, {"ElevatedToken", r.below(2) ? "%%1842" : "%%1843"}};
        break;
    case 1:
        e.eventId = 4625, e.task = 12544, e.keywords = 0x8010000000000000ull;
        e.data = {{"SubjectUserSid", "S-1-0-0"}, {"TargetUserName", user}, {"TargetDomainName", "CORP"},
                  {"Status", "0xc000006d"}, {"FailureReason", "%%2313"}, {"LogonType", "3"},
                  {"IpAddress", "192.0.2." + std::to_string(r.below(250))}};
        break;
    case 2:
        e.eventId = 4688, e.task = 13312, e.version = 2;
        e.data = {{"SubjectUserSid", sid}, {"SubjectUserName", user}, {"SubjectDomainName", "CORP"},
                  {"SubjectLogonId", logonId}, {"NewProcessId", hex(0x1000 + r.below(0xFFFF))},
                  {"NewProcessName", r.pick(kProcesses)}, {"CommandLine", std::string(r.pick(kProcesses)) + " /quiet"}};
        break;
    case 3:
        e.eventId = 4672, e.task = 12548;
        e.data = {{"SubjectUserSid", sid}, {"SubjectUserName", user}, {"SubjectDomainName", "CORP"},
                  {"SubjectLogonId", logonId}, {"PrivilegeList", "SeSecurityPrivilege\r\n\t\t\tSeBackupPrivilege\r\n\t\t\tSeDebugPrivilege"}};
        break;
    default: {
        // Four draws, as ever, so the events' other values stay as they were.
        const DsClass& type = r.pick(kDsClasses);
        const char* object = type.objects[r.below(static_cast<unsigned>(type.objects.size()))];
        e.eventId = 4662, e.task = 14080;
        e.data = {{"SubjectUserSid", sid}, {"SubjectUserName", user}, {"SubjectDomainName", "CORP"},
                  {"SubjectLogonId", logonId}, {"ObjectServer", "DS"}, {"ObjectType", std::string("%") + type.guid},
                  {"ObjectName", std::string("%") + object}, {"OperationType", "Object Access"},
                  {"AccessMask", "0x100"}, {"Properties", std::string("%%7688\r\n\t\t") + r.pick(kDsProperties) + "\r\n\t" + r.pick(kDsProperties)}};
        break;
    }
    }
    return e;
}

EventSpec systemEvent(Rng& r) {
    EventSpec e;
    e.userSid = r.below(3) ? "S-1-5-18" : "";
    switch (r.below(4)) {
    case 0:
        e.provider = kScm, e.providerGuid = kScmGuid, e.eventId = 7036, e.keywords = 0x8080000000000000ull;
        e.qualifiers = 16384, e.classic = false;
        e.data = {{"param1", r.pick(kServices)}, {"param2", r.pick(kStates)}};
        break;
    case 1:
        e.provider = kScm, e.providerGuid = kScmGuid, e.eventId = 7000, e.level = 2, e.keywords = 0x8080000000000000ull;
        e.data = {{"param1", r.pick(kServices)}, {"param2", "%%1053"}};
        break;
    case 2:
        e.provider = kKernel, e.providerGuid = kKernelGuid, e.eventId = r.below(2) ? 12 : 13, e.version = 1;
        e.task = 1, e.keywords = 0x8000000000000080ull;
        e.data = {{"MajorVersion", "10"}, {"MinorVersion", "0"}, {"BuildVersion", "19045"}, {"StartTime", "2024-01-30T06:00:00.5000000Z"}};
        break;
    default:
        e.provider = kEventLog, e.classic = true, e.qualifiers = 32768, e.eventId = 6005 + r.below(2);
        e.keywords = 0x80000000000000ull;
        break;
    }
    return e;
}

EventSpec hostile(Rng& r, uint64_t index) {
    EventSpec e;
    e.provider = kHostile;
    e.eventId = 900 + static_cast<unsigned>(index % 3);
    e.level = 3;
    e.keywords = 0x80000000000000ull;
    e.userSid = userSid(r);
    switch (e.eventId) {
    case 900: {  // a message of about 48 KB: big, yet under the 64 KB a Windows event record can hold
        std::string big;
        while (big.size() < 48000) big += "block " + std::to_string(big.size()) + " of a very long diagnostic dump; ";
        e.data = {{"Text", big}, {"Sid", e.userSid}};
        break;
    }
    case 901:
        e.data = {{"Text", "Grüße aus Köln — 東京 — \xF0\x9F\x98\x80 — e\xCC\x81 — \xE2\x80\xAE" "reversed\xE2\x80\xAC"},
                  {"Sid", "S-1-5-32-544"}};
        break;
    default:
        e.data = {{"Text", "line one\r\nline two\ttabbed\rbare CR & <angle> \"quotes\" 'apostrophes'"}, {"Sid", e.userSid}};
        break;
    }
    return e;
}

// Events as ReportEvent writes them: unnamed strings, qualifiers, categories,
// binary data, %%n parameters.
EventSpec classicSource(Rng& r) {
    EventSpec e;
    e.provider = kClassic;
    e.classic = true;
    e.keywords = 0x80000000000000ull;
    e.userSid = r.below(2) ? "S-1-5-18" : "";
    switch (r.below(5)) {
    case 0:
        e.eventId = 100, e.qualifiers = 0x4000, e.task = 1;
        e.data = {{"", r.pick(kServices)}, {"", r.below(2) ? "%%7001" : "%%7002"}};
        break;
    case 1:
        e.eventId = 101, e.qualifiers = 0x8000, e.level = 3, e.task = 2;
        e.data = {{"", "D:"}, {"", std::to_string(90 + r.below(10))}, {"", std::to_string(100000 + r.below(900000))}};
        e.binary = "0000000002003000040000C0";
        break;
    case 2:  // every other time the source logs fewer strings than its message inserts
        e.eventId = 102, e.qualifiers = 0x4000, e.task = 2;
        e.data = {{"", "C:\\Data"}, {"", "\\\\backup\\share"}, {"", std::to_string(r.below(600))}};
        if (r.below(2)) e.data.emplace_back("", std::to_string(r.below(100000)));
        break;
    case 3:
        e.eventId = 200, e.qualifiers = 0xC000, e.level = 2, e.task = 3;
        e.data = {{"", r.pick(kHosts)}, {"", "%%7003"}};
        e.binary = "4D0000000A0000";
        break;
    default:  // described by no message file of the source
        e.eventId = 999;
        e.data = {{"", "an event without a description"}};
        break;
    }
    return e;
}

EventSpec application(Rng& r, uint64_t index) {
    if (index % 50 == 7) return hostile(r, index / 50);
    if (index % 50 == 23) return classicSource(r);
    EventSpec e;
    switch (r.below(4)) {
    case 0:
        e.provider = kAppError, e.classic = true, e.eventId = 1000, e.level = 2, e.task = 100;
        e.keywords = 0x80000000000000ull;
        e.data = {{"", "tool.exe"}, {"", "1.2.3.4"}, {"", "65a1b2c3"}, {"", "ntdll.dll"}, {"", "10.0.19041.3636"},
                  {"", "c0000005"}, {"", hex(0x1000 + r.below(0xFFFFF))}};
        break;
    case 1:
        e.provider = kRestart, e.providerGuid = kRestartGuid, e.eventId = 10000 + r.below(2), e.userData = true;
        e.keywords = 0x8000000000000000ull;
        e.userSid = userSid(r);
        e.data = {{"RmSessionId", std::to_string(r.below(10))}, {"UTCStartTime", "2024-01-31T08:00:00.0000000Z"}};
        break;
    case 2:
        e.provider = kNoLocale, e.eventId = 300, e.keywords = 0x80000000000000ull;
        e.data = {{"Detail", "resources of this provider are missing for the current locale"}};
        break;
    default:
        e.provider = kHostile, e.eventId = 903, e.level = 4, e.keywords = 0x80000000000000ull;
        e.data = {{"Text", "bell and escape in the message text"}};
        break;
    }
    return e;
}

EventSpec forwarded(Rng& r, uint64_t index) {
    EventSpec e = index % 2 ? security(r) : systemEvent(r);
    bool sec = e.provider == kSecurity;
    e.channel = sec ? "Security" : "System";
    e.computer = r.pick(kHosts);
    e.rendering = true;
    e.renderMessage = "Forwarded copy of event " + std::to_string(e.eventId) + " from " + e.computer + ".";
    e.renderLevel = e.level == 2 ? "Error" : "Information";
    e.renderTask = sec ? "Logon" : "None";
    e.renderOpcode = "Info";
    e.renderChannel = e.channel;
    e.renderProvider = e.provider;
    e.renderKeywords = {sec ? "Audit Success" : "Classic"};
    if (index % 5 == 4) e.provider = e.renderProvider = kUnregistered;  // only the embedded texts exist
    return e;
}

ProviderDef provider(const char* name, const char* guid, const char* display) {
    ProviderDef d;
    d.name = name;
    d.guid = guid ? guid : "";
    d.displayName = display ? display : "";
    return d;
}

// A template from "Name:type" pairs, the type a manifest input type without its
// "win:" prefix; a name alone is a string.
std::vector<TemplateItem> typed(std::initializer_list<const char*> items) {
    std::vector<TemplateItem> out;
    for (std::string_view item : items) {
        TemplateItem t;
        const size_t colon = item.find(':');
        t.name = std::string(item.substr(0, colon));
        if (colon != std::string_view::npos) t.type = variantTypeOf("win:" + std::string(item.substr(colon + 1)));
        out.push_back(std::move(t));
    }
    return out;
}

}  // namespace

std::vector<ProviderDef> generatorProviders() {
    std::vector<ProviderDef> out;
    ProviderDef sec = provider(kSecurity, kSecurityGuid, "Security auditing");
    sec.levels = {{0, "Information"}};
    sec.tasks = {{12544, "Logon"}, {12548, "Special Logon"}, {13312, "Process Creation"}, {14080, "Directory Service Access"}};
    sec.opcodes = {{0, "Info"}};
    sec.channels = {{"Security", "Security"}};
    sec.strings = {{1842, "Yes"}, {1843, "No"}, {2313, "Unknown user name or bad password."}, {7688, "Read Property"}};
    sec.events = {
        {4624, "An account logged on.%n%nSubject:%n%tSecurity ID:%t%1%n%tAccount Name:%t%2%n%tAccount Domain:%t%3%n%tLogon ID:%t%4%n%n"
               "New Logon:%n%tSecurity ID:%t%5%n%tAccount Name:%t%6%n%tAccount Domain:%t%7%n%tLogon ID:%t%8%n%tLogon Type:%t%9%n"
               "%tSource Address:%t%10%n%tElevated Token:%t%11"},
        {4625, "An account could not log on.%n%nSubject:%n%tSecurity ID:%t%1%n%nAccount:%n%tAccount Name:%t%2%n%tAccount Domain:%t%3%n%n"
               "Failure:%n%tStatus:%t%4%n%tReason:%t%5%n%tLogon Type:%t%6%n%tSource Address:%t%7"},
        {4688, "A process was started.%n%nCreator:%n%tSecurity ID:%t%1%n%tAccount Name:%t%2%n%tAccount Domain:%t%3%n%tLogon ID:%t%4%n%n"
               "Process:%n%tProcess ID:%t%5%n%tProcess Name:%t%6%n%tCommand Line:%t%7"},
        {4672, "Special privileges were given to a new logon.%n%nSubject:%n%tSecurity ID:%t%1%n%tAccount Name:%t%2%n"
               "%tAccount Domain:%t%3%n%tLogon ID:%t%4%n%nPrivileges:%t%5"},
        {4662, "A directory object was accessed.%n%nSubject:%n%tSecurity ID:%t%1%n%tAccount Name:%t%2%n%tAccount Domain:%t%3%n"
               "%tLogon ID:%t%4%n%nObject:%n%tServer:%t%5%n%tType:%t%6%n%tName:%t%7%n%nOperation:%n%tType:%t%8%n"
               "%tAccess Mask:%t%9%n%tProperties:%t%10"},
    };
    sec.templates = {
        {4624, typed({"SubjectUserSid:SID", "SubjectUserName", "SubjectDomainName", "SubjectLogonId:HexInt64",
                      "TargetUserSid:SID", "TargetUserName", "TargetDomainName", "TargetLogonId:HexInt64",
                      "LogonType:UInt32", "IpAddress", "ElevatedToken"})},
        {4625, typed({"SubjectUserSid:SID", "TargetUserName", "TargetDomainName", "Status:HexInt32", "FailureReason",
                      "LogonType:UInt32", "IpAddress"})},
        {4688, typed({"SubjectUserSid:SID", "SubjectUserName", "SubjectDomainName", "SubjectLogonId:HexInt64",
                      "NewProcessId:Pointer", "NewProcessName", "CommandLine"})},
        {4672, typed({"SubjectUserSid:SID", "SubjectUserName", "SubjectDomainName", "SubjectLogonId:HexInt64",
                      "PrivilegeList"})},
        {4662, typed({"SubjectUserSid:SID", "SubjectUserName", "SubjectDomainName", "SubjectLogonId:HexInt64",
                      "ObjectServer", "ObjectType", "ObjectName", "OperationType", "AccessMask:HexInt32", "Properties"})},
    };
    out.push_back(sec);

    ProviderDef scm = provider(kScm, kScmGuid, "Service Control Manager");
    scm.channels = {{"System", "System"}};
    scm.keywords = {{0x8000000000000000ull, "Service Control Manager"}};
    scm.strings = {{1053, "The service did not answer in time."}};
    scm.events = {{7036, "Service %1 is now %2."}, {7000, "Service %1 could not start: %2"}};
    out.push_back(scm);

    ProviderDef kernel = provider(kKernel, kKernelGuid, nullptr);
    kernel.tasks = {{1, "Time"}};
    kernel.channels = {{"System", "System"}};
    kernel.events = {{12, "The system started: version %1.%2.%3 at %4."}, {13, "The system is shutting down at %4."}};
    const auto bootTemplate = typed({"MajorVersion:UInt32", "MinorVersion:UInt32", "BuildVersion:UInt32", "StartTime:FILETIME"});
    kernel.templates = {{12, bootTemplate}, {13, bootTemplate}};
    out.push_back(kernel);

    ProviderDef eventlog = provider(kEventLog, nullptr, "Event Log");
    eventlog.events = {{6005, "The event log service started."}, {6006, "The event log service stopped."}};
    out.push_back(eventlog);

    ProviderDef apperr = provider(kAppError, nullptr, "Application Error");
    apperr.tasks = {{100, "Application Crashing Events"}};
    apperr.channels = {{"Application", "Application"}};
    apperr.events = {{1000, "Faulting application %1, version %2, stamp %3; faulting module %4, version %5; exception %6 at offset %7."}};
    out.push_back(apperr);

    ProviderDef restart = provider(kRestart, kRestartGuid, "Restart Manager");
    restart.events = {{10000, "Session %1 started at %2."}, {10001, "Session %1 ended; it started at %2."}};
    restart.templates = {{10000, typed({"RmSessionId:UInt32", "UTCStartTime:FILETIME"})},
                         {10001, typed({"RmSessionId:UInt32", "UTCStartTime:FILETIME"})}};
    out.push_back(restart);

    ProviderDef hostileDef = provider(kHostile, nullptr, "Hostile \"test\" <provider> & co");
    hostileDef.events = {{900, "Long data follows: %1 (user %2)"}, {901, "Non-ASCII: %1 (sid %2)"},
                         {902, "Control characters: [%1] (sid %2)"}, {903, "Bell \x07 and escape \x1B[31m red \x1B[0m: %1"}};
    hostileDef.levels = {{3, "Warning"}};
    out.push_back(hostileDef);

    // The texts of the source's message files (messages/evtsim-*.mc), which end
    // each message with a line break.
    ProviderDef classic = provider(kClassic, nullptr, "Evtsim classic source");
    classic.channels = {{"Application", "Application"}};
    classic.tasks = {{1, "Startup"}, {2, "Storage"}, {3, "Network"}};
    classic.strings = {{7001, "running"}, {7002, "stopped"}, {7003, "the remote host refused it"}};
    classic.events = {{100, "Service %1 entered the %2 state.%n"},
                      {101, "Disk %1 is %2%% full; %3 bytes are free.%n"},
                      {102, "Backup of %1 to %2 finished in %3 seconds.%nFiles copied: %4.%n"},
                      {200, "Connection to %1 failed: %2.%n"}};
    out.push_back(classic);

    ProviderDef noLocale = provider(kNoLocale, nullptr, "No locale");
    noLocale.missingResources = ERROR_EVT_MESSAGE_LOCALE_NOT_FOUND;
    noLocale.events = {{300, "never shown: %1"}};
    out.push_back(noLocale);
    return out;
}

std::vector<std::string> generateEvents(std::string_view channel, size_t count, uint64_t seed, uint64_t firstIndex) {
    std::vector<std::string> out;
    out.reserve(count);
    // One second apart from a fixed start, with sub-second jitter.
    const uint64_t start = *parseSystemTime("2024-01-31T00:00:00.0000000Z");
    for (size_t i = 0; i < count; ++i) {
        uint64_t index = firstIndex + i;
        Rng r{seed * 0x100000001B3ull ^ (index * 0x9E3779B97F4A7C15ull)};
        EventSpec e;
        if (iequals(channel, "Security")) e = security(r);
        else if (iequals(channel, "System")) e = systemEvent(r);
        else if (iequals(channel, "ForwardedEvents")) e = forwarded(r, index);
        else e = application(r, index);
        e.timeCreated = formatSystemTime(start + index * 10000000ull + r.below(10000000));
        e.threadId = 100 + r.below(9000);
        out.push_back(buildEventXml(e));
    }
    return out;
}

}  // namespace evtsim
