#pragma once
// One event log bookmark: owns its handle, follows events, renders itself as
// the service's bookmark XML and is made again from that text. Where the text
// is kept (the checkpoint files) is the checkpoint policy's business.

#include <cstdint>
#include <string>
#include <string_view>

#include "eventlog/EvtApi.h"

namespace skorva {

class Bookmark {
public:
    Bookmark() = default;
    Bookmark(Bookmark&&) noexcept = default;
    Bookmark& operator=(Bookmark&&) noexcept = default;

    // An empty bookmark (EvtCreateBookmark without text); false when none could be made.
    bool create();
    // The bookmark a checkpoint file holds; false when the service does not accept the text.
    bool createFrom(std::string_view text);
    // Moves the bookmark to `event`.
    bool update(EVT_HANDLE event);

    enum class Rendered { Ok, Failed, OutOfMemory };
    // The bookmark XML, narrowed, into `text` (the render buffer is the thread's
    // and reused).
    Rendered render(std::string& text) const;

    EVT_HANDLE get() const noexcept { return handle_.get(); }
    bool valid() const noexcept { return handle_.valid(); }
    explicit operator bool() const noexcept { return valid(); }
    void reset() noexcept { handle_.reset(); }

    // The record a bookmark's text names ("... RecordId='386038' IsCurrent='true'/>"),
    // the current one when it holds several; 0 when it names none.
    static uint64_t recordIdOf(std::string_view text);

private:
    UniqueEvtHandle handle_;
};

}  // namespace skorva
