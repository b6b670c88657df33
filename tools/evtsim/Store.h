#pragma once
// The file-backed store: one folder per channel holding its description and one
// append-only file of framed records, one XML file per provider, and an optional
// fault file. Writers serialise on a lock file; readers take no lock and only ever
// serve frames whose trailer is on disk.

#include <windows.h>

#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace evtsim {

struct ChannelMeta {
    std::string name;
    uint64_t incarnation = 0;   // changes when a channel is deleted and made again
    uint64_t generation = 0;    // counts clears; names the records file
    uint64_t nextRecordId = 1;  // survives clears
};

// Frame: "EVR1 " + 20-digit record id + " " + 10-digit payload length + "\n",
// the UTF-8 event XML, then the commit trailer "\nEVRC\n".
constexpr size_t kFrameHeaderSize = 37;
constexpr std::string_view kFrameTrailer = "\nEVRC\n";

struct FrameRef {
    uint64_t recordId;
    size_t payloadOffset;
    uint32_t payloadSize;
};

// Whole pages straight from the system, given back when freed. Readers take and
// drop slices of records files all the time, in sizes of their own; taken from the
// heap those blocks would leave it more fragmented with every slice.
template <class T>
struct PageAllocator {
    using value_type = T;
    PageAllocator() = default;
    template <class U>
    PageAllocator(const PageAllocator<U>&) {}
    T* allocate(size_t n) {
        void* p = VirtualAlloc(nullptr, n * sizeof(T), MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
        if (!p) throw std::bad_alloc();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, size_t) { VirtualFree(p, 0, MEM_RELEASE); }
    template <class U>
    bool operator==(const PageAllocator<U>&) const { return true; }
};
using FrameList = std::vector<FrameRef, PageAllocator<FrameRef>>;

// Complete frames at the start of `data`; returns the bytes they span. `partial`
// tells whether bytes follow that do not (yet) form a complete frame; `corrupt`
// whether those bytes can never become one.
size_t scanFrames(std::string_view data, FrameList& out, bool& partial, bool& corrupt);
void appendFrame(std::string& out, uint64_t recordId, std::string_view xml);

std::wstring storeRootFromEnvironment();  // EVTSIM_STORE, empty when unset
std::wstring channelsDir(const std::wstring& root);
std::wstring channelDir(const std::wstring& root, std::string_view name);

std::wstring recordsPath(const std::wstring& channelDir, const ChannelMeta& meta);
std::wstring providerPath(const std::wstring& root, std::string_view name);

bool readChannelMeta(const std::wstring& channelDir, ChannelMeta& meta);
// Names (as stored) of every channel, sorted case-insensitively.
std::vector<std::string> listChannels(const std::wstring& root);

// Closes a file handle (INVALID_HANDLE_VALUE when none) at the end of its scope.
struct FileCloser {
    explicit FileCloser(HANDLE handle) : h(handle) {}
    ~FileCloser() {
        if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
    }
    FileCloser(const FileCloser&) = delete;
    FileCloser& operator=(const FileCloser&) = delete;
    HANDLE h;
};

bool readWholeFile(const std::wstring& path, std::string& out);

// One value of an event's data as the provider's template declares it: its type
// (an EVT_VARIANT_TYPE) and whether it is an array, which in the event XML is a run
// of data elements of the same name.
struct TemplateItem {
    std::string name;
    DWORD type = 1;  // EvtVarTypeString
    bool array = false;
};

// Provider resources as read from providers/<name>.xml.
struct ProviderDef {
    std::string name;
    std::string guid;
    std::string displayName;     // empty: no publisher message
    // 0 when the resources are installed; otherwise the error every format request
    // gives: ERROR_EVT_MESSAGE_LOCALE_NOT_FOUND (none for the current locale),
    // ERROR_MUI_FILE_NOT_FOUND (resource file missing) or ERROR_RESOURCE_LANG_NOT_FOUND.
    DWORD missingResources = 0;
    std::map<uint32_t, std::string> levels, opcodes, tasks, events, strings;
    std::vector<std::pair<uint64_t, std::string>> keywords;
    std::map<std::string, std::string> channels;  // channel name -> display text
    std::map<uint32_t, std::vector<TemplateItem>> templates;  // by event id
};
bool loadProvider(const std::wstring& root, std::string_view name, ProviderDef& def);
std::string providerXml(const ProviderDef& def);
// The provider as last read from the store, shared by all callers; the file is read
// again when it changed. Null when the store has no file for it.
std::shared_ptr<const ProviderDef> cachedProvider(const std::wstring& root, std::string_view name);

// The values of an event's data (EventData/Data or the leaves of UserData, in order)
// as `items` declares them: each value covers `count` elements from `first`. Without
// a template, or past its end, every element is one string.
struct DataValue {
    DWORD type;
    bool array;
    size_t first, count;
};
struct XmlNode;
void bindTemplate(const std::vector<const XmlNode*>& data, const std::vector<TemplateItem>* items,
                  std::vector<DataValue>& out);
// The manifest's input type names (win:UInt32 ...) and the variant types they give.
DWORD variantTypeOf(std::string_view inType);
const char* inTypeName(DWORD variantType);

// Changes to the store, serialised across processes by <root>\.lock.
class StoreWriter {
public:
    explicit StoreWriter(std::wstring root) : root_(std::move(root)) {}
    const std::wstring& root() const { return root_; }

    bool createChannel(std::string_view name, std::string& error);
    bool deleteChannel(std::string_view name, std::string& error);
    bool clearChannel(std::string_view name, std::string& error);
    // Appends events (each one <Event> element as UTF-8 text), giving each the next
    // record id (EventRecordID is written into the text; Channel when missing).
    // `holdMs` > 0 writes the last frame in two halves with a pause between, for
    // tests that a half-written record is never served.
    bool append(std::string_view name, const std::vector<std::string>& events, std::string& error,
                uint64_t* firstId = nullptr, DWORD holdMs = 0);
    bool writeProvider(const ProviderDef& def, std::string& error);
    bool writeFaults(std::string_view text, std::string& error);

private:
    std::wstring root_;
};

// One event as stored: EventRecordID set (and Channel added when absent), in the
// canonical form of the service's XML rendering.
bool prepareEvent(std::string_view xml, uint64_t recordId, std::string_view channel, std::string& out,
                  std::string& error);

}  // namespace evtsim
