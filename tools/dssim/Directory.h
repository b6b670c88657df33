#pragma once
// What the simulated domain controllers know, as read from a folder's directory.txt
// (format in README.md): the controllers, the schema GUIDs with their display
// names, and the objects with their GUIDs, SIDs and names.

#include <windows.h>

#include <string>
#include <string_view>
#include <vector>

namespace dssim {

struct DomainController {
    std::wstring name;      // DNS name: DC01.corp.example.test
    std::wstring flatName;  // DC01
    std::wstring address;   // IP address; empty when it has none
    std::wstring site, clientSite;
    std::wstring domain, flatDomain, forest;
    GUID domainGuid{};
    bool closest = false;
    bool pdc = false;
    bool gc = true;
    bool available = true;  // false: found by the locator, but nothing can bind to it
};

struct SchemaEntry {
    GUID guid{};
    DWORD type = 0;  // DS_SCHEMA_GUID_ATTR, _ATTR_SET, _CLASS or _CONTROL_RIGHT
    std::wstring name;
};

struct DirectoryObject {
    GUID guid{};
    bool hasGuid = false;
    std::vector<std::string> sids;  // binary SIDs: the object's own, then its SID history
    std::wstring dn;
    std::wstring account;  // DOMAIN\name; empty when it has none
    std::wstring domain;   // DNS domain it lives in
};

struct Directory {
    std::vector<DomainController> dcs;
    std::vector<SchemaEntry> schema;
    std::vector<DirectoryObject> objects;

    // By DNS or flat name, without case, with or without leading backslashes.
    const DomainController* controllerNamed(std::wstring_view name) const;
    const SchemaEntry* schemaEntry(const GUID& guid) const;
};

// False with the line number and the reason in `error`.
bool parseDirectory(std::string_view text, Directory& out, std::string& error);

// The DNS domain of a distinguished name: its DC= parts joined by dots.
std::wstring domainOfDn(std::wstring_view dn);
// The canonical name (DS_CANONICAL_NAME, or DS_CANONICAL_NAME_EX when `extended`)
// of a distinguished name; false when it has no DC= parts.
bool canonicalName(std::wstring_view dn, bool extended, std::wstring& out);

}  // namespace dssim
