#include "CheckpointTestSupport.h"

#include <atomic>
#include <vector>

#include "platform/Handles.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace skorva::test {

TempDir::TempDir() {
    static std::atomic<unsigned> counter{0};
    wchar_t base[MAX_PATH + 1];
    const DWORD n = ::GetTempPathW(MAX_PATH + 1, base);
    path_ = std::wstring(base, n) + L"ckpt-test-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
            std::to_wstring(counter++);
    std::vector<std::string> ignored;
    if (pathExists(path_)) removeRecursive(path_, ignored);
    EXPECT_TRUE(createDirectories(path_));
}

TempDir::~TempDir() {
    std::vector<std::string> ignored;
    removeRecursive(path_, ignored);
}

void writeRaw(const std::wstring& path, const std::string& content) {
    UniqueHandle h(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(h.valid());
    DWORD written = 0;
    ASSERT_TRUE(::WriteFile(h.get(), content.data(), static_cast<DWORD>(content.size()), &written, nullptr));
}

std::string readRaw(const std::wstring& path) {
    std::string out;
    readFile(path, out);
    return out;
}

bool exists(const std::wstring& path) { return pathExists(path); }

std::vector<std::wstring> listMatching(const std::wstring& dir, const std::wstring& prefix) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW fd;
    HANDLE find = ::FindFirstFileW((dir + L"\\*").c_str(), &fd);
    if (find == INVALID_HANDLE_VALUE) return names;
    do {
        std::wstring name = fd.cFileName;
        if (name.rfind(prefix, 0) == 0) names.push_back(name);
    } while (::FindNextFileW(find, &fd));
    ::FindClose(find);
    return names;
}

std::string bookmarkXml(const std::string& channel, uint64_t recordId) {
    return "<BookmarkList>\r\n  <Bookmark Channel='" + channel + "' RecordId='" + std::to_string(recordId) +
           "' IsCurrent='true'/>\r\n</BookmarkList>";
}

namespace {

struct FakeObject {
    bool isBookmark = false;
    std::wstring channel;
    uint64_t recordId = 0;  // 0: a bookmark never updated
};

std::atomic<int> gLive{0};
std::atomic<int> gRenders{0};

EVT_HANDLE newObject(FakeObject o) {
    ++gLive;
    return reinterpret_cast<EVT_HANDLE>(new FakeObject(std::move(o)));
}

FakeObject* object(EVT_HANDLE h) { return reinterpret_cast<FakeObject*>(h); }

EVT_HANDLE WINAPI fakeCreateBookmark(LPCWSTR text) {
    if (FakeBookmarkApi::failCreate) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    FakeObject o;
    o.isBookmark = true;
    if (text) {
        // Accepts the service's own rendering, on one line or several.
        const std::wstring t = text;
        const size_t ch = t.find(L"Channel='"), rec = t.find(L"RecordId='");
        if (t.rfind(L"<BookmarkList", 0) != 0 || ch == std::wstring::npos || rec == std::wstring::npos) {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return nullptr;
        }
        o.channel = t.substr(ch + 9, t.find(L'\'', ch + 9) - ch - 9);
        o.recordId = _wcstoui64(t.c_str() + rec + 10, nullptr, 10);
    }
    return newObject(std::move(o));
}

BOOL WINAPI fakeUpdateBookmark(EVT_HANDLE bookmark, EVT_HANDLE event) {
    if (FakeBookmarkApi::failUpdate || !bookmark || !event || !object(bookmark)->isBookmark) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    object(bookmark)->channel = object(event)->channel;
    object(bookmark)->recordId = object(event)->recordId;
    return TRUE;
}

BOOL WINAPI fakeRender(EVT_HANDLE context, EVT_HANDLE fragment, DWORD flags, DWORD bufferSize, PVOID buffer,
                       PDWORD used, PDWORD count) {
    ++gRenders;
    if (FakeBookmarkApi::failRender || context || flags != EvtRenderBookmark || !fragment ||
        !object(fragment)->isBookmark) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const FakeObject& o = *object(fragment);
    const std::wstring text = o.recordId == 0 ? L"<BookmarkList>\r\n</BookmarkList>"
                                              : widen(bookmarkXml(narrow(o.channel), o.recordId));
    const DWORD need = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
    *used = need;
    *count = 0;
    if (bufferSize < need || !buffer) {
        ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    memcpy(buffer, text.c_str(), need);
    return TRUE;
}

BOOL WINAPI fakeClose(EVT_HANDLE h) {
    if (!h) return FALSE;
    --gLive;
    delete object(h);
    return TRUE;
}

}  // namespace

bool FakeBookmarkApi::failCreate = false;
bool FakeBookmarkApi::failUpdate = false;
bool FakeBookmarkApi::failRender = false;

FakeBookmarkApi::FakeBookmarkApi() : saved_(apiTable().evt) {
    failCreate = failUpdate = failRender = false;
    gLive = 0;
    gRenders = 0;
    EvtApi fake;
    fake.EvtCreateBookmark = fakeCreateBookmark;
    fake.EvtUpdateBookmark = fakeUpdateBookmark;
    fake.EvtRender = fakeRender;
    fake.EvtClose = fakeClose;
    apiTable().evt = fake;
}

FakeBookmarkApi::~FakeBookmarkApi() { apiTable().evt = saved_; }

UniqueEvtHandle FakeBookmarkApi::makeEvent(const std::wstring& channel, uint64_t recordId) {
    FakeObject o;
    o.channel = channel;
    o.recordId = recordId;
    return UniqueEvtHandle(newObject(std::move(o)));
}

int FakeBookmarkApi::liveHandles() { return gLive; }
int FakeBookmarkApi::renders() { return gRenders; }

}  // namespace skorva::test
