// The monitor's run over the simulated event log in process, where the end-to-end
// tests cannot reach: failed writes, suppressed checkpoints, a channel that
// never comes back.
#include <gtest/gtest.h>

#include <windows.h>

#include <map>
#include <regex>
#include <stdexcept>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "MonitorTestSupport.h"
#include "EvtsimInProcess.h"
#include "LogCapture.h"
#include "eventlog/WinEventLogAPIInitializer.h"
#include "platform/Clock.h"
#include "platform/Paths.h"

using namespace skorva;
using namespace skorva::test;

namespace {

std::vector<uint64_t> recordNumbers(const std::string& stream) {
    static const std::regex re("RecordNumber=(\\d+)");
    std::vector<uint64_t> ids;
    for (auto it = std::sregex_iterator(stream.begin(), stream.end(), re); it != std::sregex_iterator(); ++it)
        ids.push_back(std::stoull((*it)[1].str()));
    return ids;
}

// A monitor run on its own thread over the Application channel's generated records.
struct LiveRun {
    EvtsimStore store;
    CapturedOutput out;
    std::unique_ptr<WinEventMon> mon;
    std::thread thread;
    bool started = false;
    std::wstring checkpoint;

    LiveRun(size_t records, uint64_t seed) {
        WinEventLogAPIInitializer::useFilledEvtTableForTesting(true);
        store.generate("Application", records, seed);
    }
    ~LiveRun() {
        if (thread.joinable()) stop();
    }
    void start(Params params, std::unique_ptr<WinEventMon> monitor = nullptr) {
        mon = monitor ? std::move(monitor) : std::make_unique<WinEventMon>(store.root() + L"\\checkpoints");
        ASSERT_TRUE(mon->enumEvtLogChannels());
        ASSERT_TRUE(mon->configure(stanzas({{"WinEventLog://Application", std::move(params)}})));
        checkpoint = mon->findChannel("Application")->checkpointFilePath();
        mon->setOutput(out.file());
        thread = std::thread([this] { started = mon->start(); });
    }
    // Polls until `distinct` different records are out; gives up after a generous
    // bound (the assertions that follow then report what arrived).
    void waitFor(size_t distinct) {
        for (int i = 0; i < 600; ++i, ::Sleep(50)) {
            const std::vector<uint64_t> ids = recordNumbers(out.text());
            if (std::set<uint64_t>(ids.begin(), ids.end()).size() >= distinct) return;
        }
    }
    std::vector<uint64_t> stop() {
        mon->stop();
        thread.join();
        mon.reset();
        return recordNumbers(out.text());
    }
};

// A monitor whose output fails at chosen events, as it would without memory.
class FailingMonitor : public WinEventMon {
public:
    using WinEventMon::WinEventMon;
    std::map<uint64_t, int> failures;  // record number -> failures left
    bool processEvent(ChannelWork& work, EventRecord& event, OutputScratch& scratch) override {
        auto it = failures.find(event.recordNumber);
        if (it != failures.end() && it->second-- > 0) throw std::runtime_error("no room");
        return WinEventMon::processEvent(work, event, scratch);
    }
};

}  // namespace

// A failed write is reported and read again: nothing after it is taken for
// written, and an event that never goes through is given up after three tries.
TEST(MonitorRun, FailedWritesAreReadAgainNeverSkippedSilently) {
    struct {
        const char* threads;
        std::map<uint64_t, int> failures;
        std::vector<uint64_t> lost;
    } cases[] = {
        {"0", {{50, 1}, {250, 2}}, {}},
        {"4", {{50, 1}, {250, 2}}, {}},
        {"0", {{120, 100}}, {120}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.threads);
        LiveRun run(300, 6);
        auto mon = std::make_unique<FailingMonitor>(run.store.root() + L"\\checkpoints");
        mon->failures = c.failures;
        LogCapture log;
        run.start({{"batch_size", "1000"}, {"use_threads", c.threads}, {"thread_wait_time_msec", "100"}}, std::move(mon));
        run.waitFor(300 - c.lost.size());  // failed events come again, some others twice
        std::set<uint64_t> missing;
        for (uint64_t id = 1; id <= 300; ++id) missing.insert(id);
        for (uint64_t id : run.stop()) missing.erase(id);
        EXPECT_EQ(std::vector<uint64_t>(missing.begin(), missing.end()), c.lost);
        EXPECT_TRUE(log.has(LogLevel::Error, "WinEventMon::processLogChannel: Failed to write event rec_id=" +
                                                 std::to_string(c.failures.begin()->first) +
                                                 " of channel='Application': 'no room'; it is read again after the "
                                                 "last event written"))
            << log.dump();
        EXPECT_EQ(log.has(LogLevel::Error, "WinEventMon::processLogChannel: Event rec_id=120 of "
                                           "channel='Application' failed to be written 3 times and is skipped"),
                  !c.lost.empty());
        std::string bookmark;
        ASSERT_TRUE(readFile(run.checkpoint, bookmark));
        EXPECT_NE(bookmark.find("RecordId='300'"), std::string::npos) << bookmark;
    }
}

TEST(MonitorRun, SuppressedCheckpointWritesNoFile) {
    LiveRun run(20, 4);
    run.start({{"suppress_checkpoint", "true"}});
    run.waitFor(20);
    EXPECT_EQ(run.stop().size(), 20u);
    EXPECT_FALSE(pathExists(run.checkpoint));
}

TEST(MonitorRun, ChannelThatNeverComesBackIsGivenUpAfterItsWaitTime) {
    LiveRun run(3, 5);
    ManualClock clock;  // the 500 ms availability sleeps pass at once
    ScopedClock useClock(clock);
    LogCapture log;
    run.start({{"channel_wait_time", "2"}});
    run.waitFor(3);
    run.store.deleteChannel("Application");
    // The reader notices the deleted channel on its next pass; the dispatch loop
    // then retries four times and gives the channel up, which ends the run.
    run.thread.join();
    EXPECT_TRUE(run.started);
    EXPECT_TRUE(log.has(LogLevel::Error, "WinEventMon::start: Channel Application failed to become available in 2000 ms."))
        << log.dump();
}

// A classic log through the whole monitor: the existing records newest first,
// then each new one once, noticed by the wait's timeout as no change
// notification reaches the monitor here; the checkpoint string follows.
TEST(MonitorRun, ClassicLogNewestFirstThenFollowed) {
    LiveRun run(30, 2);
    installEvtsimLegacyApi();
    run.start({{"use_old_eventlog_api", "true"}, {"start_from", "newest"}, {"thread_wait_time_msec", "100"}});
    run.waitFor(30);
    run.store.generate("Application", 3, 3);
    run.waitFor(33);
    std::vector<uint64_t> expected;
    for (uint64_t id = 30; id >= 1; --id) expected.push_back(id);
    for (uint64_t id = 31; id <= 33; ++id) expected.push_back(id);
    EXPECT_EQ(run.stop(), expected);
    std::string text;
    ASSERT_TRUE(readFile(run.checkpoint, text));
    EXPECT_EQ(text, "channel=Application,record_id=33");
    EXPECT_FALSE(pathExists(run.checkpoint + L"_reverse"));
}
