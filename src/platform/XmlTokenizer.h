#pragma once
// Event-driven XML tokenizer over Expat, fed in pieces. Subclasses receive, in
// document order: element start, then one attribute-name / attribute-value pair
// per attribute, character data (possibly split over several calls), element end.
// A malformed document raises SkorvaException naming the line and column; an
// exception from a subclass stops the parser and is raised from feed() once
// Expat has returned (never thrown through its C frames).

#include <exception>
#include <string>
#include <string_view>

struct XML_ParserStruct;

namespace skorva {

class XmlTokenizer {
public:
    XmlTokenizer();
    virtual ~XmlTokenizer();
    XmlTokenizer(const XmlTokenizer&) = delete;
    XmlTokenizer& operator=(const XmlTokenizer&) = delete;

    // Feeds the next piece; `last` marks the end of the document.
    void feed(const char* data, size_t size, bool last = false);
    void finish() { feed("", 0, true); }

protected:
    virtual void onElementStart(std::string_view name) = 0;
    virtual void onElementEnd(std::string_view name) = 0;
    virtual void onAttributeName(std::string_view name) = 0;
    virtual void onAttributeValue(std::string_view value) = 0;
    virtual void onCharacterData(std::string_view data) = 0;

private:
    static void startHandler(void* self, const char* name, const char** attrs);
    static void endHandler(void* self, const char* name);
    static void textHandler(void* self, const char* text, int len);
    // Runs one callback; an exception it raises stops the parser and is kept.
    template <class Step>
    void guarded(Step step) noexcept;

    XML_ParserStruct* parser_;
    std::exception_ptr pending_;
    bool finished_ = false;
};

}  // namespace skorva
