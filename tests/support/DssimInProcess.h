#pragma once
// The simulated directory service inside a unit test: DssimDirectory makes a private
// directory folder for the test's life and points the process's directory entry
// points (apiTable().ds) at dssim.
//
//   skorva::test::DssimDirectory dir;          // no controllers, no objects yet
//   dir.useSample();                           // examples/store/directory
//   dir.write("[dc]\nname = DC01.corp.example.test\ndomain = corp.example.test\n");
//   dir.setFaults("StaleHandle=6,from=2,times=1");
//   dssim::counters().calls[dssim::kDsCrackNamesW]

#include <string>

#include "Dssim.h"
#include "TempFolder.h"

namespace skorva::test {

// Fills apiTable().ds with dssim's eight functions.
void installDssimApi();

class DssimDirectory {
public:
    DssimDirectory();   // throws std::runtime_error on failure
    ~DssimDirectory();  // forgets faults, detaches dssim, removes the folder
    DssimDirectory(const DssimDirectory&) = delete;
    DssimDirectory& operator=(const DssimDirectory&) = delete;

    const std::wstring& root() const { return folder_.path(); }
    // Replaces directory.txt (format in tools/dssim/README.md); throws on failure.
    void write(const std::string& text);
    // The sample directory of the demo store.
    void useSample();
    // Fault rules for this process (see tools/dssim/README.md); "" removes them.
    void setFaults(const std::string& rules);

private:
    TempFolder folder_;
};

}  // namespace skorva::test
