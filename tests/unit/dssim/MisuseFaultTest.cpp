// Buffers and handles used as Windows forbids, injected faults, the counters (in
// process and in the counters file), an unreadable directory, and the generator's
// directory-service events against the sample directory.
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>

#include "DssimTestUtil.h"
#include "Generator.h"
#include "Text.h"

using namespace dssim_test;
using skorva::test::DssimDirectory;

namespace {

DOMAIN_CONTROLLER_INFOW* controller() {
    DOMAIN_CONTROLLER_INFOW* info = nullptr;
    EXPECT_EQ(0u, dssim::DsGetDcNameW(nullptr, nullptr, nullptr, nullptr, 0, &info));
    return info;
}

DS_NAME_RESULTW* cracked(HANDLE h) {
    DS_NAME_RESULTW* r = nullptr;
    const wchar_t* name = kAlice;
    EXPECT_EQ(0u, dssim::DsCrackNamesW(h, DS_NAME_FLAG_EVAL_AT_DC, DS_UNIQUE_ID_NAME, DS_FQDN_1779_NAME, 1, &name, &r));
    return r;
}

HANDLE unbound() {
    HANDLE h = nullptr, copy = nullptr;
    EXPECT_EQ(0u, dssim::DsBindW(nullptr, nullptr, &h));
    copy = h;
    dssim::DsUnBindW(&h);
    return copy;
}

TEST(MisuseTest, BuffersGoBackOnlyThroughTheirOwnFreeFunctionAndOnce) {
    DssimDirectory dir;
    dir.useSample();
    Binding b;
    NameResult result;
    // DsGetDcNameW's buffer goes back through NetApiBufferFree (DomainControllerInfo),
    // DsCrackNamesW's through DsFreeNameResultW (ppResult); a bind handle is closed by
    // DsUnBindW, which "Returns NO_ERROR" (DsUnBind) even when it closes nothing.
    const std::function<void()> misuses[] = {
        [] { dssim::DsFreeNameResultW(reinterpret_cast<DS_NAME_RESULTW*>(ControllerInfo(controller()).get())); },
        [&] { EXPECT_EQ(DWORD(ERROR_INVALID_PARAMETER), dssim::NetApiBufferFree(NameResult(cracked(b.get())).get())); },
        [&] {
            DS_NAME_RESULTW* r = cracked(b.get());
            dssim::DsFreeNameResultW(r);
            dssim::DsFreeNameResultW(r);
        },
        [&] { EXPECT_EQ(DWORD(ERROR_INVALID_HANDLE), crack(unbound(), DS_UNIQUE_ID_NAME, DS_FQDN_1779_NAME, kAlice, result)); },
        [] {
            HANDLE gone = unbound();
            EXPECT_EQ(DWORD(NO_ERROR), dssim::DsUnBindW(&gone));
        },
    };
    for (size_t i = 0; i < std::size(misuses); ++i) {
        const uint64_t before = dssim::counters().misuse;
        misuses[i]();
        EXPECT_EQ(before + 1, dssim::counters().misuse) << i;
        EXPECT_EQ(0u, dssim::counters().liveBuffers) << i;  // a wrong free left it to its owner
    }
    EXPECT_EQ(1u, dssim::counters().liveBindings);  // b's own
}

TEST(FaultTest, InjectedFailuresAndAHandleThatGoesBad) {
    DssimDirectory dir;
    dir.useSample();
    struct Case {
        const char* rules;
        std::vector<DWORD> outcome;  // per call of DsBindW then DsCrackNamesW on its handle
    } cases[] = {
        {"DsBindW=1722,once", {1722, 0, 0}},
        {"DsBindW:DC02.corp.example.test=5", {0, 0, 0}},  // DsBindW binds DC01
        {"DsCrackNamesW=1726,from=2", {0, 0, 1726}},
        // The handle goes bad at its second use and stays bad; a fresh binding works.
        {"StaleHandle=6,from=2,times=1", {0, 0, 6, 6, 0, 0}},
    };
    for (const auto& c : cases) {
        dir.setFaults(c.rules);
        HANDLE h = nullptr;
        for (size_t i = 0; i < c.outcome.size(); ++i) {
            DWORD rc;
            if (!h) {
                rc = dssim::DsBindW(nullptr, nullptr, &h);
            } else {
                NameResult r;
                rc = crack(h, DS_UNIQUE_ID_NAME, DS_FQDN_1779_NAME, kAlice, r);
                if (i == 3 && rc) dssim::DsUnBindW(&h), h = nullptr;  // the product's reconnect
            }
            EXPECT_EQ(c.outcome[i], rc) << c.rules << " call " << i;
        }
        if (h) dssim::DsUnBindW(&h);
    }
    dir.setFaults("DsGetDcNameW=1355");
    DOMAIN_CONTROLLER_INFOW* info = nullptr;
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_SUCH_DOMAIN), dssim::DsGetDcNameW(nullptr, nullptr, nullptr, nullptr, 0, &info));
    EXPECT_EQ(0u, dssim::counters().liveBindings);
}

