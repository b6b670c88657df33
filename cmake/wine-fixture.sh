#!/bin/sh
# wine-fixture.sh start PREFIX EVTSIM_DLL [DLL...] | stop PREFIX
# start: creates the test prefix when missing, installs the simulated event log
# as System32\wevtapi.dll and the further DLLs (the other stand-ins, message
# files) in System32 under their own names, and leaves one persistent wineserver
# running.
set -u
cmd=$1 prefix=$2
export WINEPREFIX="$prefix" WINEARCH=win64 WINEDEBUG=-all
unset DISPLAY WAYLAND_DISPLAY
wine=/usr/lib/wine/wine64 server=/usr/lib/wine/wineserver
case "$cmd" in
start)
  dll=$3
  if [ ! -f "$prefix/system.reg" ]; then
    mkdir -p "$prefix"
    WINEDLLOVERRIDES="mscoree,mshtml=" "$wine" wineboot -i </dev/null >/dev/null 2>&1
    "$server" -w
  fi
  cp "$dll" "$prefix/drive_c/windows/system32/wevtapi.dll" || exit 1
  shift 3
  for extra in "$@"; do cp "$extra" "$prefix/drive_c/windows/system32/" || exit 1; done
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
  WINEDLLOVERRIDES="wevtapi=n" "$wine" cmd /c exit </dev/null >/dev/null 2>&1
  exit $? ;;
stop)
  "$server" -k >/dev/null 2>&1
  exit 0 ;;
esac
echo "usage: wine-fixture.sh start PREFIX DLL [DLL...] | stop PREFIX" >&2
exit 2
