#include "platform/ThreadRegistry.h"

#include <windows.h>

#include <map>
#include <mutex>

#include "platform/SkorvaException.h"

namespace skorva {

namespace {
std::mutex registryMutex;
std::map<std::string, DWORD>& registry() {
    static std::map<std::string, DWORD> threads;
    return threads;
}
const char kMainThread[] = "Main Thread";
}  // namespace

void ThreadRegistry::registerThread(const std::string& name) {
    std::lock_guard<std::mutex> lock(registryMutex);
    auto& threads = registry();
    if (name == kMainThread && threads.count(name)) throw SkorvaException("Main Thread created twice!");
    threads[name] = ::GetCurrentThreadId();
}

void ThreadRegistry::unregisterThread(const std::string& name) {
    std::lock_guard<std::mutex> lock(registryMutex);
    registry().erase(name);
}

bool ThreadRegistry::isRegistered(const std::string& name) {
    std::lock_guard<std::mutex> lock(registryMutex);
    return registry().count(name) != 0;
}

std::string ThreadRegistry::currentName() {
    std::lock_guard<std::mutex> lock(registryMutex);
    DWORD id = ::GetCurrentThreadId();
    for (const auto& [name, tid] : registry())
        if (tid == id) return name;
    return {};
}

MainThread::MainThread() { ThreadRegistry::registerThread(kMainThread); }
MainThread::~MainThread() { ThreadRegistry::unregisterThread(kMainThread); }

}  // namespace skorva
