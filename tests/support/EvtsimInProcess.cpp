#include "EvtsimInProcess.h"

#include <windows.h>

#include <atomic>
#include <stdexcept>

#include "Faults.h"
#include "Generator.h"
#include "eventlog/EvtApi.h"

namespace skorva::test {

namespace {

void check(bool ok, const std::string& what, const std::string& error) {
    if (!ok) throw std::runtime_error("evtsim: " + what + ": " + error);
}

void removeTree(const std::wstring& dir) {
    WIN32_FIND_DATAW fd;
    HANDLE find = FindFirstFileW((dir + L"\\*").c_str(), &fd);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            std::wstring name = fd.cFileName;
            if (name == L"." || name == L"..") continue;
            std::wstring path = dir + L"\\" + name;
            if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) removeTree(path);
            else DeleteFileW(path.c_str());
        } while (FindNextFileW(find, &fd));
        FindClose(find);
    }
    RemoveDirectoryW(dir.c_str());
}

}  // namespace

void installEvtsimApi() {
    EvtApi& api = apiTable().evt;
    api.EvtSubscribe = &evtsim::EvtSubscribe;
    api.EvtQuery = &evtsim::EvtQuery;
    api.EvtNext = &evtsim::EvtNext;
    api.EvtRender = &evtsim::EvtRender;
    api.EvtClose = &evtsim::EvtClose;
    api.EvtCreateRenderContext = &evtsim::EvtCreateRenderContext;
    api.EvtOpenPublisherMetadata = &evtsim::EvtOpenPublisherMetadata;
    api.EvtFormatMessage = &evtsim::EvtFormatMessage;
    api.EvtCreateBookmark = &evtsim::EvtCreateBookmark;
    api.EvtUpdateBookmark = &evtsim::EvtUpdateBookmark;
    api.EvtNextChannelPath = &evtsim::EvtNextChannelPath;
    api.EvtOpenChannelEnum = &evtsim::EvtOpenChannelEnum;
    api.EvtSeek = &evtsim::EvtSeek;
}

EvtsimStore::EvtsimStore() {
    static std::atomic<unsigned> counter{0};
    wchar_t temp[MAX_PATH];
    DWORD n = GetTempPathW(MAX_PATH, temp);
    check(n > 0 && n < MAX_PATH, "temporary folder", std::to_string(GetLastError()));
    root_ = std::wstring(temp, n) + L"evtsim-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
            std::to_wstring(GetTickCount64()) + L"-" + std::to_wstring(counter++);
    check(CreateDirectoryW(root_.c_str(), nullptr) != 0, "creating the store", std::to_string(GetLastError()));
    evtsim::setStoreRoot(root_);
    evtsim::clearFaults();
    installEvtsimApi();
}

EvtsimStore::~EvtsimStore() {
    evtsim::setFaults("");
    evtsim::clearFaults();
    evtsim::setStoreRoot(L"");
    removeTree(root_);
}

void EvtsimStore::createChannel(const std::string& name) {
    std::string error;
    check(evtsim::StoreWriter(root_).createChannel(name, error), "create " + name, error);
}

void EvtsimStore::clearChannel(const std::string& name) {
    std::string error;
    check(evtsim::StoreWriter(root_).clearChannel(name, error), "clear " + name, error);
}

void EvtsimStore::deleteChannel(const std::string& name) {
    std::string error;
    check(evtsim::StoreWriter(root_).deleteChannel(name, error), "delete " + name, error);
}

uint64_t EvtsimStore::append(const std::string& channel, const evtsim::EventSpec& event) {
    return appendXml(channel, evtsim::buildEventXml(event));
}

uint64_t EvtsimStore::appendXml(const std::string& channel, const std::string& eventXml) {
    return appendAll(channel, {eventXml});
}

uint64_t EvtsimStore::appendAll(const std::string& channel, const std::vector<std::string>& eventXml) {
    std::string error;
    uint64_t first = 0;
    check(evtsim::StoreWriter(root_).append(channel, eventXml, error, &first), "append to " + channel, error);
    return first;
}

uint64_t EvtsimStore::generate(const std::string& channel, size_t count, uint64_t seed) {
    addGeneratorProviders();
    evtsim::ChannelMeta meta;
    if (!evtsim::readChannelMeta(evtsim::channelDir(root_, channel), meta)) createChannel(channel);
    return appendAll(channel, evtsim::generateEvents(channel, count, seed));
}

void EvtsimStore::addProvider(const evtsim::ProviderDef& provider) {
    std::string error;
    check(evtsim::StoreWriter(root_).writeProvider(provider, error), "provider " + provider.name, error);
}

void EvtsimStore::addGeneratorProviders() {
    for (const auto& p : evtsim::generatorProviders()) addProvider(p);
}

void EvtsimStore::setFaults(const std::string& rules) {
    std::string error;
    check(evtsim::setFaults(rules, &error), "fault rules", error);
}

}  // namespace skorva::test
