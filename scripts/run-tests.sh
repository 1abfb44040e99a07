#!/usr/bin/env bash
# Installs what is missing, builds the library, its tools and tests, and runs the test suite.
#   scripts/run-tests.sh             normal build in build/
#   scripts/run-tests.sh --sanitize  AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=build
cmake_options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
case "${1:-}" in
  "") ;;
  --sanitize)
    build_dir=build-asan
    cmake_options=(-DCMAKE_BUILD_TYPE=Debug -DTARVO_SANITIZE=ON)
    export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:${ASAN_OPTIONS:-}"
    export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
    ;;
  *) echo "usage: $0 [--sanitize]" >&2; exit 2 ;;
esac

scripts/install-deps.sh tests
cmake -S . -B "$build_dir" "${cmake_options[@]}" >/dev/null
cmake --build "$build_dir" -j2
cd "$build_dir"
ctest --output-on-failure -j2 --timeout 300
