#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "modinput/EventStreamWriter.h"
#include "platform/SkorvaException.h"
#include "platform/XmlTokenizer.h"

using namespace skorva;

namespace {

// Runs the writer into a temporary file and returns every byte it wrote.
template <class Fn>
std::string capture(Fn fn) {
    FILE* f = tmpfile();
    EXPECT_NE(f, nullptr);
    {
        EventStreamWriter writer(f);
        fn(writer);
    }
    fflush(f);
    std::string out;
    rewind(f);
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    fclose(f);
    return out;
}

// A strict parser (Expat) that counts the events of a stream.
class StreamReader : public XmlTokenizer {
public:
    int events = 0;

protected:
    void onElementStart(std::string_view name) override { events += name == "event"; }
    void onElementEnd(std::string_view) override {}
    void onAttributeName(std::string_view) override {}
    void onAttributeValue(std::string_view) override {}
    void onCharacterData(std::string_view) override {}
};

}  // namespace

TEST(EventStreamWriter, Escaping) {
    struct Case {
        std::string in, out;
    } cases[] = {
        {"a&b<c>\"d\"'e'", "a&amp;b&lt;c&gt;&quot;d&quot;&apos;e&apos;"},
        {"]]>", "]]&gt;"},
        {"tab\tlf\ncr\r", "tab\tlf\ncr\r"},
        {std::string("nul\0x", 5), "nul\\x00x"},
        {"\x01\x1F\x7F", "\\x01\\x1F\x7F"},
        {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"\xED\xA0\x80", "\\xED\\xA0\\x80"},                 // encoded surrogate
        {"\xEF\xBF\xBE|\xEF\xBF\xBF|\xEF\xBF\xBD", "\\xEF\\xBF\\xBE|\\xEF\\xBF\\xBF|\xEF\xBF\xBD"},
        {"\xFF\xC3(", "\\xFF\\xC3("},                        // bytes that start no UTF-8 sequence
        {"\xE0\x80\x80", "\\xE0\\x80\\x80"},                 // overlong
    };
    for (const auto& c : cases) {
        std::string out;
        appendEscaped(out, c.in);
        EXPECT_EQ(out, c.out) << c.in;
    }
}

TEST(EventStreamWriter, EveryByteStringGivesAWellFormedStream) {
    // All 256 byte values alone, every pair of a lead byte and a following byte,
    // and a few long invalid runs, in each escaped position.
    std::vector<std::string> inputs;
    for (int b = 0; b < 256; ++b) inputs.push_back(std::string(1, char(b)));
    for (int a = 0xC0; a < 256; ++a)
        for (int b = 0x70; b < 0xC0; b += 7) inputs.push_back(std::string{char(a), char(b), char(0xBF), 'x'});
    std::string all;
    for (int b = 0; b < 256; ++b) all += char(b);
    inputs.push_back(all + all);
    inputs.push_back("\xED\xA0");  // surrogate lead without its last byte
    std::string out = capture([&](EventStreamWriter& w) {
        for (const auto& in : inputs) {
            ModinputEvent e;
            e.data = in;
            e.source = in;
            e.stanza = in;
            e.index = in;
            w.writeEvent(e);
        }
    });
    StreamReader reader;
    try {
        reader.feed(out.data(), out.size(), true);
    } catch (const SkorvaException& ex) {
        FAIL() << ex.what();
    }
    EXPECT_EQ(reader.events, static_cast<int>(inputs.size()));
}
