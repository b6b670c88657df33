// Buffers and handles used as Windows forbids, injected faults, no directory or an
// unreadable one. (The call counters and the faults file are read end to end.)
#include <functional>

#include "DssimTestUtil.h"

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
    EXPECT_THROW(dir.setFaults("DsUnBindW=5"), std::runtime_error);  // a rule nothing would ever meet
    dir.setFaults("DsGetDcNameW=1355");
    DOMAIN_CONTROLLER_INFOW* info = nullptr;
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_SUCH_DOMAIN), dssim::DsGetDcNameW(nullptr, nullptr, nullptr, nullptr, 0, &info));
    EXPECT_EQ(0u, dssim::counters().liveBindings);
}

// Without a directory the machine is in no domain, as Wine's own; a directory file
// that does not parse fails every call instead, so a typo in a test never passes
// as an empty directory, and the error names the line.
TEST(DirectoryFileTest, NoDomainOrABrokenFile) {
    DssimDirectory dir;
    DOMAIN_CONTROLLER_INFOW* info = nullptr;
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_SUCH_DOMAIN), dssim::DsGetDcNameW(nullptr, nullptr, nullptr, nullptr, 0, &info));
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_SUCH_DOMAIN), Binding().status());
    dir.write("[dc]\nname = DC01.corp.example.test\n");
    EXPECT_NE(std::string::npos, dssim::directoryError().find("line 3: a [dc] needs name and domain"))
        << dssim::directoryError();
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_CORRUPT), dssim::DsGetDcNameW(nullptr, nullptr, nullptr, nullptr, 0, &info));
}

}  // namespace
