#include "platform/XmlTokenizer.h"

#include <expat.h>

#include <climits>
#include <utility>

#include "platform/SkorvaException.h"

namespace skorva {

XmlTokenizer::XmlTokenizer() : parser_(XML_ParserCreate("UTF-8")) {
    if (!parser_) throw SkorvaException("Unable to create the XML parser");
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(parser_, &XmlTokenizer::startHandler, &XmlTokenizer::endHandler);
    XML_SetCharacterDataHandler(parser_, &XmlTokenizer::textHandler);
}

XmlTokenizer::~XmlTokenizer() { XML_ParserFree(parser_); }

template <class Step>
void XmlTokenizer::guarded(Step step) noexcept {
    if (pending_) return;  // Expat may still call after it was stopped
    try {
        step();
    } catch (...) {
        pending_ = std::current_exception();
        XML_StopParser(parser_, XML_FALSE);
    }
}

void XmlTokenizer::startHandler(void* self, const char* name, const char** attrs) {
    auto* t = static_cast<XmlTokenizer*>(self);
    t->guarded([&] {
        t->onElementStart(name);
        for (const char** a = attrs; a && a[0]; a += 2) {
            t->onAttributeName(a[0]);
            t->onAttributeValue(a[1]);
        }
    });
}

void XmlTokenizer::endHandler(void* self, const char* name) {
    auto* t = static_cast<XmlTokenizer*>(self);
    t->guarded([&] { t->onElementEnd(name); });
}

void XmlTokenizer::textHandler(void* self, const char* text, int len) {
    auto* t = static_cast<XmlTokenizer*>(self);
    t->guarded([&] { t->onCharacterData(std::string_view(text, static_cast<size_t>(len))); });
}

void XmlTokenizer::feed(const char* data, size_t size, bool last) {
    if (finished_) return;
    // Expat takes int lengths: feed very large pieces in slices.
    do {
        int n = size > static_cast<size_t>(INT_MAX / 2) ? INT_MAX / 2 : static_cast<int>(size);
        bool final = last && static_cast<size_t>(n) == size;
        if (XML_Parse(parser_, data, n, final ? 1 : 0) == XML_STATUS_ERROR) {
            finished_ = true;
            if (pending_) std::rethrow_exception(std::exchange(pending_, nullptr));
            throw SkorvaException("XML parse error at line %lu, column %lu: %s",
                                  static_cast<unsigned long>(XML_GetCurrentLineNumber(parser_)),
                                  static_cast<unsigned long>(XML_GetCurrentColumnNumber(parser_) + 1),
                                  XML_ErrorString(XML_GetErrorCode(parser_)));
        }
        data += n;
        size -= static_cast<size_t>(n);
    } while (size > 0);
    if (last) finished_ = true;
}

}  // namespace skorva
