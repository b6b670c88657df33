#pragma once
// The rendering fixture: an evtsim store with a Security and a ForwardedEvents
// channel, a provider with message resources, and a reader that renders every
// event of a channel the way the channel reader does.

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <cwchar>
#include <memory>
#include <vector>

#include "EvtsimInProcess.h"
#include "LogCapture.h"
#include "channel/WinEventLogChannelBase.h"
#include "platform/Clock.h"
#include "platform/Strings.h"

namespace skorva::test {

using Fields = std::vector<std::pair<std::wstring, std::wstring>>;

// Counts the EvtFormatMessage calls on the way to evtsim.
struct FormatSpy {
    static inline decltype(&::EvtFormatMessage) real = nullptr;
    static inline size_t calls = 0;
    static BOOL WINAPI call(EVT_HANDLE pub, EVT_HANDLE ev, DWORD id, DWORD n, PEVT_VARIANT v, DWORD flag, DWORD size,
                            LPWSTR buf, PDWORD used) {
        ++calls;
        return real(pub, ev, id, n, v, flag, size, buf, used);
    }
    static void install() {
        calls = 0;
        real = apiTable().evt.EvtFormatMessage;
        apiTable().evt.EvtFormatMessage = &call;
    }
};

inline evtsim::ProviderDef auditProvider() {
    evtsim::ProviderDef def;
    def.name = "Test-Auditing";
    def.guid = "{11111111-2222-3333-4444-555555555555}";
    def.displayName = "Test security auditing";
    def.levels = {{0, "Information"}};
    def.tasks = {{12544, "Logon"}};
    def.opcodes = {{0, "Info"}};
    def.strings = {{77, "Custom step"}};
    def.keywords = {{0x0020000000000000ull, "Audit Success"}, {0x10, "Interactive"}};
    def.events = {{4624, "An account logged on.%n%tAccount Name:%t%1%n%tLogon Type:%t%2"}, {1, "%1"}};
    return def;
}

inline evtsim::EventSpec logonEvent() {
    evtsim::EventSpec e;
    e.provider = "Test-Auditing";
    e.eventId = 4624;
    e.level = 0;
    e.task = 12544;
    e.opcode = 0;
    e.keywords = 0x0020000000000010ull;
    e.userSid = "S-1-5-18";
    e.data = {{"TargetUserName", "alice"}, {"LogonType", "2"}};
    return e;
}

inline std::wstring expectedTimestamp(std::time_t t) {
    std::tm local = *std::localtime(&t);
    wchar_t text[128];
    const size_t n = std::wcsftime(text, 128, L"%m/%d/%Y %I:%M:%S %p", &local);
    return std::wstring(text, n);
}

class RenderingTest : public ::testing::Test {
protected:
    RenderingTest() : scoped_(clock_) {
        store_.createChannel("Security");
        store_.createChannel("ForwardedEvents");
        store_.addProvider(auditProvider());
    }

    // Reads every event of `channel` through a channel reader with `settings`.
    EventBatch readAll(const char* channel, const ChannelSettings& settings = ChannelSettings(),
                                     std::vector<DWORD>* results = nullptr) {
        channel_ = std::make_unique<WinEventLogChannelBase>(channel, settings);
        EXPECT_TRUE(channel_->setRenderContext());
        const EvtApi& api = apiTable().evt;
        // The events read close with their query: it lives as long as the fixture.
        query_.reset(api.EvtQuery(nullptr, widen(channel).c_str(), nullptr,
                                  EvtQueryChannelPath | EvtQueryForwardDirection));
        EXPECT_TRUE(query_.valid());
        EventBatch out;
        EVT_HANDLE handles[16];
        DWORD returned = 0;
        while (api.EvtNext(query_.get(), 16, handles, INFINITE, 0, &returned)) {
            for (DWORD i = 0; i < returned; ++i) {
                EventRecord& record = out.emplace_back();
                record.handle.reset(handles[i]);
                DWORD rc = channel_->renderEvent(record, values_, valuesSize_);
                if (rc == 0)
                    rc = channel_->setEventProperties(reinterpret_cast<const EVT_VARIANT*>(values_.data()), record);
                if (results) results->push_back(rc);
            }
        }
        return out;
    }

    EventRecord readOne(const char* channel, const ChannelSettings& settings = ChannelSettings()) {
        auto all = readAll(channel, settings);
        EXPECT_EQ(all.size(), 1u);
        return all.empty() ? EventRecord() : std::move(all[0]);
    }

    static std::vector<std::wstring> keys(const EventFields& fields) {
        std::vector<std::wstring> k;
        for (const auto f : fields) k.emplace_back(f.key);
        return k;
    }

    // The fields as owned pairs, from field `from` on.
    static Fields fieldsOf(const EventRecord& r, size_t from = 0) {
        Fields out;
        for (size_t i = from; i < r.fields.size(); ++i) out.emplace_back(r.fields[i].key, r.fields[i].value);
        return out;
    }

    ManualClock clock_;
    ScopedClock scoped_;
    test::EvtsimStore store_;
    test::LogCapture log_;
    std::unique_ptr<WinEventLogChannelBase> channel_;
    UniqueEvtHandle query_;
    std::vector<uint8_t> values_;
    DWORD valuesSize_ = 0;
};

}  // namespace skorva::test
