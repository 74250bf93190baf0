#!/usr/bin/env bash
# Checks the sources' format and runs clang-tidy over the library (which also
# checks the lock annotations), then builds and runs every test three ways: a
# normal build, an ASan+UBSan build, and a TSan build of the concurrency
# tests; then the fuzz targets for a bounded time, and the Windows
# cross-build's unit tests and echo site under Wine. Exits non-zero on the
# first failure.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh test

jobs=$(nproc)
stage() { printf '\n==== %s ====\n' "$*"; }

configure() {  # dir, extra cmake args...
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DSF_TESTS=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

stage "format (clang-format)"
unformatted=$(git ls-files -- '*.c' '*.cc' '*.cpp' '*.h' '*.hpp' |
  xargs clang-format --dry-run -Werror 2>&1 | sed -n 's/^\([^:]*\):[0-9]*:[0-9]*: error: .*/\1/p' |
  sort -u || true)
if [ -n "$unformatted" ]; then
  printf 'not formatted as .clang-format says (clang-format -i FILE...):\n%s\n' "$unformatted" >&2
  exit 1
fi

stage "clang-tidy over sf/, host/ and tools/ (.clang-tidy)"
cmake -S . -B build -G Ninja -DSF_TESTS=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSF_BENCH=ON >/dev/null
if ! run-clang-tidy -quiet -p build -j "$jobs" "^$PWD/(sf|host|tools)/" >build/tidy.log 2>&1; then
  grep -A3 -E '(warning|error): ' build/tidy.log >&2
  exit 1
fi

stage "normal build"
configure build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSF_BENCH=ON
ctest --test-dir build -j "$jobs" --output-on-failure --timeout 300

stage "ASan + UBSan build"
configure build-asan -DCMAKE_BUILD_TYPE=Debug -DSF_SANITIZE=address,undefined
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan -j "$jobs" --output-on-failure --timeout 600 -LE no-sanitizer

stage "TSan build (concurrency tests)"
configure build-tsan -DCMAKE_BUILD_TYPE=Debug -DSF_SANITIZE=thread
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/tsan.supp" \
  ctest --test-dir build-tsan -j "$jobs" --output-on-failure --timeout 600 -L concurrency

if [ -f tests/fuzz/CMakeLists.txt ]; then
  stage "fuzz targets (clang, ASan + UBSan, bounded)"
  CC=clang CXX=clang++ configure build-fuzz -DCMAKE_BUILD_TYPE=Debug -DSF_FUZZ=ON \
    -DSF_SANITIZE=address,undefined
  ctest --test-dir build-fuzz --output-on-failure --timeout 900 -L fuzz
fi

stage "Windows build (mingw-w64) under Wine: unit tests and the echo site"
scripts/build-windows.sh --test
tests/windows/echo_site.sh build-win

# Test code against library code, non-blank lines (kept at most 0.35).
count() {
  git ls-files -- "$@" | grep -E '\.(c|cc|cpp|h|hpp|tcl|py|sh)$' | xargs cat | grep -cv '^[[:space:]]*$'
}
tests=$(count tests) library=$(count sf host tools)
stage "test code: $tests lines, library: $library lines, ratio $(awk "BEGIN { printf \"%.2f\", $tests / $library }")"
