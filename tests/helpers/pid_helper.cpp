// A Windows process for the parent-watch tests: prints a Windows process id
// (not the Linux pid Wine runs it under) and lives until its stdin closes.
//   pid-helper wait    prints its own id
//   pid-helper ended   starts a child that exits at once, keeps its handle (so
//                      the id still names an ended process) and prints its id
//   pid-helper exit    ends at once
//   pid-helper hold F  opens file F sharing nothing, as backup and antivirus
//                      tools do, prints its id and keeps it open
#include <windows.h>

#include <cstdio>
#include <cstring>

namespace {

void waitForStdinEnd() {
    char buf[256];
    while (fgets(buf, sizeof buf, stdin)) {
    }
}

}  // namespace

int main(int argc, char** argv) {
    const char* mode = argc > 1 ? argv[1] : "wait";
    if (strcmp(mode, "exit") == 0) return 0;
    DWORD pid = ::GetCurrentProcessId();
    HANDLE held = INVALID_HANDLE_VALUE;
    if (strcmp(mode, "hold") == 0 && argc > 2) {
        held = ::CreateFileA(argv[2], GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr);
        if (held == INVALID_HANDLE_VALUE) return 3;
    }
    PROCESS_INFORMATION child = {};
    if (strcmp(mode, "ended") == 0) {
        char self[MAX_PATH] = {};
        ::GetModuleFileNameA(nullptr, self, MAX_PATH);
        char cmd[MAX_PATH + 16];
        snprintf(cmd, sizeof cmd, "\"%s\" exit", self);
        STARTUPINFOA si = {};
        si.cb = sizeof si;
        if (!::CreateProcessA(nullptr, cmd, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &child)) return 2;
        ::WaitForSingleObject(child.hProcess, INFINITE);
        pid = child.dwProcessId;
    }
    printf("%lu\n", static_cast<unsigned long>(pid));
    fflush(stdout);
    waitForStdinEnd();
    if (held != INVALID_HANDLE_VALUE) ::CloseHandle(held);
    if (child.hProcess) {
        ::CloseHandle(child.hThread);
        ::CloseHandle(child.hProcess);
    }
    return 0;
}
