#pragma once
// Shared helpers for the evtsim fidelity tests.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "EvtsimInProcess.h"
#include "eventlog/EvtApi.h"

namespace evtsim_test {

using skorva::UniqueEvtHandle;

// Reads up to `max` events (batches of `batch`) from a result set.
inline std::vector<UniqueEvtHandle> readAll(EVT_HANDLE rs, DWORD batch = 10, size_t max = 100000) {
    std::vector<UniqueEvtHandle> out;
    std::vector<EVT_HANDLE> buf(batch);
    DWORD got = 0;
    while (out.size() < max && evtsim::EvtNext(rs, batch, buf.data(), 0, 0, &got)) {
        for (DWORD i = 0; i < got; ++i) out.emplace_back(buf[i]);
    }
    return out;
}

// The event's XML through the two-call size protocol.
inline std::wstring renderXml(EVT_HANDLE ev) {
    DWORD used = 0, count = 0;
    EXPECT_FALSE(evtsim::EvtRender(nullptr, ev, EvtRenderEventXml, 0, nullptr, &used, &count));
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, GetLastError());
    std::wstring text(used / sizeof(wchar_t), L'\0');
    EXPECT_TRUE(evtsim::EvtRender(nullptr, ev, EvtRenderEventXml, used, text.data(), &used, &count));
    text.resize(wcslen(text.c_str()));
    return text;
}

// Record ids of events, in the order given.
inline std::vector<uint64_t> recordIds(const std::vector<UniqueEvtHandle>& events) {
    std::vector<uint64_t> ids;
    LPCWSTR path = L"Event/System/EventRecordID";
    UniqueEvtHandle ctx(evtsim::EvtCreateRenderContext(1, &path, EvtRenderContextValues));
    for (const auto& e : events) {
        EVT_VARIANT v[4];
        DWORD used = 0, count = 0;
        EXPECT_TRUE(evtsim::EvtRender(ctx.get(), e.get(), EvtRenderEventValues, sizeof v, v, &used, &count));
        ids.push_back(v[0].UInt64Val);
    }
    return ids;
}

inline evtsim::EventSpec sampleEvent(unsigned eventId, std::vector<std::pair<std::string, std::string>> data = {}) {
    evtsim::EventSpec e;
    e.eventId = eventId;
    e.data = std::move(data);
    return e;
}

}  // namespace evtsim_test
