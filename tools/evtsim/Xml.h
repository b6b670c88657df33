#pragma once
// A small non-validating XML reader for event records, bookmarks and provider
// files. It keeps each element's byte span so callers can copy an element's
// original text, and decodes entity and character references.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace evtsim {

struct XmlAttr {
    std::string name;
    std::string value;
};

struct XmlNode {
    std::string name;  // qualified name as written
    std::vector<XmlAttr> attrs;
    std::string text;  // character data directly inside this element
    std::vector<XmlNode> children;
    size_t begin = 0;  // span of the element in the source, end exclusive
    size_t end = 0;

    // Lookups compare local names (the part after a namespace prefix).
    const std::string* attr(std::string_view localName) const;
    const XmlNode* child(std::string_view localName) const;
    std::string_view localName() const;
};

// Parses a document: `doc` receives the top-level elements as children.
// Returns false with a short reason on malformed input.
bool parseXml(std::string_view text, XmlNode& doc, std::string* error = nullptr);

// Writes an element as the event log service renders XML: attributes in single
// quotes, no white space between elements, no comments, CDATA sections or
// processing instructions, and an element without content closed in its start tag.
void appendCanonical(std::string& out, const XmlNode& element);

// Escapes &, <, > (and ' and " when `attribute` is set).
void appendEscaped(std::string& out, std::string_view text, bool attribute);
void appendEscaped(std::wstring& out, std::wstring_view text, bool attribute);

}  // namespace evtsim
