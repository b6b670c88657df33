#!/bin/sh
# wine-fixture.sh start PREFIX DLL... | stop PREFIX
# start: creates the test prefix when missing, installs each stand-in DLL (the
# simulated event log's wevtapi.dll, the simulated directory service's netapi32.dll
# and ntdsapi.dll) in System32 under its own name, and leaves one persistent
# wineserver running.
set -u
cmd=$1 prefix=$2
export WINEPREFIX="$prefix" WINEARCH=win64 WINEDEBUG=-all
unset DISPLAY WAYLAND_DISPLAY
wine=/usr/lib/wine/wine64 server=/usr/lib/wine/wineserver
# Wine's own netapi32 serves its msv1_0, net.exe, adsldp and dnsapi, which import
# functions the directory stand-ins do not have: they replace it only for the
# programs that test against them (tools/dssim/README.md, "Under Wine").
directory_apps="skorva-winevtlog.exe dssim-probe.exe"
case "$cmd" in
start)
  shift 2
  if [ ! -f "$prefix/system.reg" ]; then
    mkdir -p "$prefix"
    WINEDLLOVERRIDES="mscoree,mshtml=" "$wine" wineboot -i </dev/null >/dev/null 2>&1
    "$server" -w
  fi
  for dll in "$@"; do
    cp "$dll" "$prefix/drive_c/windows/system32/" || exit 1
  done
  # Non-zero when a server is already up; the warm-up below proves Wine works.
  "$server" -p </dev/null >/dev/null 2>&1
  if [ ! -f "$prefix/.no-crash-debugger" ]; then
    # Without a crash debugger a crashing program ends with a non-zero code
    # (winedbg would end it with 0 and a crash would pass as a success).
    key='HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug'
    "$wine" reg add "$key" /v Debugger /d '' /f </dev/null >/dev/null 2>&1 &&
    "$wine" reg add "$key" /v Auto /d 0 /f </dev/null >/dev/null 2>&1 &&
    touch "$prefix/.no-crash-debugger"
  fi
  overrides="$prefix/.directory-overrides.reg"
  {
    printf 'REGEDIT4\n\n'
    for app in $directory_apps; do
      printf '[HKEY_CURRENT_USER\\Software\\Wine\\AppDefaults\\%s\\DllOverrides]\n' "$app"
      printf '"netapi32"="native"\n"ntdsapi"="native"\n\n'
    done
  } > "$overrides"
  "$wine" regedit /S "Z:$(printf '%s' "$overrides" | tr / '\\')" </dev/null >/dev/null 2>&1 || exit 1
  WINEDLLOVERRIDES="wevtapi=n" "$wine" cmd /c exit </dev/null >/dev/null 2>&1
  exit $? ;;
stop)
  "$server" -k >/dev/null 2>&1
  exit 0 ;;
esac
echo "usage: wine-fixture.sh start PREFIX DLL... | stop PREFIX" >&2
exit 2
