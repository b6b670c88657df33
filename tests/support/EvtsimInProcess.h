#pragma once
// The simulated event log inside a unit test: installEvtsimApi() points the
// process's event log entry points (apiTable().evt) at evtsim, and EvtsimStore
// makes a private store for the test's life.
//
//   skorva::test::EvtsimStore store;          // also installs the entry points
//   store.createChannel("Application");
//   evtsim::EventSpec e;  e.eventId = 42;  e.data = {{"Name", "value"}};
//   uint64_t id = store.append("Application", e);
//   store.setFaults("EvtNext:Application=15007,once");

#include <cstdint>
#include <string>
#include <vector>

#include "EventBuilder.h"  // evtsim::EventSpec, evtsim::buildEventXml
#include "Evtsim.h"
#include "Store.h"         // evtsim::ProviderDef
#include "TempFolder.h"

namespace skorva::test {

// Fills apiTable().evt with evtsim's thirteen functions.
void installEvtsimApi();
// Fills apiTable().legacy with evtsim's legacy face (the change notification is
// the system's own: evtsim has none).
void installEvtsimLegacyApi();

class EvtsimStore {
public:
    EvtsimStore();   // a fresh folder under %TEMP%; throws std::runtime_error on failure
    ~EvtsimStore();  // forgets faults, detaches evtsim, removes the folder
    EvtsimStore(const EvtsimStore&) = delete;
    EvtsimStore& operator=(const EvtsimStore&) = delete;

    const std::wstring& root() const { return root_; }

    // Each throws std::runtime_error on failure.
    void createChannel(const std::string& name);
    void clearChannel(const std::string& name);
    void deleteChannel(const std::string& name);
    // Returns the record id given to the (first) event.
    uint64_t append(const std::string& channel, const evtsim::EventSpec& event);
    uint64_t appendXml(const std::string& channel, const std::string& eventXml);
    uint64_t appendAll(const std::string& channel, const std::vector<std::string>& eventXml);
    // Generated events in realistic shapes (with their providers); returns the first id.
    uint64_t generate(const std::string& channel, size_t count, uint64_t seed = 1);
    void addProvider(const evtsim::ProviderDef& provider);
    void addGeneratorProviders();
    // Fault rules for this process (see tools/evtsim/README.md); "" removes them.
    void setFaults(const std::string& rules);

private:
    TempFolder folder_;
    std::wstring root_;
};

}  // namespace skorva::test
