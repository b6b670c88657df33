#pragma once
// Names of the program's long-lived threads, for diagnostics. The main thread is
// registered once; registering it a second time is a programming error.

#include <string>

namespace skorva {

class ThreadRegistry {
public:
    // Registers the calling thread under `name`; throws SkorvaException
    // ("Main Thread created twice!") for a second "Main Thread".
    static void registerThread(const std::string& name);
    static void unregisterThread(const std::string& name);
    static bool isRegistered(const std::string& name);
    // The name of the calling thread, or empty.
    static std::string currentName();
};

// Registers the calling thread as "Main Thread" for its lifetime.
class MainThread {
public:
    MainThread();
    ~MainThread();
    MainThread(const MainThread&) = delete;
    MainThread& operator=(const MainThread&) = delete;
};

}  // namespace skorva
