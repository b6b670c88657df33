#include <gtest/gtest.h>
#include <windows.h>

#include "platform/LoaderInfo.h"

using namespace skorva;

TEST(LoaderInfo, DerivesDataAndEtcFromHomeUnlessSet) {
    struct Case {
        const wchar_t* home;
        const wchar_t* db;
        const wchar_t* etc;
        const wchar_t* wantDb;
        const wchar_t* wantEtc;
    } cases[] = {
        {L"C:\\skorva", nullptr, nullptr, L"C:\\skorva\\var\\lib\\skorva", L"C:\\skorva\\etc"},
        {L"C:\\skorva\\", nullptr, nullptr, L"C:\\skorva\\var\\lib\\skorva", L"C:\\skorva\\etc"},
        {L"C:\\skorva", L"D:\\data", L"E:\\conf", L"D:\\data", L"E:\\conf"},
        {nullptr, nullptr, nullptr, L"", L""},
    };
    for (const auto& c : cases) {
        SetEnvironmentVariableW(L"SKORVA_HOME", c.home);
        SetEnvironmentVariableW(L"SKORVA_DB", c.db);
        SetEnvironmentVariableW(L"SKORVA_ETC", c.etc);
        LoaderInfo::instance()->refresh();
        EXPECT_EQ(LoaderInfo::instance()->db(), c.wantDb);
        EXPECT_EQ(LoaderInfo::instance()->etc(), c.wantEtc);
    }
    SetEnvironmentVariableW(L"SKORVA_HOME", nullptr);
    LoaderInfo::instance()->refresh();
}
