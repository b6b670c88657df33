#pragma once
// The collector's subscriptions as a text file: <store>\collector\subscriptions.txt.
// The folder <store>\collector stands for the running collector service: without
// it every call that needs the service fails as a stopped Wecsvc does.

#include "Ecsim.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ecsim {

enum class ValueType { Boolean, UInt32, String };

// One subscription-level property the stand-in keeps, with its documented variant
// type (EC_SUBSCRIPTION_PROPERTY_ID remarks) and its key in the file.
struct PropertyDef {
    EC_SUBSCRIPTION_PROPERTY_ID id;
    const char* key;  // the identifier without "EcSubscription"
    ValueType type;
};
const PropertyDef* findProperty(EC_SUBSCRIPTION_PROPERTY_ID id);
const PropertyDef* findProperty(std::string_view key);  // ignoring case
// The key of any identifier (for fault targets and messages), or its number.
std::string propertyKey(EC_SUBSCRIPTION_PROPERTY_ID id);

struct Value {
    ValueType type = ValueType::String;
    uint32_t number = 0;  // Boolean (0/1) and UInt32
    std::wstring text;    // String
};

struct EventSource {
    std::wstring address;
    bool enabled = true;
};

struct Subscription {
    std::wstring name;
    std::vector<std::pair<EC_SUBSCRIPTION_PROPERTY_ID, Value>> properties;  // the ones set
    std::vector<EventSource> sources;

    const Value* get(EC_SUBSCRIPTION_PROPERTY_ID id) const;
    void set(EC_SUBSCRIPTION_PROPERTY_ID id, const Value& v);
    void clear(EC_SUBSCRIPTION_PROPERTY_ID id);
    bool enabled() const;
};

// Text of the file <-> subscriptions; parse fails with the reason on the first bad line.
bool parseSubscriptions(std::string_view text, std::vector<Subscription>& out, std::string* error);
std::string formatSubscriptions(const std::vector<Subscription>& subs);

std::wstring collectorDir();  // "" without a store
bool collectorRunning();
// 0, RPC_S_SERVER_UNAVAILABLE without the collector, ERROR_INVALID_DATA for a file
// that does not parse. A missing file is a collector with no subscriptions.
DWORD loadSubscriptions(std::vector<Subscription>& out);
// Replaces the file (write, then rename); 0 or the error.
DWORD saveSubscriptions(const std::vector<Subscription>& subs);

// Subscription and source names compare without case, as the registry keys that
// hold them on Windows do.
bool sameName(std::wstring_view a, std::wstring_view b);
Subscription* findSubscription(std::vector<Subscription>& subs, std::wstring_view name);

// 0, ERROR_FILE_NOT_FOUND, or another failure of reading.
DWORD readWholeFile(const std::wstring& path, std::string& out);

std::wstring toWide(std::string_view utf8);
std::string toUtf8(std::wstring_view wide);

}  // namespace ecsim
