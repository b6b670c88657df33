#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/Regex.h"
#include "platform/SkorvaException.h"

using namespace skorva;

// The XML tokenizer is reached only through the configuration reader and is
// tested there; the regex's own search semantics through the filter tests.

TEST(Regex, MatchesFromManyThreadsAtOnce) {
    std::string error;
    auto re = Regex::compile("EventCode=46(2[45])", error);
    ASSERT_TRUE(re);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5000; ++i) {
                bool expect = (i + t) % 2 == 0;
                if (re->search(expect ? "EventCode=4624\n" : "EventCode=4634\n") != expect) ++wrong;
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST(SkorvaException, ExpandsTheSystemErrorText) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    SkorvaException e("open '%s': %m", "x.cfg");
    EXPECT_EQ(std::string(e.what()).rfind("open 'x.cfg': ", 0), 0u);
    EXPECT_GT(std::string(e.what()).size(), std::string("open 'x.cfg': ").size());
    EXPECT_EQ(std::string(e.what()).find("%m"), std::string::npos);
    auto w = SkorvaException::withError(ERROR_ACCESS_DENIED, "100%% %m");
    EXPECT_EQ(std::string(w.what()).rfind("100% ", 0), 0u);
}
