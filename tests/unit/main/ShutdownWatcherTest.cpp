// The parent's end as the daemon sees it (97, 98, 99 with a real child) is
// covered end to end; here the watch that ends nothing, allocation failures and
// the console handler.
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "main/Run.h"
#include "main/ShutdownWatcher.h"
#include "monitor/WinEventMon.h"

using namespace skorva;

namespace {

std::atomic<int> exitCode{-1};
void recordExit(unsigned code) { exitCode = static_cast<int>(code); }

std::atomic<int> calls{0};
std::atomic<uintptr_t> lastArgument{0};
void onShutdown(uintptr_t arg) {
    ++calls;
    lastArgument = arg;
}

}  // namespace

// An empty value watches nothing; a living parent is watched, and the watch is
// woken and joined at the end.
TEST(ShutdownWatcher, ParentFromTheEnvironment) {
    for (const std::wstring& value : {std::wstring(), std::to_wstring(GetCurrentProcessId())}) {
        SetEnvironmentVariableW(L"SKORVAD_PROCESSID", value.c_str());
        exitCode = -1;
        { ShutdownWatcher w(&onShutdown, 0, ShutdownWatcher::WatchBoth, 0, &recordExit); }
        EXPECT_EQ(exitCode.load(), -1) << std::string(value.begin(), value.end());
    }
    SetEnvironmentVariableW(L"SKORVAD_PROCESSID", nullptr);
}

// Out of memory while it starts: the texts on standard error, then exit code 1.
TEST(ShutdownWatcher, AllocationFailuresEndWithTheirTextAndOne) {
    static const ShutdownWatcher::Allocators noMalloc{[](size_t) -> void* { return nullptr; }, &calloc};
    static const ShutdownWatcher::Allocators noCalloc{&malloc, [](size_t, size_t) -> void* { return nullptr; }};
    struct {
        const ShutdownWatcher::Allocators* allocators;
        const char* text;
    } cases[] = {{&noMalloc, "Memory error: malloc: "}, {&noCalloc, "Memory error: calloc: 102\n"}};
    SetEnvironmentVariableW(L"SKORVAD_PROCESSID", std::to_wstring(GetCurrentProcessId()).c_str());
    for (const auto& c : cases) {
        exitCode = -1;
        ShutdownWatcher::setAllocators(c.allocators);
        ::testing::internal::CaptureStderr();
        {
            ShutdownWatcher w(&onShutdown, 0, ShutdownWatcher::WatchBoth, 0, &recordExit);
        }
        const std::string text = ::testing::internal::GetCapturedStderr();
        ShutdownWatcher::setAllocators(nullptr);
        EXPECT_EQ(exitCode.load(), 1);
        EXPECT_EQ(text.rfind(c.text, 0), 0u) << text;
    }
    SetEnvironmentVariableW(L"SKORVAD_PROCESSID", nullptr);
}

TEST(ShutdownWatcher, ConsoleEventsRunTheCallbackOnce) {
    calls = 0;
    ShutdownWatcher w(&onShutdown, 42, ShutdownWatcher::WatchConsole, 0, &recordExit);
    EXPECT_EQ(WaitForSingleObject(w.shutdownEvent(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_FALSE(ShutdownWatcher::consoleHandler(CTRL_CLOSE_EVENT));
    EXPECT_EQ(calls.load(), 0);
    EXPECT_TRUE(ShutdownWatcher::consoleHandler(CTRL_BREAK_EVENT));
    EXPECT_TRUE(ShutdownWatcher::consoleHandler(CTRL_C_EVENT));
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(lastArgument.load(), 42u);
    EXPECT_EQ(WaitForSingleObject(w.shutdownEvent(), 0), static_cast<DWORD>(WAIT_OBJECT_0));
}

TEST(ShutdownHandlers, InterruptsStopTheCurrentMonitorOthersPassOn) {
    struct Case {
        DWORD code;
        BOOL handled;
    };
    const Case cases[] = {{CTRL_C_EVENT, TRUE}, {CTRL_BREAK_EVENT, TRUE}, {CTRL_CLOSE_EVENT, FALSE},
                          {CTRL_LOGOFF_EVENT, FALSE}, {CTRL_SHUTDOWN_EVENT, FALSE}};
    for (const Case& c : cases) {
        WinEventMon mon(L"C:\\skorva-test");
        setCurrentMonitor(&mon);
        EXPECT_EQ(consoleCtrlHandler(c.code), c.handled) << c.code;
        EXPECT_EQ(mon.stopping(), c.handled == TRUE) << c.code;
        setCurrentMonitor(nullptr);
    }
    EXPECT_EQ(consoleCtrlHandler(CTRL_C_EVENT), TRUE);  // no monitor: nothing to stop, still handled
}
