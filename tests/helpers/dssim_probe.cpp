// Loads Netapi32.dll and Ntdsapi.dll as the product does (a module already loaded
// is taken as it is; otherwise %SystemRoot%\System32\<name> by full path), asks
// them the product's questions and prints what they answered, one key=value a line.
//
//   dssim-probe [--preload]
//
// --preload first loads netapi32.dll by its bare name, as a DLL importing it would,
// so the product's GetModuleHandleW finds that module.
#include <windows.h>
#include <dsgetdc.h>
#include <lmcons.h>
#include <lmapibuf.h>
#include <ntdsapi.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

HMODULE systemModule(const wchar_t* name) {
    if (HMODULE m = GetModuleHandleW(name)) return m;
    wchar_t root[MAX_PATH];
    DWORD n = GetEnvironmentVariableW(L"SystemRoot", root, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) return nullptr;
    std::wstring path = std::wstring(root, n) + L"\\System32\\" + name;
    return LoadLibraryW(path.c_str()) ? GetModuleHandleW(name) : nullptr;
}

template <class T>
bool resolve(HMODULE m, const char* name, T& fn) {
    fn = reinterpret_cast<T>(reinterpret_cast<void*>(GetProcAddress(m, name)));
    if (!fn) std::printf("missing=%s\n", name);
    return fn != nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--preload") == 0 && !LoadLibraryW(L"netapi32.dll")) {
        std::printf("preload=%lu\n", GetLastError());
        return 2;
    }
    HMODULE netapi = systemModule(L"Netapi32.dll"), ntdsapi = systemModule(L"Ntdsapi.dll");
    if (!netapi || !ntdsapi) {
        std::printf("load=%lu\n", GetLastError());
        return 2;
    }
    decltype(&::DsGetDcNameW) getDcName;
    decltype(&::NetApiBufferFree) bufferFree;
    decltype(&::DsBindW) bind;
    decltype(&::DsUnBindW) unbind;
    decltype(&::DsMapSchemaGuidsW) mapGuids;
    decltype(&::DsCrackNamesW) crackNames;
    decltype(&::DsFreeNameResultW) freeNames;
    decltype(&::DsFreeSchemaGuidMapW) freeMap;
    bool all = resolve(netapi, "DsGetDcNameW", getDcName) & resolve(netapi, "NetApiBufferFree", bufferFree) &
               resolve(ntdsapi, "DsBindW", bind) & resolve(ntdsapi, "DsUnBindW", unbind) &
               resolve(ntdsapi, "DsMapSchemaGuidsW", mapGuids) & resolve(ntdsapi, "DsCrackNamesW", crackNames) &
               resolve(ntdsapi, "DsFreeNameResultW", freeNames) & resolve(ntdsapi, "DsFreeSchemaGuidMapW", freeMap);
    if (!all) return 2;

    DOMAIN_CONTROLLER_INFOW* info = nullptr;
    DWORD rc = getDcName(nullptr, nullptr, nullptr, nullptr, DS_DIRECTORY_SERVICE_PREFERRED, &info);
    if (rc == 0) {
        std::printf("dc=%ls\ndc_flags=0x%lx\n", info->DomainControllerName, info->Flags);
        std::printf("free=%lu\n", bufferFree(info));
    } else {
        std::printf("dc_error=%lu\n", rc);
    }
    HANDLE ds = nullptr;
    rc = bind(nullptr, nullptr, &ds);
    std::printf("bind=%lu\n", rc);
    if (rc != 0) return 0;
    GUID userClass = {0xbf967aba, 0x0de6, 0x11d0, {0xa2, 0x85, 0x00, 0xaa, 0x00, 0x30, 0x49, 0xe2}};
    DS_SCHEMA_GUID_MAPW* map = nullptr;
    rc = mapGuids(ds, 1, &userClass, &map);
    if (rc == 0) std::printf("schema=%ls\n", map->pName ? map->pName : L"(null)"), freeMap(map);
    else std::printf("schema_error=%lu\n", rc);
    const wchar_t* object = L"{20983438-8bbc-45b7-9563-9a5fc0cc48ec}";
    DS_NAME_RESULTW* names = nullptr;
    rc = crackNames(ds, DS_NAME_FLAG_EVAL_AT_DC, DS_UNIQUE_ID_NAME, DS_FQDN_1779_NAME, 1, &object, &names);
    if (rc == 0) {
        std::printf("crack=%lu:%ls\n", names->rItems[0].status, names->rItems[0].pName ? names->rItems[0].pName : L"");
        freeNames(names);
    } else {
        std::printf("crack_error=%lu\n", rc);
    }
    std::printf("unbind=%lu\n", unbind(&ds));
    return 0;
}
