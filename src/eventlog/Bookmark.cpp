#include "eventlog/Bookmark.h"

#include <algorithm>
#include <vector>

#include "eventlog/BufferGrowth.h"
#include "platform/Strings.h"

namespace skorva {

bool Bookmark::create() {
    const auto make = evtApi().EvtCreateBookmark;
    handle_.reset(make ? make(nullptr) : nullptr);
    return valid();
}

bool Bookmark::createFrom(std::string_view text) {
    const auto make = evtApi().EvtCreateBookmark;
    handle_.reset(make ? make(widen(text).c_str()) : nullptr);
    return valid();
}

bool Bookmark::update(EVT_HANDLE event) {
    const auto move = evtApi().EvtUpdateBookmark;
    return valid() && move && move(handle_.get(), event);
}

Bookmark::Rendered Bookmark::render(std::string& text) const {
    thread_local std::vector<uint8_t> buffer;
    thread_local DWORD capacity = 0;
    const auto renderFn = evtApi().EvtRender;
    if (!renderFn) return Rendered::Failed;
    // The text is NUL-terminated UTF-16: one character more than reported keeps a terminator.
    const SizedCall r = callSized(buffer, capacity, BufferGrowth{1, sizeof(wchar_t)},
                                  [&](uint8_t* data, DWORD size, DWORD& used) {
                                      DWORD count = 0;
                                      return renderFn(nullptr, handle_.get(), EvtRenderBookmark, size, data, &used,
                                                      &count);
                                  });
    if (r.outOfMemory) return Rendered::OutOfMemory;
    if (!r.ok) return Rendered::Failed;
    // Never past the buffer, whatever the service says it used.
    const size_t chars = std::min<size_t>(r.used, buffer.size()) / sizeof(wchar_t);
    std::wstring_view wide(reinterpret_cast<const wchar_t*>(buffer.data()), chars);
    while (!wide.empty() && wide.back() == L'\0') wide.remove_suffix(1);
    narrowInto(wide, text);
    return Rendered::Ok;
}

uint64_t Bookmark::recordIdOf(std::string_view text) {
    static constexpr std::string_view kKey = "RecordId='";
    uint64_t id = 0;
    for (size_t at = text.find(kKey); at != std::string_view::npos; at = text.find(kKey, at + 1)) {
        uint64_t value = 0;
        for (size_t i = at + kKey.size(); i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
            value = value * 10 + static_cast<uint64_t>(text[i] - '0');
        const size_t end = text.find("/>", at);
        const std::string_view entry = text.substr(at, end == std::string_view::npos ? text.npos : end - at);
        if (id == 0 || entry.find("IsCurrent='true'") != std::string_view::npos) id = value;
    }
    return id;
}

}  // namespace skorva
