#!/usr/bin/env bash
# Builds the test suite without sanitizers (Debug) and runs every C++ test under valgrind
# memcheck. Any memory error or definite leak in the library or the tests fails the run; the
# programs the tests start (simulator, tinyproxy) run natively. The Python tests of the programs
# (label "programs") are left out: valgrind would watch the interpreter.
#   scripts/valgrind-tests.sh [extra ctest arguments]   build directory: $BUILD_DIR (default build-valgrind)
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$(pwd)
build_dir=${BUILD_DIR:-build-valgrind}

scripts/install-deps.sh tests memcheck
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=Debug -DTARVO_SANITIZE=OFF -DTARVO_FUZZ=OFF \
  -DTARVO_BUILD_TESTS=ON -DTARVO_BUILD_TOOLS=ON >/dev/null
cmake --build "$build_dir" -j2
build_dir=$(cd "$build_dir" && pwd)

# Still-reachable and possibly-lost blocks (the dynamic loader's, OpenSSL's) are not errors.
options="--leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite --error-exitcode=99"
options+=" --num-callers=40 --trace-children=no --child-silent-after-fork=yes"

# ctest -T memcheck takes its settings from this file; written afresh so nothing stale applies.
cat >"$build_dir/DartConfiguration.tcl" <<EOF
SourceDirectory: $source_dir
BuildDirectory: $build_dir
MemoryCheckCommand: $(command -v valgrind)
MemoryCheckCommandOptions: $options
EOF

cd "$build_dir"
rm -f Testing/Temporary/MemoryChecker.*.log
status=0
# Under valgrind a test runs 20 to 50 times slower; the longest take about 90 s here.
ctest -T memcheck -LE programs -j2 --timeout 900 --output-on-failure "$@" || status=$?

# valgrind writes its reports to files: show every one that found something.
for log in Testing/Temporary/MemoryChecker.*.log; do
  [ -e "$log" ] || continue
  if grep -qE "ERROR SUMMARY: [1-9]|definitely lost: [1-9]" "$log"; then
    echo "== $log"
    cat "$log"
    status=1
  fi
done
exit $status
