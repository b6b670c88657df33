#pragma once
// A private collector store for one test, and small readers over the entry points.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Ecsim.h"
#include "TempFolder.h"

namespace ecsim_test {

// A fresh store under %TEMP%, made the process's store; `running` makes the
// collector folder (the running service).
class CollectorStore {
public:
    explicit CollectorStore(bool running = true) {
        if (running) CreateDirectoryW((folder_.path() + L"\\collector").c_str(), nullptr);
        ecsim::setStoreRoot(folder_.path());
        ecsim::setFaults("");
    }
    ~CollectorStore() {
        ecsim::clearFaults();
        ecsim::setStoreRoot(L"");
    }
    CollectorStore(const CollectorStore&) = delete;
    CollectorStore& operator=(const CollectorStore&) = delete;

    void write(const std::wstring& file, const std::string& text) {
        HANDLE h = CreateFileW((folder_.path() + L"\\collector\\" + file).c_str(), GENERIC_WRITE, 0, nullptr,
                               CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        ASSERT_NE(INVALID_HANDLE_VALUE, h);
        DWORD written = 0;
        WriteFile(h, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
        CloseHandle(h);
    }
    void subscriptions(const std::string& text) { write(L"subscriptions.txt", text); }

private:
    skorva::test::TempFolder folder_{L"ecsim"};
};

// Three subscriptions as the collector check meets them.
inline const char* kThree =
    "[Forwarded-Rendered]\nEnabled = true\nContentFormat = RenderedText\nLogFile = ForwardedEvents\n"
    "EventSource = dc1.example.com\nEventSource = dc2.example.com (disabled)\n"
    "[Raw-Into-Security-Archive-With-A-Long-Name]\nEnabled = false\nContentFormat = Events\nLogFile = Archive\n"
    "[B]\nEnabled = true\nContentFormat = 7\nLogFile = ForwardedEvents\n";

// Closes an ecsim handle when it goes.
struct Handle {
    explicit Handle(EC_HANDLE handle = nullptr) : h(handle) {}
    ~Handle() {
        if (h) ecsim::EcClose(h);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    EC_HANDLE h;
};

// Every name of an enumeration, through the two-call size protocol.
inline std::vector<std::wstring> enumerate(EC_HANDLE en) {
    std::vector<std::wstring> names;
    std::wstring buf;
    DWORD used = 0;
    while (true) {
        if (ecsim::EcEnumNextSubscription(en, static_cast<DWORD>(buf.size()), buf.empty() ? nullptr : buf.data(),
                                          &used)) {
            names.emplace_back(buf.c_str());
        } else if (GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
            buf.assign(used, L'\0');
        } else {
            return names;
        }
    }
}

// A property through the size protocol; the bytes, the variant at their start.
inline std::vector<BYTE> property(EC_HANDLE sub, EC_SUBSCRIPTION_PROPERTY_ID id) {
    DWORD used = 0;
    EXPECT_FALSE(ecsim::EcGetSubscriptionProperty(sub, id, 0, 0, nullptr, &used));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER), GetLastError());
    std::vector<BYTE> buf(used);
    EXPECT_TRUE(ecsim::EcGetSubscriptionProperty(sub, id, 0, used, reinterpret_cast<PEC_VARIANT>(buf.data()), &used));
    return buf;
}

}  // namespace ecsim_test
