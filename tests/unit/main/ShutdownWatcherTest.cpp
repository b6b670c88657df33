#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <string>

#include "main/ShutdownWatcher.h"
#include "platform/Handles.h"

using namespace skorva;

namespace {

std::atomic<int> exitCode{-1};
HANDLE exitSignal = nullptr;
void recordExit(unsigned code) {
    exitCode = static_cast<int>(code);
    if (exitSignal) SetEvent(exitSignal);
}

std::atomic<int> calls{0};
std::atomic<uintptr_t> lastArgument{0};
void onShutdown(uintptr_t arg) {
    ++calls;
    lastArgument = arg;
}

// A child process that waits on its standard input until the pipe closes or it
// is terminated.
struct Child {
    PROCESS_INFORMATION pi{};
    UniqueHandle process, thread;
    explicit Child(const wchar_t* commandLine) {
        STARTUPINFOW si{};
        si.cb = sizeof si;
        std::wstring cmd = commandLine;
        EXPECT_TRUE(CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr, &si, &pi));
        process.reset(pi.hProcess);
        thread.reset(pi.hThread);
    }
};

}  // namespace

TEST(ShutdownWatcher, ParentStates) {
    // An ended daemon (its process object kept alive by our handle): 97.
    {
        Child ended(L"cmd.exe /c exit 3");
        ASSERT_EQ(WaitForSingleObject(ended.process.get(), 30000), WAIT_OBJECT_0);
        exitCode = -1;
        ShutdownWatcher w(&onShutdown, 0, ShutdownWatcher::WatchBoth, ended.pi.dwProcessId, &recordExit);
        EXPECT_EQ(exitCode.load(), 97);
    }
    // A process id that names nothing: 98.
    {
        exitCode = -1;
        ShutdownWatcher w(&onShutdown, 0, ShutdownWatcher::WatchBoth, 0x7FFFFFF0, &recordExit);
        EXPECT_EQ(exitCode.load(), 98);
    }
    // A live daemon that ends later: 99 from the watching thread.
    {
        UniqueHandle signal(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        exitSignal = signal.get();
        Child live(L"cmd.exe /c ping -n 30 127.0.0.1");
        exitCode = -1;
        ShutdownWatcher w(&onShutdown, 0, ShutdownWatcher::WatchBoth, live.pi.dwProcessId, &recordExit);
        EXPECT_EQ(exitCode.load(), -1);
        TerminateProcess(live.process.get(), 1);
        EXPECT_EQ(WaitForSingleObject(signal.get(), 30000), WAIT_OBJECT_0);
        EXPECT_EQ(exitCode.load(), 99);
        exitSignal = nullptr;
    }
}

TEST(ShutdownWatcher, ParentFromTheEnvironment) {
    Child ended(L"cmd.exe /c exit 0");
    ASSERT_EQ(WaitForSingleObject(ended.process.get(), 30000), WAIT_OBJECT_0);
    struct Case {
        std::wstring value;
        int code;
    } cases[] = {
        {std::to_wstring(ended.pi.dwProcessId), 97},
        {L"not-a-pid", 98},
        {L"", -1},  // empty: nothing to watch
    };
    for (const auto& c : cases) {
        SetEnvironmentVariableW(L"SKORVAD_PROCESSID", c.value.c_str());
        exitCode = -1;
        ShutdownWatcher w(&onShutdown, 0, ShutdownWatcher::WatchBoth, 0, &recordExit);
        EXPECT_EQ(exitCode.load(), c.code) << std::string(c.value.begin(), c.value.end());
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
