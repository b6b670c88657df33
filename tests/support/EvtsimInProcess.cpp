#include "EvtsimInProcess.h"

#include <windows.h>

#include <stdexcept>

#include "Faults.h"
#include "Generator.h"
#include "Legacy.h"
#include "eventlog/EvtApi.h"
#include "eventlog/WinEventLogAPIInitializer.h"

namespace skorva::test {

namespace {

void check(bool ok, const std::string& what, const std::string& error) {
    if (!ok) throw std::runtime_error("evtsim: " + what + ": " + error);
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

void installEvtsimLegacyApi() {
    LegacyApi& api = apiTable().legacy;
    api.OpenEventLogW = &evtsim::OpenEventLogW;
    api.ReadEventLogW = &evtsim::ReadEventLogW;
    api.GetNumberOfEventLogRecords = &evtsim::GetNumberOfEventLogRecords;
    api.GetOldestEventLogRecord = &evtsim::GetOldestEventLogRecord;
    api.CloseEventLog = &evtsim::CloseEventLog;
    api.NotifyChangeEventLog = &::NotifyChangeEventLog;
    WinEventLogAPIInitializer::useFilledLegacyTableForTesting();
}

EvtsimStore::EvtsimStore() : folder_(L"evtsim"), root_(folder_.path()) {
    evtsim::setStoreRoot(root_);
    evtsim::clearFaults();
    installEvtsimApi();
}

EvtsimStore::~EvtsimStore() {
    evtsim::setFaults("");
    evtsim::clearFaults();
    evtsim::setStoreRoot(L"");
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
