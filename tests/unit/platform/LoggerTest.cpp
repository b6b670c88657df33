#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <thread>
#include <vector>

#include "TempFolder.h"
#include "platform/Logger.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

using namespace skorva;

namespace {

// Restores the test-wide logger settings (DEBUG, no file) after a test.
struct LoggerReset {
    ~LoggerReset() {
        LoggerConfig config;
        config.level = LogLevel::Debug;
        Logger::instance().apply(config);
    }
};

}  // namespace

TEST(LoggerConfigFile, ParsesKeysAndSubstitutions) {
    const std::map<std::string, std::string> subs{{"${SKORVA_HOME}", "C:\\skorva"}};
    struct Case {
        const char* text;
        bool ok;
        LogLevel level;
        const wchar_t* file;
        uint64_t maxBytes;
        unsigned backups;
    } cases[] = {
        {"", true, LogLevel::Info, L"", 25ull << 20, 5},
        {"# comment\n\nlevel = debug\r\n", true, LogLevel::Debug, L"", 25ull << 20, 5},
        {"level=WARN\nfile = ${SKORVA_HOME}\\var\\log\\x.log\nmax_size = 10K\nbackups = 2\n", true, LogLevel::Warn,
         L"C:\\skorva\\var\\log\\x.log", 10240, 2},
        {"level = 4\nmax_size=3MB", true, LogLevel::Error, L"", 3ull << 20, 5},
        {"level = verbose", false, LogLevel::Info, L"", 0, 0},
        {"just words", false, LogLevel::Info, L"", 0, 0},
        {"backups = 1000", false, LogLevel::Info, L"", 0, 0},
        {"max_size = lots", false, LogLevel::Info, L"", 0, 0},
    };
    for (const auto& c : cases) {
        LoggerConfig config;
        std::string error;
        EXPECT_EQ(parseLoggerConfig(c.text, subs, config, error), c.ok) << c.text;
        if (!c.ok) {
            EXPECT_NE(error.find("line"), std::string::npos) << c.text;
            continue;
        }
        EXPECT_EQ(config.level, c.level) << c.text;
        EXPECT_EQ(config.file, c.file) << c.text;
        EXPECT_EQ(config.maxFileBytes, c.maxBytes) << c.text;
        EXPECT_EQ(config.backups, c.backups) << c.text;
    }
}

TEST(Logger, WritesWholeLinesWithTimestampLevelAndThread) {
    LoggerReset reset;
    test::TempFolder dir(L"skorva-log");
    LoggerConfig config;
    config.level = LogLevel::Debug;
    config.file = joinPath(joinPath(dir.path(), L"nested"), L"test.log");
    Logger::instance().apply(config);

    // Payloads of 100 to 3100 bytes: lines longer than the logger's stack buffer too.
    const auto payload = [](int t) { return std::string(100 + 1000 * static_cast<size_t>(t), 'p'); };
    const int threads = 4, perThread = 200;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([t, &payload] {
            for (int i = 0; i < perThread; ++i) LOG_INFO("worker %d line %d %s", t, i, payload(t).c_str());
        });
    for (auto& w : workers) w.join();
    Logger::instance().apply(LoggerConfig{});  // closes the file

    std::string content;
    ASSERT_TRUE(readFile(config.file, content));
    auto lines = split(content, '\n');
    ASSERT_EQ(lines.back(), "");
    lines.pop_back();
    ASSERT_EQ(lines.size(), static_cast<size_t>(threads * perThread));
    for (const auto& line : lines) {
        // "YYYY-MM-DD HH:MM:SS.mmm INFO   [tid] worker T line I ppp..."
        ASSERT_GE(line.size(), 24u);
        EXPECT_EQ(line[4], '-');
        EXPECT_EQ(line[19], '.');
        EXPECT_EQ(line.substr(23, 9), " INFO   [") << line;  // the level padded to six
        const size_t worker = line.find("] worker ");
        ASSERT_NE(worker, std::string::npos) << line;
        EXPECT_TRUE(endsWith(line, " " + payload(line[worker + 9] - '0'))) << line;
    }
}

TEST(Logger, RotatesBySizeKeepingBackups) {
    LoggerReset reset;
    test::TempFolder dir(L"skorva-rot");
    LoggerConfig config;
    config.level = LogLevel::Info;
    config.file = joinPath(dir.path(), L"r.log");
    config.maxFileBytes = 1000;
    config.backups = 2;
    Logger::instance().apply(config);
    for (int i = 0; i < 100; ++i) LOG_INFO("message number %03d %s", i, std::string(40, 'r').c_str());
    Logger::instance().apply(LoggerConfig{});

    std::string current, first, second;
    ASSERT_TRUE(readFile(config.file, current));
    ASSERT_TRUE(readFile(config.file + L".1", first));
    ASSERT_TRUE(readFile(config.file + L".2", second));
    EXPECT_FALSE(pathExists(config.file + L".3"));
    EXPECT_LE(current.size(), 1000u);
    EXPECT_LE(first.size(), 1000u);
    EXPECT_NE(current.find("message number 099"), std::string::npos);
    // The newest backup holds the lines just before the current file's.
    EXPECT_EQ(first.find("message number 000"), std::string::npos);
}

namespace {

// formatPlain's text for fmt and the arguments, or "<vsnprintf>" when it leaves
// the line to the C library.
std::string plain(size_t room, const char* fmt, ...) {
    char out[256];
    va_list args;
    va_start(args, fmt);
    const int n = skorva::formatPlain(out, room, fmt, args);
    va_end(args);
    return n < 0 ? "<vsnprintf>" : std::string(out, static_cast<size_t>(n));
}

}  // namespace

// Lines with the common conversions are made without the C library's
// formatter, to the same text; the rest are left to it.
TEST(Logger, PlainConversionsGiveWhatPrintfGives) {
    const struct {
        std::string got, want;
    } cases[] = {
        {plain(256, "%s: Failed to get sid from event, channel='%s', '%s'.", "F::g", "Security", "Success"),
         "F::g: Failed to get sid from event, channel='Security', 'Success'."},
        {plain(256, "%d %i %u %x %c%%", -42, 7, 4000000000u, 0xbeefu, 'z'), "-42 7 4000000000 beef z%"},
        {plain(256, "%ld %lu %lx", -5L, 4000000000UL, 255UL), "-5 4000000000 ff"},
        {plain(256, "%lld %llu %llx", -9000000000LL, 18000000000000000000ULL, 0x1234567890ULL),
         "-9000000000 18000000000000000000 1234567890"},
        {plain(256, "no conversion"), "no conversion"},
        {plain(256, "%08x", 1u), "<vsnprintf>"},  // a width
        {plain(256, "%ls", L"wide"), "<vsnprintf>"},
        {plain(256, "%s", static_cast<const char*>(nullptr)), "<vsnprintf>"},
        {plain(256, "%.2f", 1.5), "<vsnprintf>"},
        {plain(8, "%s", "eight ch"), "<vsnprintf>"},  // no room for the terminator
        {plain(9, "%s", "eight ch"), "eight ch"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.got, c.want);
}
