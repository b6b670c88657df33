#include <gtest/gtest.h>

#include <fcntl.h>
#include <io.h>

#include <string>

#include "modinput/ConfigInput.h"
#include "platform/Paths.h"
#include "platform/SkorvaException.h"
#include "platform/Strings.h"

using namespace skorva;

namespace {

InputConfig parse(const std::string& doc, size_t pieceSize = 0) {
    ConfigXmlStreamingParser parser;
    if (pieceSize == 0) {
        parser.feed(doc.data(), doc.size(), true);
    } else {
        for (size_t i = 0; i < doc.size(); i += pieceSize)
            parser.feed(doc.data() + i, std::min(pieceSize, doc.size() - i));
        parser.finish();
    }
    return parser.takeConfig();
}

std::string unexpectedMessage(const std::string& doc) {
    try {
        parse(doc);
    } catch (const SkorvaException& e) {
        return e.what();
    }
    return "(accepted)";
}

}  // namespace

TEST(ConfigReader, ReadsTheDaemonsDocumentInAnyPieces) {
    std::string doc;
    ASSERT_TRUE(readFile(widen(SKORVA_TEST_DATA "/modinput/daemon.xml"), doc));
    for (size_t piece : {size_t(0), size_t(1), size_t(7), size_t(8192)}) {
        SCOPED_TRACE(piece);
        InputConfig c = parse(doc, piece);
        EXPECT_EQ(c.serverHost, "dc01");
        EXPECT_EQ(c.serverUri, "https://127.0.0.1:8089");
        EXPECT_EQ(c.sessionKey, "dQw4w9WgXcQ^secret");
        EXPECT_EQ(c.checkpointDir, "C:\\Program Files\\Skorva\\var\\lib\\skorva\\modinputs\\WinEventLog");
        ASSERT_EQ(c.stanzas.size(), 2u);
        // Ordered by name; a repeated stanza gathers the parameters of both.
        EXPECT_EQ(c.stanzas.begin()->first, "WinEventLog://Application");
        const auto& sec = c.stanzas.at("WinEventLog://Security");
        EXPECT_EQ(sec.params.size(), 6u);
        EXPECT_EQ(sec.params.at("whitelist"), "EventCode=%^(4624|4625)$% Message=%Logon Type:\\s+3%");
        EXPECT_EQ(sec.params.at("blacklist1"), "$XmlRegex=%<Data Name='TargetUserName'>svc_.*</Data>%");
        EXPECT_EQ(sec.params.at("evt_dc_name"), "&dc<1>");
        EXPECT_EQ(sec.params.at("batch_size"), "50");
        EXPECT_EQ(c.stanzas.at("WinEventLog://Application").params.at("renderXml"), "true");
    }
}

TEST(ConfigReader, EdgeCases) {
    struct Case {
        const char* doc;
        size_t stanzas;
        const char* check;  // "stanza/param=value" expected, or empty
    } cases[] = {
        // Another root yields nothing, without complaint.
        {"<other><configuration><stanza name='a'><param name='p'>v</param></stanza></configuration></other>", 0, ""},
        // A stanza without a name collects nothing.
        {"<input><configuration><stanza><param name='p'>v</param></stanza></configuration></input>", 0, ""},
        // A param without a name is dropped; the stanza stays.
        {"<input><configuration><stanza name='s'><param>v</param><param name='q'>w</param></stanza></configuration></input>",
         1, "s/q=w"},
        // Indentation between elements never reaches a value; entities and CDATA join.
        {"<input>\n <configuration>\n  <stanza name='s'>\n   <param name='p'>a&amp;b<![CDATA[<c>]]>d</param>\n  </stanza>\n </configuration>\n</input>",
         1, "s/p=a&b<c>d"},
        // An empty param is an empty value.
        {"<input><configuration><stanza name='s'><param name='p'/></stanza></configuration></input>", 1, "s/p="},
        // A later param of the same name wins.
        {"<input><configuration><stanza name='s'><param name='p'>1</param><param name='p'>2</param></stanza></configuration></input>",
         1, "s/p=2"},
        // Entities in attributes; UTF-8 split between pieces.
        {"<input><configuration><stanza name='s&amp;t'><param name='p'>caf\xC3\xA9</param></stanza>"
         "</configuration></input>",
         1, "s&t/p=caf\xC3\xA9"},
    };
    for (const auto& c : cases) {
        for (size_t piece : {size_t(0), size_t(1)}) {
            SCOPED_TRACE(std::string(c.doc) + (piece ? " (byte by byte)" : ""));
            InputConfig config = parse(c.doc, piece);
            EXPECT_EQ(config.stanzas.size(), c.stanzas);
            std::string check = c.check;
            if (check.empty()) continue;
            size_t slash = check.find('/'), eq = check.find('=');
            const auto& st = config.stanzas.at(check.substr(0, slash));
            EXPECT_EQ(st.params.at(check.substr(slash + 1, eq - slash - 1)), check.substr(eq + 1));
        }
    }
}

TEST(ConfigReader, RejectsElementsWhereNoneBelong) {
    struct Case {
        const char* doc;
        const char* message;
    } cases[] = {
        {"<input><configuration><stanza name='s'><param name='p'><value>1</value></param></stanza></configuration></input>",
         "Unexpected entity \"value\" found under path \"input/configuration/stanza/param/value\" in the XML configuration input."},
        {"<input><server_host><b/></server_host></input>",
         "Unexpected entity \"b\" found under path \"input/server_host/b\" in the XML configuration input."},
        {"<input><param name='p'>v</param></input>",
         "Unexpected entity \"param\" found under path \"input/param\" in the XML configuration input."},
    };
    // (A malformed document is reported where it breaks end to end: ctrl-z, cut-short.)
    for (const auto& c : cases) EXPECT_EQ(unexpectedMessage(c.doc), c.message);
}

TEST(ConfigReader, ReadsAPipeToItsEndAndTreatsEmptyInputAsEmpty) {
    for (const std::string& doc : {std::string(), std::string(" \r\n\t"),
                                  "<input><configuration><stanza name='WinEventLog://System'>" + std::string(20000, ' ') +
                                      "<param name='index'>main</param></stanza></configuration></input>"}) {
        int fds[2];
        ASSERT_EQ(_pipe(fds, 65536, _O_BINARY), 0);
        ASSERT_EQ(_write(fds[1], doc.data(), static_cast<unsigned>(doc.size())), static_cast<int>(doc.size()));
        _close(fds[1]);
        ConfigXmlStreamingParser parser;
        InputConfig c = readConfigFromFd(parser, fds[0]);
        _close(fds[0]);
        EXPECT_EQ(c.stanzas.size(), doc.size() > 10 ? 1u : 0u);
    }
}
