#pragma once
// Deterministic events in realistic shapes for the store tool, tests, benchmarks
// and the sample store.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Store.h"

namespace evtsim {

// The providers the generated events name, with their resources.
std::vector<ProviderDef> generatorProviders();

// `count` events for `channel`: Security, System, Application and ForwardedEvents
// get their own mix; any other channel gets the Application mix. The same seed and
// first index give the same events.
std::vector<std::string> generateEvents(std::string_view channel, size_t count, uint64_t seed, uint64_t firstIndex = 0);

}  // namespace evtsim
