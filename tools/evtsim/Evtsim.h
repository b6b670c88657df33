#pragma once
// The simulated event log, in process: the thirteen entry points with the
// signatures of the system's event log library, plus the knobs tests need.

#include <windows.h>
#include <winevt.h>

#include <string>

namespace evtsim {

EVT_HANDLE WINAPI EvtSubscribe(EVT_HANDLE Session, HANDLE SignalEvent, LPCWSTR ChannelPath, LPCWSTR Query,
                               EVT_HANDLE Bookmark, PVOID Context, EVT_SUBSCRIBE_CALLBACK Callback, DWORD Flags);
EVT_HANDLE WINAPI EvtQuery(EVT_HANDLE Session, LPCWSTR Path, LPCWSTR Query, DWORD Flags);
BOOL WINAPI EvtNext(EVT_HANDLE ResultSet, DWORD EventArraySize, EVT_HANDLE* EventArray, DWORD Timeout, DWORD Flags,
                    PDWORD Returned);
BOOL WINAPI EvtRender(EVT_HANDLE Context, EVT_HANDLE Fragment, DWORD Flags, DWORD BufferSize, PVOID Buffer,
                      PDWORD BufferUsed, PDWORD PropertyCount);
BOOL WINAPI EvtClose(EVT_HANDLE Object);
EVT_HANDLE WINAPI EvtCreateRenderContext(DWORD ValuePathsCount, LPCWSTR* ValuePaths, DWORD Flags);
EVT_HANDLE WINAPI EvtOpenPublisherMetadata(EVT_HANDLE Session, LPCWSTR PublisherIdentity, LPCWSTR LogFilePath,
                                           LCID Locale, DWORD Flags);
BOOL WINAPI EvtFormatMessage(EVT_HANDLE PublisherMetadata, EVT_HANDLE Event, DWORD MessageId, DWORD ValueCount,
                             PEVT_VARIANT Values, DWORD Flags, DWORD BufferSize, LPWSTR Buffer, PDWORD BufferUsed);
EVT_HANDLE WINAPI EvtCreateBookmark(LPCWSTR BookmarkXml);
BOOL WINAPI EvtUpdateBookmark(EVT_HANDLE Bookmark, EVT_HANDLE Event);
BOOL WINAPI EvtNextChannelPath(EVT_HANDLE ChannelEnum, DWORD ChannelPathBufferSize, LPWSTR ChannelPathBuffer,
                               PDWORD ChannelPathBufferUsed);
EVT_HANDLE WINAPI EvtOpenChannelEnum(EVT_HANDLE Session, DWORD Flags);
BOOL WINAPI EvtSeek(EVT_HANDLE ResultSet, LONGLONG Position, EVT_HANDLE Bookmark, DWORD Timeout, DWORD Flags);

// The store this process reads; an empty root means EVTSIM_STORE.
void setStoreRoot(const std::wstring& root);
std::wstring storeRoot();
// Handles handed out and not yet closed (for leak checks in tests).
size_t openHandleCount();
// Bytes of records files held in memory by this process (kept by channel logs or by
// events handed out), for tests that reading stays within bounds.
size_t residentRecordBytes();
// How EvtNext meets a batch over 2 MiB: a short batch, as Windows 11 and later
// answer, or RPC_S_INVALID_BOUND with the records it gathered skipped, as older
// systems do. EVTSIM_BATCH_LIMIT=fail|short chooses it for a process; this call
// overrides the environment.
enum class BatchLimit { FromEnvironment, Short, Fail };
void setBatchLimit(BatchLimit mode);

// Size of the slices channel logs read records files in; 0 restores the default (4 MiB).
// Tests use small slices to cross many of them with few records.
void setSliceBytes(size_t bytes);

}  // namespace evtsim
