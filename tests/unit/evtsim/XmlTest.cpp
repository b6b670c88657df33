// The record parser writes over an earlier parse: nothing of the earlier
// document may show through in the next one.
#include <gtest/gtest.h>

#include <string>

#include "Xml.h"

namespace {

// Everything a parse yields, spans included.
std::string dump(const evtsim::XmlNode& n) {
    std::string out = n.name + "[" + std::to_string(n.begin) + "," + std::to_string(n.end) + ")";
    for (const auto& a : n.attrs) out += " " + a.name + "=" + a.value;
    out += " text=" + n.text + " {";
    for (const auto& c : n.children) out += dump(c);
    return out + "}";
}

TEST(XmlTest, AParseWrittenOverEqualsAFreshOne) {
    // Each after the one before into the same node: fewer and more children,
    // attributes and text, references, an element closed in its start tag.
    const char* docs[] = {
        "<E a='1' b='2'><S><X k='v'>one</X><Y/><Z>z</Z></S><D>t&amp;u</D></E>",
        "<E><S><X>longer text than before</X></S></E>",
        "<?xml version='1.0'?><E c='&lt;3'><S/><D n='a'>x</D><D n='b'>y<![CDATA[<c>]]></D><D/></E>",
        "<E a='1' b='2'><S><X k='v'>one</X><Y/><Z>z</Z></S><D>t&amp;u</D></E>",
        "<A/><B x='y'/>",
        "<E/>",
    };
    evtsim::XmlNode reused;
    for (const char* text : docs) {
        evtsim::XmlNode fresh;
        ASSERT_TRUE(evtsim::parseXml(text, fresh)) << text;
        ASSERT_TRUE(evtsim::parseXml(text, reused)) << text;
        EXPECT_EQ(dump(fresh), dump(reused)) << text;
    }
    // A malformed document after a good one leaves nothing behind.
    EXPECT_FALSE(evtsim::parseXml("<E><S></E>", reused));
    EXPECT_TRUE(reused.children.empty());
}

}  // namespace
