#!/bin/sh
# run-native.sh SOURCE_DIR BUILD_DIR [RUNS]
# Builds the text logic natively with clang under AddressSanitizer and
# UndefinedBehaviorSanitizer (tests/fuzz), runs its unit tests, then each fuzz
# target for RUNS executions (default 100000) over a copy of its seed corpus.
set -eu
src=$1 build=$2 runs=${3:-100000}
export CC=clang CXX=clang++ ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1
cmake -S "$src/tests/fuzz" -B "$build" -G Ninja >/dev/null
cmake --build "$build" -j "${JOBS:-2}" >/dev/null
"$build/native_unit_tests" --gtest_brief=1
for target in config filter checkpoint stream tokens utf16 evtrecord; do
  corpus="$build/corpus/$target"
  rm -rf "$corpus" && mkdir -p "$corpus" && cp "$src/tests/fuzz/corpus/$target"/* "$corpus/"
  "$build/fuzz_$target" -runs="$runs" -max_len=16384 "$corpus" >"$build/fuzz_$target.log" 2>&1 || {
    tail -n 40 "$build/fuzz_$target.log"; echo "fuzz_$target: failed (input kept in $build)"; exit 1; }
  echo "fuzz_$target: $(grep -o 'Done [0-9]* runs in [0-9]* second(s)' "$build/fuzz_$target.log")"
done
