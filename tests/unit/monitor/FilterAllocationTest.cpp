// Filter evaluation runs per event: once rules are compiled it allocates nothing.
#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <new>

#include "MonitorTestSupport.h"
#include "SampleEvents.h"
#include "platform/Logger.h"

namespace {
std::atomic<bool> counting{false};
std::atomic<size_t> allocations{0};
}  // namespace

void* operator new(std::size_t size) {
    if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = ::HeapAlloc(::GetProcessHeap(), 0, size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    if (p) ::HeapFree(::GetProcessHeap(), 0, p);
}
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }

using namespace skorva;
using namespace skorva::test;

TEST(FilterAllocation, EvaluatingAnEventAllocatesNothing) {
    const std::string stanza = "WinEventLog://Security";
    TestMon classic;
    ASSERT_TRUE(classic.configure(stanzas(
        {{stanza,
          {{"whitelist", "4624-4625"},
           {"whitelist1", R"(EventCode=%^462[45]$% Message=%Logon Type:\s{1,}(3|10)%)"},
           {"blacklist", "4663"},
           {"blacklist1", "Keywords=%Audit Failure% SourceName=%security%"}}}})));
    TestMon xml;
    ASSERT_TRUE(xml.configure(stanzas(
        {{stanza, {{"renderXml", "1"}, {"whitelist", "TargetUserName=%bob% $XmlRegex=%LogonType'>3%"},
                   {"blacklist", "IpAddress=%^192\\.168\\.%"}}}})));
    const WinEventLogChannel& channel = *classic.findChannel("Security");
    const std::string classicText = kClassicLogon, xmlText = kXmlLogon;

    Logger::instance().setLevel(LogLevel::Info);
    // A thread's first match sets up its match data; that is not per event.
    ASSERT_TRUE(classic.include_event(classicText, stanza));
    counting = true;
    bool results = true;
    for (int i = 0; i < 100; ++i) {
        results &= channel.includeEvent(4624);
        results &= classic.include_event(classicText, stanza);
        results &= xml.include_event(xmlText, stanza);
    }
    counting = false;
    Logger::instance().setLevel(LogLevel::Debug);
    EXPECT_TRUE(results);
    EXPECT_EQ(allocations.load(), 0u);
}
