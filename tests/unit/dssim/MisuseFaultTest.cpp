// Buffers and handles used as Windows forbids, malformed fault rules, an unreadable
// directory. (The call counters, the faults file and its rules are met end to end.)
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

// The rules the product meets (a refused bind, once; a handle gone bad at its second
// use; a name status; a slow controller) strike end to end, seen in what the product
// logs and asks (e2e/test_directory.py). A rule that does not parse is refused, so a
// typo never passes as no fault.
TEST(FaultTest, MalformedRulesAreRefused) {
    DssimDirectory dir;
    EXPECT_THROW(dir.setFaults("DsUnBindW=5"), std::runtime_error);  // a rule nothing would ever meet
}

// A directory file that does not parse fails every call, so a typo in a test never
// passes as an empty directory (no file at all is no domain, as Wine's own: the
// product meets it end to end), and the error names the line.
TEST(DirectoryFileTest, BrokenFile) {
    DssimDirectory dir;
    DOMAIN_CONTROLLER_INFOW* info = nullptr;
    dir.write("[dc]\nname = DC01.corp.example.test\n");
    EXPECT_NE(std::string::npos, dssim::directoryError().find("line 3: a [dc] needs name and domain"))
        << dssim::directoryError();
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_CORRUPT), dssim::DsGetDcNameW(nullptr, nullptr, nullptr, nullptr, 0, &info));
}

}  // namespace
