#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/Regex.h"
#include "platform/SkorvaException.h"
#include "platform/ThreadRegistry.h"
#include "platform/XmlTokenizer.h"

using namespace skorva;

namespace {

class Recorder : public XmlTokenizer {
public:
    std::string trace;

protected:
    void onElementStart(std::string_view n) override { trace += "<" + std::string(n) + ">"; }
    void onElementEnd(std::string_view n) override { trace += "</" + std::string(n) + ">"; }
    void onAttributeName(std::string_view n) override { trace += "@" + std::string(n); }
    void onAttributeValue(std::string_view v) override { trace += "=" + std::string(v); }
    void onCharacterData(std::string_view d) override { trace += "[" + std::string(d) + "]"; }
};

std::string joinTexts(const std::string& trace) {
    // Character data may arrive in several pieces: merge adjacent ones.
    std::string out;
    for (size_t i = 0; i < trace.size(); ++i) {
        if (trace[i] == ']' && i + 1 < trace.size() && trace[i + 1] == '[') {
            ++i;
            continue;
        }
        out += trace[i];
    }
    return out;
}

}  // namespace

TEST(XmlTokenizer, ReportsEventsFedOneByteAtATime) {
    const std::string doc =
        "<?xml version='1.0'?><!-- c --><a x=\"1\" y='&amp;'>t&lt;1<![CDATA[<raw>]]><b/>\xC3\xA9</a>";
    Recorder whole;
    whole.feed(doc.data(), doc.size(), true);
    Recorder pieces;
    for (char c : doc) pieces.feed(&c, 1);
    pieces.finish();
    const std::string expected = "<a>@x=1@y=&[t<1<raw>]<b></b>[\xC3\xA9]</a>";
    EXPECT_EQ(joinTexts(whole.trace), expected);
    EXPECT_EQ(joinTexts(pieces.trace), expected);
}

TEST(XmlTokenizer, MalformedDocumentNamesLineAndColumn) {
    Recorder r;
    const std::string doc = "<a>\n  <b></c>\n</a>";
    try {
        r.feed(doc.data(), doc.size(), true);
        FAIL() << "no exception";
    } catch (const SkorvaException& e) {
        EXPECT_NE(std::string(e.what()).find("line 2, column 8"), std::string::npos) << e.what();
    }
    Recorder unfinished;
    unfinished.feed("<a>", 3);
    EXPECT_THROW(unfinished.finish(), SkorvaException);
}

TEST(Regex, SearchesAnywhereAndReportsCompileErrors) {
    std::string error;
    auto re = Regex::compile("Logon Type:\\s+3", error);
    ASSERT_TRUE(re) << error;
    EXPECT_TRUE(re->search("Message=An account was logged on.\nLogon Type:\t\t3\nmore"));
    EXPECT_FALSE(re->search("Logon Type: 10"));
    auto anchored = Regex::compile("^(4624|4625)$", error);
    ASSERT_TRUE(anchored);
    EXPECT_TRUE(anchored->search("4625"));
    EXPECT_FALSE(anchored->search("14625"));
    EXPECT_TRUE(Regex::compile("caf\xC3\xA9", error)->search("un caf\xC3\xA9"));
    // Invalid UTF-8 in the subject does not make the search fail.
    EXPECT_TRUE(Regex::compile("ok", error)->search("\xFF ok"));

    auto bad = Regex::compile("abc(", error);
    EXPECT_FALSE(bad);
    EXPECT_NE(error.find("missing closing parenthesis"), std::string::npos) << error;
    EXPECT_NE(error.find("offset 4"), std::string::npos) << error;
}

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

TEST(ThreadRegistry, MainThreadOnlyOnce) {
    {
        MainThread main;
        EXPECT_TRUE(ThreadRegistry::isRegistered("Main Thread"));
        EXPECT_EQ(ThreadRegistry::currentName(), "Main Thread");
        try {
            MainThread second;
            FAIL() << "second main thread accepted";
        } catch (const SkorvaException& e) {
            EXPECT_STREQ(e.what(), "Main Thread created twice!");
        }
    }
    EXPECT_FALSE(ThreadRegistry::isRegistered("Main Thread"));
    MainThread again;  // allowed once the first is gone
}