TEST(FaultTest, RulesAreCheckedAndReadFromTheFolder) {
    DssimDirectory dir;
    for (const char* bad : {"NameStatus:x=8", "DsUnBindW=5", "DsFreeNameResultW=5", "EvtNext=5", "Delay=abc"})
        EXPECT_THROW(dir.setFaults(bad), std::runtime_error) << bad;
    dir.setFaults("Delay:DsBindW=1;NameStatus:x=7;StaleHandle:DsMapSchemaGuidsW=6,once");
    dir.useSample();
    std::ofstream(evtsim::toUtf8(dir.root() + L"\\faults.txt")) << "DsBindW=1722\n";
    dssim::clearFaults();  // back to the environment and the folder's file
    EXPECT_EQ(static_cast<DWORD>(RPC_S_SERVER_UNAVAILABLE), Binding().status());
}

TEST(CountersTest, CallsAreCountedPerEntryPointAndWrittenForOtherProcesses) {
    DssimDirectory dir;
    dir.useSample();
    dssim::resetCounters();
    {
        Binding b;
        ControllerInfo info(controller());
        NameResult r(cracked(b.get()));
        GUID user{};
        evtsim::parseGuid("bf967aba-0de6-11d0-a285-00aa003049e2", user);
        DS_SCHEMA_GUID_MAPW* map = nullptr;
        ASSERT_EQ(0u, dssim::DsMapSchemaGuidsW(b.get(), 1, &user, &map));
        GuidMap owned(map);
    }
    const dssim::Counters c = dssim::counters();
    for (int e = 0; e < dssim::kEntryCount; ++e) EXPECT_EQ(1u, c.calls[e]) << dssim::entryName(dssim::Entry(e));
    // One file per process (and per DLL) under calls\, replaced whole after each call.
    WIN32_FIND_DATAW fd;
    HANDLE find = FindFirstFileW((dir.root() + L"\\calls\\*.txt").c_str(), &fd);
    ASSERT_NE(INVALID_HANDLE_VALUE, find);
    FindClose(find);
    std::ifstream in(evtsim::toUtf8(dir.root() + L"\\calls\\" + fd.cFileName));
    std::stringstream text;
    text << in.rdbuf();
    for (const char* line : {"DsGetDcNameW=1\n", "DsFreeSchemaGuidMapW=1\n", "misuse=0\n", "live_buffers=0\n",
                             "live_bindings=0\n"})
        EXPECT_NE(std::string::npos, text.str().find(line)) << line << " in\n" << text.str();
}

TEST(DirectoryFileTest, ABrokenFileFailsEveryCallAndSaysWhere) {
    DssimDirectory dir;
    const struct {
        const char* text;
        const char* error;
    } cases[] = {
        {"[dc]\nname = DC01.corp.example.test\n", "line 3: a [dc] needs name and domain"},
        {"# users\n[user]\n", "line 2: unknown record"},
        {"[object]\nsid = S-1-x\n", "line 2: bad SID"},
        {"[dc]\nname = DC01\ndomain = d\nclosest = maybe\n", "line 4: bad yes/no"},
    };
    for (const auto& c : cases) {
        dir.write(c.text);
        EXPECT_NE(std::string::npos, dssim::directoryError().find(c.error)) << dssim::directoryError();
        DOMAIN_CONTROLLER_INFOW* info = nullptr;
        EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_CORRUPT), dssim::DsGetDcNameW(nullptr, nullptr, nullptr, nullptr, 0, &info));
    }
}

TEST(SampleDirectoryTest, GeneratedDirectoryAccessEventsNameKnownObjects) {
    DssimDirectory dir;
    dir.useSample();
    Binding b;
    const std::regex token(R"(\{[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}\})");
    size_t checked = 0;
    for (const std::string& xml : evtsim::generateEvents("Security", 400, 2024, 0)) {
        if (xml.find("<EventID>4662<") == std::string::npos) continue;
        const std::string data = xml.substr(xml.find("<EventData>"));
        for (std::sregex_iterator it(data.begin(), data.end(), token), end; it != end; ++it, ++checked) {
            // The product's order: a schema name first, else the object's DN.
            GUID g{};
            ASSERT_TRUE(evtsim::parseGuid(it->str(), g));
            DS_SCHEMA_GUID_MAPW* map = nullptr;
            ASSERT_EQ(0u, dssim::DsMapSchemaGuidsW(b.get(), 1, &g, &map));
            if (GuidMap(map)->pName) continue;
            NameResult r;
            const std::wstring name = evtsim::toWide(it->str());
            ASSERT_EQ(0u, crack(b.get(), DS_UNIQUE_ID_NAME, DS_FQDN_1779_NAME, name.c_str(), r));
            EXPECT_EQ(static_cast<DWORD>(DS_NAME_NO_ERROR), r->rItems[0].status) << it->str();
        }
    }
    EXPECT_GT(checked, 100u);
}

}  // namespace
