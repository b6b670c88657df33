// What a long run watches in a Windows process: its open handles and its private
// memory, as the system counts them.
//
//   procstat NAME     one line per process whose image is NAME:
//                     "<pid> <handles> <private bytes> <working set bytes>"
#include <windows.h>
#include <psapi.h>
#include <tlhelp32.h>

#include <cstdio>
#include <cwchar>

int wmain(int argc, wchar_t** argv) {
    if (argc != 2) {
        std::fputs("usage: procstat NAME\n", stderr);
        return 2;
    }
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE) return 1;
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
        if (_wcsicmp(entry.szExeFile, argv[1]) != 0) continue;
        HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, entry.th32ProcessID);
        if (!process) continue;
        DWORD handles = 0;
        PROCESS_MEMORY_COUNTERS_EX memory = {};
        GetProcessHandleCount(process, &handles);
        GetProcessMemoryInfo(process, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory), sizeof memory);
        std::printf("%lu %lu %llu %llu\n", entry.th32ProcessID, handles,
                    static_cast<unsigned long long>(memory.PrivateUsage),
                    static_cast<unsigned long long>(memory.WorkingSetSize));
        CloseHandle(process);
    }
    CloseHandle(snapshot);
    return 0;
}
