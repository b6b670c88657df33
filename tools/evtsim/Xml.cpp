#include "Xml.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>

namespace evtsim {

static std::string_view localOf(std::string_view name) {
    size_t colon = name.find(':');
    return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

std::string_view XmlNode::localName() const { return localOf(name); }

const std::string* XmlNode::attr(std::string_view localName) const {
    for (const auto& a : attrs)
        if (localOf(a.name) == localName) return &a.value;
    return nullptr;
}

const XmlNode* XmlNode::child(std::string_view localName) const {
    for (const auto& c : children)
        if (c.localName() == localName) return &c;
    return nullptr;
}

namespace {

void appendUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

class Parser {
public:
    explicit Parser(std::string_view s) : s_(s) {}

    // `doc` may hold an earlier parse: its nodes and strings are written over,
    // so that parsing one event after another allocates nothing once the
    // shapes repeat. A failed parse leaves `doc` empty.
    bool document(XmlNode& doc, std::string* error) {
        doc.name.clear();
        doc.attrs.clear();
        doc.text.clear();
        doc.begin = 0;
        size_t count = 0;
        while (true) {
            skipMisc();
            if (failed_) break;
            if (pos_ >= s_.size()) break;
            if (s_[pos_] != '<') {
                fail("text outside the root element");
                break;
            }
            if (!element(nextNode(doc.children, count), 0)) break;
        }
        doc.children.resize(count);
        if (!failed_ && doc.children.empty()) fail("no element");
        if (failed_) {
            doc = XmlNode{};
            if (error) *error = error_ + " at offset " + std::to_string(pos_);
        }
        doc.end = s_.size();
        return !failed_;
    }

private:
    bool fail(const char* why) {
        if (!failed_) {
            failed_ = true;
            error_ = why;
        }
        return false;
    }
    static bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
    static bool isNameChar(char c) {
        return !(isSpace(c) || c == '<' || c == '>' || c == '/' || c == '=' || c == '"' || c == '\'' || c == '&');
    }
    bool startsWith(std::string_view p) const { return s_.substr(pos_, p.size()) == p; }
    void skipSpace() {
        while (pos_ < s_.size() && isSpace(s_[pos_])) ++pos_;
    }
    bool skipPast(std::string_view end) {
        size_t e = s_.find(end, pos_);
        if (e == std::string_view::npos) return fail("unterminated markup");
        pos_ = e + end.size();
        return true;
    }
    // Comments, processing instructions, a declaration and white space between elements.
    void skipMisc() {
        while (!failed_) {
            skipSpace();
            if (startsWith("<?")) {
                skipPast("?>");
            } else if (startsWith("<!--")) {
                skipPast("-->");
            } else if (startsWith("<!DOCTYPE")) {
                skipPast(">");
            } else {
                break;
            }
        }
    }
    bool name(std::string_view& out) {
        size_t start = pos_;
        while (pos_ < s_.size() && isNameChar(s_[pos_])) ++pos_;
        if (pos_ == start) return fail("name expected");
        out = s_.substr(start, pos_ - start);
        return true;
    }
    bool name(std::string& out) {
        std::string_view view;
        if (!name(view)) return false;
        out.assign(view);
        return true;
    }
    bool reference(std::string& out) {
        size_t semi = s_.find(';', pos_);
        if (semi == std::string_view::npos || semi - pos_ > 12) return fail("bad reference");
        std::string_view ref = s_.substr(pos_ + 1, semi - pos_ - 1);
        pos_ = semi + 1;
        if (ref == "lt") out += '<';
        else if (ref == "gt") out += '>';
        else if (ref == "amp") out += '&';
        else if (ref == "apos") out += '\'';
        else if (ref == "quot") out += '"';
        else if (!ref.empty() && ref[0] == '#') {
            bool hex = ref.size() > 1 && (ref[1] == 'x' || ref[1] == 'X');
            std::string digits(ref.substr(hex ? 2 : 1));
            if (digits.empty()) return fail("bad character reference");
            char* end = nullptr;
            unsigned long cp = std::strtoul(digits.c_str(), &end, hex ? 16 : 10);
            if (*end != '\0' || cp == 0 || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
                return fail("bad character reference");
            appendUtf8(out, static_cast<uint32_t>(cp));
        } else {
            return fail("unknown entity");
        }
        return true;
    }
    bool attrValue(std::string& out) {
        if (pos_ >= s_.size() || (s_[pos_] != '"' && s_[pos_] != '\'')) return fail("quoted value expected");
        char q = s_[pos_++];
        while (pos_ < s_.size() && s_[pos_] != q) {
            char c = s_[pos_];
            if (c == '<') return fail("'<' in attribute value");
            if (c == '&') {
                if (!reference(out)) return false;
            } else {
                // The run up to the next quote, markup or reference in one piece.
                size_t next = pos_ + 1;
                while (next < s_.size() && s_[next] != q && s_[next] != '<' && s_[next] != '&') ++next;
                out.append(s_.substr(pos_, next - pos_));
                pos_ = next;
            }
        }
        if (pos_ >= s_.size()) return fail("unterminated attribute value");
        ++pos_;
        return true;
    }
    // The next of `nodes` to write over, made when there is none left.
    template <class T>
    static T& nextNode(std::vector<T>& nodes, size_t& used) {
        if (used == nodes.size()) nodes.emplace_back();
        return nodes[used++];
    }
    bool element(XmlNode& node, int depth) {
        if (depth > 256) return fail("nesting too deep");
        node.begin = pos_;
        node.text.clear();
        ++pos_;  // '<'
        if (!name(node.name)) return false;
        size_t attrs = 0, children = 0;
        const auto finish = [&] {
            node.attrs.resize(attrs);
            node.children.resize(children);
            node.end = pos_;
            return true;
        };
        while (true) {
            skipSpace();
            if (pos_ >= s_.size()) return fail("unterminated start tag");
            if (s_[pos_] == '/') {
                if (!startsWith("/>")) return fail("'/>' expected");
                pos_ += 2;
                return finish();
            }
            if (s_[pos_] == '>') {
                ++pos_;
                break;
            }
            XmlAttr& a = nextNode(node.attrs, attrs);
            if (!name(a.name)) return false;
            skipSpace();
            if (pos_ >= s_.size() || s_[pos_] != '=') return fail("'=' expected");
            ++pos_;
            skipSpace();
            a.value.clear();
            if (!attrValue(a.value)) return false;
        }
        // Content.
        while (true) {
            if (pos_ >= s_.size()) return fail("unterminated element");
            char c = s_[pos_];
            if (c == '<') {
                if (startsWith("</")) {
                    pos_ += 2;
                    std::string_view closing;
                    if (!name(closing)) return false;
                    if (closing != node.name) return fail("mismatched end tag");
                    skipSpace();
                    if (pos_ >= s_.size() || s_[pos_] != '>') return fail("'>' expected");
                    ++pos_;
                    return finish();
                }
                if (startsWith("<!--")) {
                    if (!skipPast("-->")) return false;
                } else if (startsWith("<![CDATA[")) {
                    size_t start = pos_ + 9;
                    size_t e = s_.find("]]>", start);
                    if (e == std::string_view::npos) return fail("unterminated CDATA");
                    node.text.append(s_.substr(start, e - start));
                    pos_ = e + 3;
                } else if (startsWith("<?")) {
                    if (!skipPast("?>")) return false;
                } else {
                    if (!element(nextNode(node.children, children), depth + 1)) return false;
                }
            } else if (c == '&') {
                if (!reference(node.text)) return false;
            } else {
                size_t next = s_.find_first_of("<&", pos_);
                if (next == std::string_view::npos) next = s_.size();
                node.text.append(s_.substr(pos_, next - pos_));
                pos_ = next;
            }
        }
    }

    std::string_view s_;
    size_t pos_ = 0;
    bool failed_ = false;
    std::string error_;
};

}  // namespace

bool parseXml(std::string_view text, XmlNode& doc, std::string* error) {
    Parser p(text);
    return p.document(doc, error);
}

template <class Str, class View>
static void escapeAppend(Str& out, View text, bool attribute) {
    using Ch = typename Str::value_type;
    auto put = [&out](const char* lit) {
        for (; *lit; ++lit) out += static_cast<Ch>(*lit);
    };
    for (Ch c : text) {
        switch (c) {
        case '&': put("&amp;"); break;
        case '<': put("&lt;"); break;
        case '>': put("&gt;"); break;
        case '\'': if (attribute) put("&apos;"); else out += c; break;
        case '"': if (attribute) put("&quot;"); else out += c; break;
        case '\t': case '\n': if (attribute) put(c == '\t' ? "&#x9;" : "&#xA;"); else out += c; break;
        default:
            // Other control characters (CR included, which parsers would fold) as references.
            if (static_cast<unsigned>(c) < 0x20) {
                const char* digits = "0123456789ABCDEF";
                put("&#x");
                if (c >= 0x10) out += static_cast<Ch>(digits[c >> 4]);
                out += static_cast<Ch>(digits[c & 0xF]);
                out += static_cast<Ch>(';');
            } else {
                out += c;
            }
        }
    }
}

void appendEscaped(std::string& out, std::string_view text, bool attribute) { escapeAppend(out, text, attribute); }

void appendCanonical(std::string& out, const XmlNode& e) {
    out += '<';
    out += e.name;
    for (const auto& a : e.attrs) {
        out += ' ';
        out += a.name;
        out += "='";
        appendEscaped(out, a.value, true);
        out += '\'';
    }
    // White space beside child elements, or inside an element of the schema that
    // only ever holds elements, is layout.
    static const std::string_view kContainers[] = {"Event", "System", "EventData", "UserData", "RenderingInfo", "Keywords"};
    const bool blank = e.text.find_first_not_of(" \t\r\n") == std::string::npos;
    const bool layout = blank && (!e.children.empty() || std::find(std::begin(kContainers), std::end(kContainers),
                                                                    e.localName()) != std::end(kContainers));
    if (e.children.empty() && (e.text.empty() || layout)) {
        out += "/>";
        return;
    }
    out += '>';
    if (!layout) appendEscaped(out, e.text, false);
    for (const auto& c : e.children) appendCanonical(out, c);
    out += "</";
    out += e.name;
    out += '>';
}

void appendEscaped(std::wstring& out, std::wstring_view text, bool attribute) { escapeAppend(out, text, attribute); }

}  // namespace evtsim
