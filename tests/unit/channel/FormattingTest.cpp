#include <gtest/gtest.h>

#include "RenderFixture.h"

namespace skorva {
namespace {

using namespace test;

class FormattingTest : public RenderingTest {
protected:
    void SetUp() override {
        store_.append("Security", logonEvent());
        records_ = readAll("Security");
        ASSERT_EQ(records_.size(), 1u);
        metadata_ = channel_->getPublisherMetadata(L"Test-Auditing");
        ASSERT_NE(metadata_, nullptr);
    }
    bool format(DWORD flag, std::wstring& out) {
        return channel_->formatMessageByFlag(metadata_, records_[0].handle.get(), flag, DWORD(-1), out);
    }
    EventBatch records_;
    EVT_HANDLE metadata_ = nullptr;
};

// The warning is what the operator learns of the data given up.
TEST_F(FormattingTest, ServiceOutagesAreRetriedThirtyTimesThenGivenUp) {
    for (const char* fault : {"EvtFormatMessage=1717", "EvtFormatMessage=87"}) {
        ManualClock clock;
        ScopedClock scoped(clock);
        log_.clear();
        store_.setFaults(fault);
        FormatSpy::install();
        std::wstring out;
        EXPECT_FALSE(format(EvtFormatMessageLevel, out)) << fault;
        apiTable().evt.EvtFormatMessage = FormatSpy::real;
        EXPECT_EQ(FormatSpy::calls, 30u);
        EXPECT_EQ(clock.slept(), 29u * 2000u);
        EXPECT_EQ(log_.count(LogLevel::Warn, "WinEventLogChannelBase::formatMessageByFlag: EvtFormatMessage failed "
                                             "to render event data for channel='Security' after one minute. Marking "
                                             "event data as unavailable"),
                  1u);
    }
}

TEST_F(FormattingTest, MessageIdLookupIsNotRetriedOnInvalidParameter) {
    std::wstring out;
    EXPECT_FALSE(channel_->formatMessageByFlag(nullptr, nullptr, EvtFormatMessageId, 77, out));
    EXPECT_EQ(channel_->lastFormatError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(clock_.sleeps(), 0u);
}

TEST_F(FormattingTest, PublisherMetadataIsOpenedOnceAndSweptWhenIdle) {
    EXPECT_EQ(channel_->getPublisherMetadata(L"Test-Auditing"), metadata_);
    EXPECT_EQ(channel_->getPublisherMetadata(L"Absent"), nullptr);
    const size_t open = evtsim::openHandleCount();
    channel_->cleanMetadataHandleCache(false);
    clock_.advance(10000);
    channel_->cleanMetadataHandleCache(false);  // used 10 s ago: kept
    clock_.advance(1000);
    channel_->cleanMetadataHandleCache(false);  // within 2 s of the last sweep: nothing
    EXPECT_EQ(evtsim::openHandleCount(), open);
    clock_.advance(1000);
    channel_->cleanMetadataHandleCache(false);
    EXPECT_EQ(evtsim::openHandleCount(), open - 1);
}

// A formatter that serves keyword lists in turn, each with the length it reports:
// the service reports a list without its final terminator, yet needs room for it.
struct KeywordFormatter {
    static inline std::vector<std::pair<std::wstring, DWORD>> lists;
    static inline size_t served = 0;
    static BOOL WINAPI call(EVT_HANDLE, EVT_HANDLE, DWORD, DWORD, PEVT_VARIANT, DWORD, DWORD size, LPWSTR buf,
                            PDWORD used) {
        const auto& [list, reported] = lists[served];
        *used = reported;
        if (size < list.size()) {
            ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return FALSE;
        }
        wmemcpy(buf, list.data(), list.size());
        ++served;
        return TRUE;
    }
};

// A long list gets room for its final terminator; an empty one after it shows
// nothing of the last one.
TEST_F(FormattingTest, KeywordListsWholeAndNothingOfTheLastOne) {
    const std::wstring list = std::wstring(L"first") + L'\0' + std::wstring(3000, L'k') + L'\0' + L'\0';
    KeywordFormatter::lists = {{list, DWORD(list.size() - 1)}, {std::wstring(1, L'\0'), 1}};
    KeywordFormatter::served = 0;
    auto saved = apiTable().evt.EvtFormatMessage;
    apiTable().evt.EvtFormatMessage = &KeywordFormatter::call;
    std::wstring first, second;
    const bool ok = format(EvtFormatMessageKeyword, first) && format(EvtFormatMessageKeyword, second);
    apiTable().evt.EvtFormatMessage = saved;
    ASSERT_TRUE(ok);
    EXPECT_EQ(first, L"first, " + std::wstring(3000, L'k'));
    EXPECT_EQ(second, L"");
}

TEST_F(FormattingTest, ErrorWithTextStillGivesTheWholeText) {
    evtsim::EventSpec e = logonEvent();
    const std::string name(3000, 'b');  // longer than the first buffer
    e.data = {{"TargetUserName", name}};  // the template's %2 has no value
    store_.append("Security", e);
    records_ = readAll("Security");
    ASSERT_EQ(records_.size(), 2u);
    EXPECT_EQ(records_[1].message, L"An account logged on.\r\n\tAccount Name:\t" + widen(name) + L"\r\n\tLogon Type:\t%2");
}

// A service that claims ever more room, or an implausible amount, is not followed
// without end, and nothing is read past the buffer on the strength of the claim.
struct GreedyFormatter {
    static inline int calls = 0;
    static inline DWORD extra = 0;
    static BOOL WINAPI call(EVT_HANDLE, EVT_HANDLE, DWORD, DWORD, PEVT_VARIANT, DWORD, DWORD size, LPWSTR buf,
                            PDWORD used) {
        ++calls;
        wmemset(buf, L'g', size);  // no terminator
        *used = extra ? size + extra : 0xFFFFFFF0u;
        return TRUE;
    }
};

TEST_F(FormattingTest, ClaimsOfMoreRoomAreFollowedOnlySoFar) {
    auto saved = apiTable().evt.EvtFormatMessage;
    apiTable().evt.EvtFormatMessage = &GreedyFormatter::call;
    for (DWORD extra : {1000u, 0u}) {
        GreedyFormatter::calls = 0;
        GreedyFormatter::extra = extra;
        std::wstring out;
        EXPECT_TRUE(format(EvtFormatMessageLevel, out)) << extra;
        EXPECT_LE(GreedyFormatter::calls, extra ? 5 : 1) << extra;
        EXPECT_GE(out.size(), 2048u);
        EXPECT_EQ(out, std::wstring(out.size(), L'g'));
    }
    apiTable().evt.EvtFormatMessage = saved;
}

TEST_F(FormattingTest, UnformattableMessageCarriesTheErrorText) {
    evtsim::EventSpec e = logonEvent();
    e.eventId = 5555;  // no template
    e.data.clear();
    store_.append("Security", e);
    records_ = readAll("Security");
    ASSERT_EQ(records_.size(), 2u);
    EXPECT_EQ(records_[1].message.rfind(L"\nFormatMessage error:\n", 0), 0u);
}

}  // namespace
}  // namespace skorva
