#pragma once
// Owner of one publisher-metadata handle. Neither copied nor moved: it lives in
// place in the channel's publisher cache and is closed exactly once, there.

#include "eventlog/EvtApi.h"
#include "platform/Logger.h"

namespace skorva {

class WinEventMetadataHandle {
public:
    explicit WinEventMetadataHandle(EVT_HANDLE handle) noexcept : handle_(handle) {}
    ~WinEventMetadataHandle() {
        LOG_DEBUG("in WinEventMetadataHandle destructor");
        if (handle_.valid()) {
            LOG_DEBUG("WinEventMetadataHandle was valid, closing handle.");
            handle_.reset();
        }
    }
    WinEventMetadataHandle(const WinEventMetadataHandle&) = delete;
    WinEventMetadataHandle& operator=(const WinEventMetadataHandle&) = delete;

    EVT_HANDLE get() const noexcept { return handle_.get(); }
    bool valid() const noexcept { return handle_.valid(); }

private:
    UniqueEvtHandle handle_;
};

}  // namespace skorva
