// DsGetDcNameW, DsBindW and DsUnBindW against the sample directory: DC01 (closest,
// PDC, site Default-First-Site-Name) and DC02 (site Branch-East) of corp.example.test.
#include "DssimTestUtil.h"

using namespace dssim_test;
using skorva::test::DssimDirectory;

namespace {

// The product's request: the closest controller, flagged as a closest writable
// global catalog of Windows Server 2016 is (0xe000f1fc,
// plooploops/windows-containers-AD #7), here also the PDC.
TEST(LocatorTest, FindsTheControllerTheRequestAsksFor) {
    DssimDirectory dir;
    dir.useSample();
    DOMAIN_CONTROLLER_INFOW* raw = nullptr;
    ASSERT_EQ(0u, dssim::DsGetDcNameW(nullptr, nullptr, nullptr, nullptr, DS_DIRECTORY_SERVICE_PREFERRED, &raw));
    ControllerInfo info(raw);
    EXPECT_EQ(std::wstring(L"\\\\DC01.corp.example.test"), info.get()->DomainControllerName);
    EXPECT_EQ(std::wstring(L"corp.example.test"), info.get()->DomainName);
    EXPECT_EQ(0xE000F1FDu, info.get()->Flags);
    info.reset();
    EXPECT_EQ(0u, dssim::counters().liveBuffers);
}

TEST(LocatorTest, UnavailableControllerIsFoundButNotBound) {
    // The locator does not check that the controller answers (DsGetDcNameW remarks).
    DssimDirectory dir;
    dir.write("[dc]\nname = DC01.corp.example.test\ndomain = corp.example.test\navailable = no\n"
              "[dc]\nname = DC02.corp.example.test\ndomain = corp.example.test\n");
    DOMAIN_CONTROLLER_INFOW* raw = nullptr;
    ASSERT_EQ(0u, dssim::DsGetDcNameW(nullptr, nullptr, nullptr, nullptr, 0, &raw));
    EXPECT_EQ(std::wstring(L"\\\\DC01.corp.example.test"), ControllerInfo(raw).get()->DomainControllerName);
    EXPECT_EQ(static_cast<DWORD>(RPC_S_SERVER_UNAVAILABLE), Binding(L"DC01.corp.example.test").status());
    EXPECT_EQ(0u, Binding().status());  // binding locates a controller that answers
}

TEST(LocatorTest, BindResolvesTheControllerAsDocumented) {
    DssimDirectory dir;
    dir.useSample();
    struct Case {
        const wchar_t* dc;
        const wchar_t* domain;
        DWORD status;
        const char* boundTo = nullptr;  // seen through a fault aimed at that controller
    } cases[] = {
        // A named controller takes precedence, with or without leading backslashes
        // (DsBindW, DomainControllerName and remarks).
        {L"\\\\DC02.corp.example.test", L"corp.example.test", 0, "DC02.corp.example.test"},
        {nullptr, nullptr, 0, "DC01.corp.example.test"},  // a global catalog of the forest
        {L"DC99.corp.example.test", nullptr, RPC_S_SERVER_UNAVAILABLE},
        {nullptr, L"other.test", ERROR_NO_SUCH_DOMAIN},
    };
    for (const auto& c : cases) {
        Binding b(c.dc, c.domain);
        SCOPED_TRACE(std::to_string(&c - cases));
        ASSERT_EQ(c.status, b.status());
        if (b.status() != 0) continue;
        dir.setFaults(std::string("DsCrackNamesW:") + c.boundTo + "=1722");
        NameResult result;
        EXPECT_EQ(static_cast<DWORD>(RPC_S_SERVER_UNAVAILABLE), crack(b.get(), DS_UNIQUE_ID_NAME, DS_FQDN_1779_NAME, kAlice, result));
        dir.setFaults("");
    }
    EXPECT_EQ(0u, dssim::counters().liveBindings);
}

}  // namespace
