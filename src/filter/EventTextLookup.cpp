#include "filter/EventTextLookup.h"

#include <algorithm>

namespace skorva {

namespace {

constexpr size_t npos = std::string_view::npos;

std::string_view trimLineEnd(std::string_view s) {
    while (!s.empty() && (s.back() == '\r' || s.back() == '\n')) s.remove_suffix(1);
    return s;
}

// The content of the element <tag ...>content</tag> found in `xml`, and where
// its start tag is; a self-closed element has empty content.
struct Element {
    std::string_view startTag;  // from '<' to '>' inclusive
    std::string_view content;
    size_t end = npos;          // index just past the element
};

bool isNameEnd(char c) { return c == ' ' || c == '>' || c == '/' || c == '\t' || c == '\r' || c == '\n'; }

bool findElement(std::string_view xml, std::string_view tag, size_t from, Element& out) {
    for (size_t pos = xml.find('<', from); pos != npos; pos = xml.find('<', pos + 1)) {
        if (xml.compare(pos + 1, tag.size(), tag) != 0 || pos + 1 + tag.size() >= xml.size() ||
            !isNameEnd(xml[pos + 1 + tag.size()]))
            continue;
        size_t gt = xml.find('>', pos);
        if (gt == npos) return false;
        out.startTag = xml.substr(pos, gt - pos + 1);
        if (xml[gt - 1] == '/') {
            out.content = xml.substr(gt + 1, 0);
            out.end = gt + 1;
            return true;
        }
        // Closing tag "</tag>"; elements of these documents do not nest in themselves.
        for (size_t close = xml.find("</", gt); close != npos; close = xml.find("</", close + 2)) {
            if (xml.compare(close + 2, tag.size(), tag) == 0 && close + 2 + tag.size() < xml.size() &&
                xml[close + 2 + tag.size()] == '>') {
                out.content = xml.substr(gt + 1, close - gt - 1);
                out.end = close + 3 + tag.size();
                return true;
            }
        }
        return false;
    }
    return false;
}

bool attribute(std::string_view startTag, std::string_view name, std::string_view& value) {
    for (size_t pos = startTag.find(name); pos != npos; pos = startTag.find(name, pos + 1)) {
        if (pos == 0 || (startTag[pos - 1] != ' ' && startTag[pos - 1] != '\t' && startTag[pos - 1] != '\n' &&
                         startTag[pos - 1] != '\r'))
            continue;
        size_t p = pos + name.size();
        while (p < startTag.size() && startTag[p] == ' ') ++p;
        if (p >= startTag.size() || startTag[p] != '=') continue;
        ++p;
        while (p < startTag.size() && startTag[p] == ' ') ++p;
        if (p >= startTag.size() || (startTag[p] != '\'' && startTag[p] != '"')) return false;
        size_t close = startTag.find(startTag[p], p + 1);
        if (close == npos) return false;
        value = startTag.substr(p + 1, close - p - 1);
        return true;
    }
    return false;
}

struct SystemValue {
    std::string_view key;
    std::string_view element;
    std::string_view attribute;  // empty: the element's text
};

constexpr SystemValue kSystemValues[] = {
    {"EventCode", "EventID", ""},         {"LogName", "Channel", ""},
    {"ComputerName", "Computer", ""},     {"SourceName", "Provider", "Name"},
    {"RecordNumber", "EventRecordID", ""}, {"Keywords", "Keywords", ""},
    {"TaskCategory", "Task", ""},         {"OpCode", "Opcode", ""},
    {"Type", "Level", ""},                {"EventType", "Level", ""},
    {"Sid", "Security", "UserID"},        {"User", "Security", "UserID"},
};

bool elementValue(std::string_view scope, std::string_view tag, std::string_view attr, std::string_view& value) {
    Element e;
    if (!findElement(scope, tag, 0, e)) return false;
    if (attr.empty()) {
        value = e.content;
        return true;
    }
    return attribute(e.startTag, attr, value);
}

// The first line of `message` that reads "<label>:" after its indentation; the
// value is the rest of the line without the blanks around it.
bool messageLineValue(std::string_view message, std::string_view label, std::string_view& value) {
    constexpr std::string_view blanks = " \t\r";
    for (size_t lineStart = 0; lineStart < message.size();) {
        size_t lineEnd = message.find('\n', lineStart);
        std::string_view line = message.substr(lineStart, lineEnd == npos ? npos : lineEnd - lineStart);
        size_t begin = line.find_first_not_of(blanks);
        if (begin != npos && line.compare(begin, label.size(), label) == 0 && line.size() > begin + label.size() &&
            line[begin + label.size()] == ':') {
            line.remove_prefix(begin + label.size() + 1);
            const size_t first = std::min(line.find_first_not_of(blanks), line.size());
            line.remove_prefix(first);
            value = line.substr(0, line.find_last_not_of(blanks) + 1);
            return true;
        }
        if (lineEnd == npos) break;
        lineStart = lineEnd + 1;
    }
    return false;
}

bool classicField(std::string_view text, std::string_view key, std::string_view& value) {
    size_t lineStart = 0;
    while (lineStart < text.size()) {
        size_t lineEnd = text.find('\n', lineStart);
        std::string_view line = text.substr(lineStart, lineEnd == npos ? npos : lineEnd - lineStart);
        bool isMessage = line.compare(0, 8, "Message=") == 0;
        if (line.size() > key.size() && line[key.size()] == '=' && line.compare(0, key.size(), key) == 0) {
            value = isMessage ? trimLineEnd(text.substr(lineStart + 8)) : trimLineEnd(line.substr(key.size() + 1));
            return true;
        }
        if (isMessage || lineEnd == npos) return false;  // the rest is message body
        lineStart = lineEnd + 1;
    }
    return false;
}

bool xmlMessage(std::string_view xml, std::string_view& value) {
    Element info;
    return findElement(xml, "RenderingInfo", 0, info) && elementValue(info.content, "Message", "", value);
}

bool eventDataValue(std::string_view xml, std::string_view name, std::string_view& value) {
    Element data;
    if (!findElement(xml, "EventData", 0, data)) return false;
    Element item;
    for (size_t from = 0; findElement(data.content, "Data", from, item); from = item.end) {
        std::string_view itemName;
        if (attribute(item.startTag, "Name", itemName) && itemName == name) {
            value = item.content;
            return true;
        }
    }
    return false;
}

}  // namespace

bool lookupMessageValue(std::string_view message, std::string_view key, std::string_view& value) {
    if (key == "Message") {
        value = message;
        return true;
    }
    return key == kObjectTypeKey && messageLineValue(message, key, value);
}

bool lookupClassicValue(std::string_view text, std::string_view key, std::string_view& value) {
    if (key == kObjectTypeKey) {
        std::string_view message;
        return classicField(text, "Message", message) && messageLineValue(message, key, value);
    }
    return classicField(text, key, value);
}

bool lookupXmlValue(std::string_view xml, std::string_view key, std::string_view& value) {
    if (key.compare(0, 9, "$XmlRegex") == 0) {
        value = xml;
        return true;
    }
    if (key == "Message") return xmlMessage(xml, value);
    if (key == kObjectTypeKey) {
        std::string_view message;
        return eventDataValue(xml, "ObjectType", value) ||
               (xmlMessage(xml, message) && messageLineValue(message, key, value));
    }
    for (const SystemValue& s : kSystemValues) {
        if (s.key != key) continue;
        Element system;
        return findElement(xml, "System", 0, system) && elementValue(system.content, s.element, s.attribute, value);
    }
    if (eventDataValue(xml, key, value)) return true;
    Element user;
    return findElement(xml, "UserData", 0, user) && elementValue(user.content, key, "", value);
}

}  // namespace skorva
