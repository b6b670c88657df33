// How long a cache line takes to move between two cores: two threads, each
// held to one core, pass one counter back and forth.
//
//   cacheline.exe [round trips]   (default 2,000,000; the first two cores)
//
// Every look-up or update of a line another thread wrote last pays this: it
// is what sharing one line between a reader and a renderer thread costs.
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace {

alignas(64) std::atomic<long> counter{0};
long trips = 2000000;

DWORD WINAPI answer(void*) {
    for (long i = 0; i < trips; ++i) {
        while (counter.load(std::memory_order_acquire) != 2 * i + 1) {
        }
        counter.store(2 * i + 2, std::memory_order_release);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) trips = std::strtol(argv[1], nullptr, 10);
    if (trips <= 0) {
        std::fputs("usage: cacheline [round trips]\n", stderr);
        return 2;
    }
    HANDLE other = CreateThread(nullptr, 0, answer, nullptr, CREATE_SUSPENDED, nullptr);
    if (!other || !SetThreadAffinityMask(other, 2) || !SetThreadAffinityMask(GetCurrentThread(), 1)) {
        std::fprintf(stderr, "cacheline: needs two cores (%lu)\n", GetLastError());
        return 1;
    }
    ResumeThread(other);
    LARGE_INTEGER freq, t0, t1;
    QueryPerformanceFrequency(&freq);
    QueryPerformanceCounter(&t0);
    for (long i = 0; i < trips; ++i) {
        counter.store(2 * i + 1, std::memory_order_release);
        while (counter.load(std::memory_order_acquire) != 2 * i + 2) {
        }
    }
    QueryPerformanceCounter(&t1);
    WaitForSingleObject(other, INFINITE);
    CloseHandle(other);
    const double ns = static_cast<double>(t1.QuadPart - t0.QuadPart) * 1e9 / static_cast<double>(freq.QuadPart) /
                      static_cast<double>(trips);
    std::printf("round trip %.0f ns, one way %.0f ns\n", ns, ns / 2);
    return 0;
}
