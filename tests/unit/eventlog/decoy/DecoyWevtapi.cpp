// A wevtapi.dll (or Wecapi, Netapi32, Ntdsapi) placed beside the test executable. It must never be the library
// the loader resolves: it exports only a marker, so picking it up is visible.
#include <windows.h>

extern "C" __declspec(dllexport) int SkorvaDecoyMarker() { return 1; }
