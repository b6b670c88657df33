#pragma once
// Finds the value a filter key names in one event's text, as a view into that
// text (nothing is copied or decoded). Classic text: the key names a
// "Key=value" line; "Message" runs to the end of the text, and lines after the
// Message line are message body, never fields. XML: the classic names map to
// their System values (EventCode to EventID, and so on), "Message" to
// RenderingInfo/Message, "$XmlRegex..." keys to the whole XML, and any other
// key to an EventData Data element by its Name, else to a UserData element of
// that name. XML values are the raw text between the tags (entities kept).
// "Object Type" is no field of any event: Windows prints it as a line of the
// message ("\tObject Type:\t\tFile"), so it is that line's value; in XML the
// Data element ObjectType, else that line of RenderingInfo/Message.

#include <string_view>

namespace skorva {

inline constexpr std::string_view kObjectTypeKey = "Object Type";

bool lookupClassicValue(std::string_view text, std::string_view key, std::string_view& value);
bool lookupXmlValue(std::string_view xml, std::string_view key, std::string_view& value);
// A message-bearing key ("Message", "Object Type") in a message alone, as the
// classic text would give it; false for any other key.
bool lookupMessageValue(std::string_view message, std::string_view key, std::string_view& value);

inline bool lookupEventValue(std::string_view text, bool xml, std::string_view key, std::string_view& value) {
    return xml ? lookupXmlValue(text, key, value) : lookupClassicValue(text, key, value);
}

}  // namespace skorva
