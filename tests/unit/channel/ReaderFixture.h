#pragma once
// A channel reader over the simulated event log: an "Application" channel, a
// provider whose event 1 message is its first data value, checkpoints under
// the store's folder, and a manual clock (the 20 s pause costs nothing).

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "EvtsimInProcess.h"
#include "LogCapture.h"
#include "eventlog/WinEventLogAPIInitializer.h"
#include "channel/WinEventLogChannel.h"
#include "platform/Clock.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace skorva::test {

// Counts the calls that reach evtsim's EvtNext.
struct EvtNextCounter {
    static int& calls() {
        static int n = 0;
        return n;
    }
    static BOOL WINAPI call(EVT_HANDLE rs, DWORD size, EVT_HANDLE* events, DWORD timeout, DWORD flags, PDWORD got) {
        ++calls();
        return evtsim::EvtNext(rs, size, events, timeout, flags, got);
    }
    static void install() {
        calls() = 0;
        apiTable().evt.EvtNext = &call;
    }
};

class ReaderTest : public ::testing::Test {
protected:
    static constexpr const char* kChannel = "Application";

    void SetUp() override {
        WinEventLogAPIInitializer::useFilledEvtTableForTesting(true);
        store_.createChannel(kChannel);
        evtsim::ProviderDef provider;
        provider.name = "Reader-Test";
        provider.events = {{1, "%1"}};
        store_.addProvider(provider);
        handlesBefore_ = evtsim::openHandleCount();
    }
    void TearDown() override {
        channel_.reset();
        EXPECT_EQ(evtsim::openHandleCount(), handlesBefore_) << "an event log handle leaked";
    }

    ChannelSettings settings(int batchSize = 10) const {
        ChannelSettings s;
        s.batchSize = batchSize;
        s.checkpointDir = store_.root() + L"\\checkpoints";
        return s;
    }
    WinEventLogChannel& open(const ChannelSettings& s, bool expectInit = true) {
        channel_ = std::make_unique<WinEventLogChannel>(kChannel, s);
        EXPECT_EQ(channel_->init(), expectInit) << log_.dump();
        return *channel_;
    }
    // An empty channel made anew and no checkpoints, for the next case of a table.
    void fresh() {
        channel_.reset();
        store_.deleteChannel(kChannel);
        store_.createChannel(kChannel);
        std::vector<std::string> failures;
        removeRecursive(settings().checkpointDir, failures);
    }
    // Appends `count` events; event ids count up from `firstEventId` when given.
    void append(size_t count, unsigned firstEventId = 0, const std::string& text = "text") {
        std::vector<std::string> xml;
        evtsim::EventSpec e;
        e.provider = "Reader-Test";
        e.data = {{"", text}};
        for (size_t i = 0; i < count; ++i) {
            if (firstEventId) e.eventId = firstEventId + static_cast<unsigned>(i);
            xml.push_back(evtsim::buildEventXml(e));
        }
        store_.appendAll(kChannel, xml);
    }
    // One pass as the monitor makes it: reads while events are pending and
    // checkpoints after each call. Returns the record numbers in reading order.
    std::vector<uint64_t> drain(WinEventLogChannel& ch) {
        std::vector<uint64_t> ids;
        do {
            EventBatch records;
            ch.getEventsNew(records);
            for (const auto& r : records) ids.push_back(r.recordNumber);
            if (records.empty()) continue;
            ch.markWritten(records.back().handle.get(), records.back().recordNumber);
            ch.checkPoint(records.back().handle.get(), records.back().recordNumber, false);
        } while (ch.eventsPending());
        return ids;
    }
    // The fields of a classic text: its first line is the bare timestamp, and
    // "Message" takes the rest of the text.
    static std::map<std::wstring, std::wstring> fieldsOf(std::string_view text) {
        std::map<std::wstring, std::wstring> out;
        size_t at = 0;
        for (bool first = true; at < text.size(); first = false) {
            const size_t end = std::min(text.find('\n', at), text.size());
            const std::string_view line = text.substr(at, end - at);
            const size_t eq = line.find('=');
            if (line.rfind("Message=", 0) == 0) {
                out[L"Message"] = widen(text.substr(at + 8));
                break;
            }
            if (first && eq == std::string::npos) out[L"$Timestamp"] = widen(line);
            else if (eq != std::string::npos) out[widen(line.substr(0, eq))] = widen(line.substr(eq + 1));
            at = end + 1;
        }
        return out;
    }
    static std::vector<uint64_t> ids(uint64_t first, uint64_t last) {
        std::vector<uint64_t> v;
        if (first <= last)
            for (uint64_t i = first; i <= last; ++i) v.push_back(i);
        else
            for (uint64_t i = first; i >= last; --i) v.push_back(i);
        return v;
    }

    ManualClock clock_;
    ScopedClock scopedClock_{clock_};
    EvtsimStore store_;
    LogCapture log_;
    std::unique_ptr<WinEventLogChannel> channel_;
    size_t handlesBefore_ = 0;
};

}  // namespace skorva::test
