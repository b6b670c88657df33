#include <gtest/gtest.h>

#include <string>

#include "SampleEvents.h"
#include "filter/EventTextLookup.h"

using namespace skorva;
using namespace skorva::test;

namespace {

struct Case {
    const char* event;
    bool xml;
    const char* key;
    bool found;
    std::string value;
};

const std::string kLogonMessage =
    "An account was successfully logged on.\n\nSubject:\n\tSecurity ID:\t\tS-1-5-18\n\tAccount Name:\t\tDC01$\n\n"
    "Logon Information:\n\tLogon Type:\t\t3\nDetail=not a field, part of the message";

// Windows prints "Object Type" only as a line of the message.
const char* const kClassicObjectAccess =
    "LogName=Security\r\nEventCode=4662\r\nMessage=An operation was performed on an object.\r\n\r\nObject:\r\n"
    "\tObject Server:\t\tDS\r\n\tObject Type:\t\t%{bf967aba-0de6-11d0-a285-00aa003049e2}\r\n\tObject Name:\t\tx\r\n";
const char* const kXmlObjectTypeData =
    "<Event><EventData><Data Name='ObjectType'>File</Data></EventData>"
    "<RenderingInfo><Message>Object Type: Key</Message></RenderingInfo></Event>";
const char* const kXmlObjectTypeLine =
    "<Event><EventData/><RenderingInfo><Message>Object:\r\n\tObject Type:\tFile \r\n\tObject Name:\tC:\\x</Message>"
    "</RenderingInfo></Event>";

}  // namespace

// Keys the filter tests already read through whole rules are not repeated here.
TEST(EventTextLookup, FindsKeysInClassicTextAndXml) {
    const Case cases[] = {
        {kClassicLogon, false, "Message", true, kLogonMessage},
        {kClassicLogon, false, "Event", false, ""},       // prefix of EventCode/EventType, not a key
        {kClassicLogon, false, "Account Name", false, ""},
        {kClassicFailedLogonCrLf, false, "EventCode", true, "4625"},
        {kClassicFailedLogonCrLf, false, "Message", true, "An account failed to log on.\r\n\tLogon Type:\t\t10"},
        {kXmlLogon, true, "LogName", true, "Security"},
        {kXmlLogon, true, "ComputerName", true, "dc01.corp.example"},
        {kXmlLogon, true, "RecordNumber", true, "386038"},
        {kXmlLogon, true, "Keywords", true, "0x8020000000000000"},
        {kXmlLogon, true, "TaskCategory", true, "12544"},
        {kXmlLogon, true, "Type", true, "0"},  // the System level, not RenderingInfo's
        {kXmlLogon, true, "Sid", true, "S-1-5-18"},
        {kXmlLogon, true, "Message", true, "An account was successfully logged on."},
        {kXmlLogon, true, "Empty", true, ""},
        {kXmlLogon, true, "Target", false, ""},
        {kXmlLogCleared, true, "EventCode", true, "1102"},
        {kXmlLogCleared, true, "Sid", false, ""},
        {kXmlLogCleared, true, "Message", false, ""},
        {kClassicObjectAccess, false, "Object Type", true, "%{bf967aba-0de6-11d0-a285-00aa003049e2}"},
        {kClassicLogon, false, "Object Type", false, ""},
        {kXmlObjectTypeData, true, "Object Type", true, "File"},  // the Data element before the message
        {kXmlObjectTypeLine, true, "Object Type", true, "File"},
        {kXmlLogon, true, "Object Type", false, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.key) + (c.xml ? " (xml)" : " (classic)"));
        std::string_view value;
        ASSERT_EQ(lookupEventValue(c.event, c.xml, c.key, value), c.found);
        if (c.found) {
            EXPECT_EQ(value, c.value);
        }
    }
}
