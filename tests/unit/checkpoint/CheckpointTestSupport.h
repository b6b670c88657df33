#pragma once
// A temporary directory per test, and a small stand-in for the bookmark entry
// points (create, update, render, close) that counts the handles it hands out
// so tests can prove none leak.

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "channel/EvtApi.h"

namespace skorva::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::wstring& path() const { return path_; }
    std::wstring file(const std::wstring& name) const { return path_ + L"\\" + name; }

private:
    std::wstring path_;
};

void writeRaw(const std::wstring& path, const std::string& content);
std::string readRaw(const std::wstring& path);
bool exists(const std::wstring& path);
// Names of the entries of `dir` that begin with `prefix`.
std::vector<std::wstring> listMatching(const std::wstring& dir, const std::wstring& prefix);

// The bookmark text the event log service renders for `recordId` on `channel`.
std::string bookmarkXml(const std::string& channel, uint64_t recordId);

// Installs the fake bookmark entry points for its lifetime.
class FakeBookmarkApi {
public:
    FakeBookmarkApi();
    ~FakeBookmarkApi();
    FakeBookmarkApi(const FakeBookmarkApi&) = delete;
    FakeBookmarkApi& operator=(const FakeBookmarkApi&) = delete;

    // An event of `channel` with `recordId`, owned by the caller.
    UniqueEvtHandle makeEvent(const std::wstring& channel, uint64_t recordId);
    static int liveHandles();
    static int renders();
    static bool failCreate, failUpdate, failRender;

private:
    EvtApi saved_;
};

}  // namespace skorva::test
