// The DLL's entry points: the system library's names and signatures (checked by
// the compiler against <winevt.h>), each handing over to the simulation.
#include <windows.h>
#include <winevt.h>

#include "Evtsim.h"

extern "C" {

EVT_HANDLE WINAPI EvtSubscribe(EVT_HANDLE Session, HANDLE SignalEvent, LPCWSTR ChannelPath, LPCWSTR Query,
                               EVT_HANDLE Bookmark, PVOID context, EVT_SUBSCRIBE_CALLBACK Callback, DWORD Flags) {
    return evtsim::EvtSubscribe(Session, SignalEvent, ChannelPath, Query, Bookmark, context, Callback, Flags);
}
EVT_HANDLE WINAPI EvtQuery(EVT_HANDLE Session, LPCWSTR Path, LPCWSTR Query, DWORD Flags) {
    return evtsim::EvtQuery(Session, Path, Query, Flags);
}
WINBOOL WINAPI EvtNext(EVT_HANDLE ResultSet, DWORD EventArraySize, EVT_HANDLE* EventArray, DWORD Timeout, DWORD Flags,
                       PDWORD Returned) {
    return evtsim::EvtNext(ResultSet, EventArraySize, EventArray, Timeout, Flags, Returned);
}
WINBOOL WINAPI EvtRender(EVT_HANDLE Context, EVT_HANDLE Fragment, DWORD Flags, DWORD BufferSize, PVOID Buffer,
                         PDWORD BufferUsed, PDWORD PropertyCount) {
    return evtsim::EvtRender(Context, Fragment, Flags, BufferSize, Buffer, BufferUsed, PropertyCount);
}
WINBOOL WINAPI EvtClose(EVT_HANDLE Object) { return evtsim::EvtClose(Object); }
EVT_HANDLE WINAPI EvtCreateRenderContext(DWORD ValuePathsCount, LPCWSTR* ValuePaths, DWORD Flags) {
    return evtsim::EvtCreateRenderContext(ValuePathsCount, ValuePaths, Flags);
}
EVT_HANDLE WINAPI EvtOpenPublisherMetadata(EVT_HANDLE Session, LPCWSTR PublisherIdentity, LPCWSTR LogFilePath,
                                           LCID Locale, DWORD Flags) {
    return evtsim::EvtOpenPublisherMetadata(Session, PublisherIdentity, LogFilePath, Locale, Flags);
}
WINBOOL WINAPI EvtFormatMessage(EVT_HANDLE PublisherMetadata, EVT_HANDLE Event, DWORD MessageId, DWORD ValueCount,
                                PEVT_VARIANT Values, DWORD Flags, DWORD BufferSize, LPWSTR Buffer, PDWORD BufferUsed) {
    return evtsim::EvtFormatMessage(PublisherMetadata, Event, MessageId, ValueCount, Values, Flags, BufferSize, Buffer,
                                    BufferUsed);
}
EVT_HANDLE WINAPI EvtCreateBookmark(LPCWSTR BookmarkXml) { return evtsim::EvtCreateBookmark(BookmarkXml); }
WINBOOL WINAPI EvtUpdateBookmark(EVT_HANDLE Bookmark, EVT_HANDLE Event) { return evtsim::EvtUpdateBookmark(Bookmark, Event); }
WINBOOL WINAPI EvtNextChannelPath(EVT_HANDLE ChannelEnum, DWORD ChannelPathBufferSize, LPWSTR ChannelPathBuffer,
                                  PDWORD ChannelPathBufferUsed) {
    return evtsim::EvtNextChannelPath(ChannelEnum, ChannelPathBufferSize, ChannelPathBuffer, ChannelPathBufferUsed);
}
EVT_HANDLE WINAPI EvtOpenChannelEnum(EVT_HANDLE Session, DWORD Flags) { return evtsim::EvtOpenChannelEnum(Session, Flags); }
WINBOOL WINAPI EvtSeek(EVT_HANDLE ResultSet, LONGLONG Position, EVT_HANDLE Bookmark, DWORD Timeout, DWORD Flags) {
    return evtsim::EvtSeek(ResultSet, Position, Bookmark, Timeout, Flags);
}

}  // extern "C"
