#pragma once
// The simulated event collector inside a unit test (link ecsim_static): a private
// store under %TEMP% made the process's store for the test's life, with its
// collector folder (the running service) unless told otherwise, the subscriptions
// file when given and fault rules (see tools/ecsim/README.md).

#include <gtest/gtest.h>

#include <string>

#include "Ecsim.h"
#include "TempFolder.h"

namespace skorva::test {

class EcsimStore {
public:
    explicit EcsimStore(const std::string& subscriptions = "", const char* faults = "", bool running = true) {
        if (running) ::CreateDirectoryW((folder_.path() + L"\\collector").c_str(), nullptr);
        if (!subscriptions.empty()) write(subscriptions);
        ecsim::setStoreRoot(folder_.path());
        EXPECT_TRUE(ecsim::setFaults(faults));
    }
    ~EcsimStore() {
        ecsim::clearFaults();
        ecsim::setStoreRoot(L"");
    }
    EcsimStore(const EcsimStore&) = delete;
    EcsimStore& operator=(const EcsimStore&) = delete;

    void write(const std::string& subscriptions) {
        EXPECT_TRUE(writeFile(folder_.path() + L"\\collector\\subscriptions.txt", subscriptions));
    }

private:
    TempFolder folder_{L"ecsim"};
};

}  // namespace skorva::test
