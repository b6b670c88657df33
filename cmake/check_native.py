#!/usr/bin/python3
"""Compiles the text logic that needs no Windows service with the host compiler.

    check_native.py SRC_DIR [CXX]

These units include no Windows header, so they also build natively on Linux
(sanitizers, fuzzing); this fails when one of them stops doing so.
"""
import os
import pathlib
import shutil
import subprocess
import sys

UNITS = [
    "platform/Strings.cpp",                 # UTF-16/UTF-8
    "platform/XmlTokenizer.cpp",            # the configuration reader's tokenizer
    "modinput/ConfigXmlStreamingParser.cpp",
    "modinput/StreamEscape.cpp",            # stream writer escaping
    "config/StanzaValues.cpp",
    "filter/FilterParser.cpp",
    "filter/FilterSet.cpp",
    "filter/EventTextLookup.cpp",
    "checkpoint/WELCheckPointBaseText.cpp",  # checkpoint strings
    "directory/SidScanner.cpp",
    "directory/AdTokenScanner.cpp",         # directory-object tokens
]


def main():
    src = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "src")
    cxx = sys.argv[2] if len(sys.argv) > 2 else os.environ.get("CXX_NATIVE") or shutil.which("c++")
    if not cxx:
        print("no host C++ compiler (c++) found")
        return 1
    failed = 0
    for unit in UNITS:
        cmd = [cxx, "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-I", str(src), str(src / unit)]
        proc = subprocess.run(cmd, capture_output=True, text=True)
        if proc.returncode != 0:
            failed += 1
            print(f"{unit}: does not build natively\n{proc.stderr}")
    if failed:
        return 1
    print(f"{len(UNITS)} text units build natively with {cxx}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
