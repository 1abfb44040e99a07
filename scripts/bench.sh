#!/usr/bin/env bash
# Builds the benchmarks (RelWithDebInfo, no sanitizers) and prints a Markdown table comparing
# the library with what a host would otherwise run, each row measured side by side in this run,
# and one of invoicing against the simulator with AFIP's latency (requests a sale, batches, memory).
#   scripts/bench.sh [google benchmark flags]      build directory: $BUILD_DIR (default build-bench)
# TARVO_BENCH_SIMULATOR=PATH runs the simulator rows against another simulator build.
# Google Benchmark's own report goes to $BUILD_DIR/bench.log. Every server is on 127.0.0.1
# and stops by itself.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build-bench}

scripts/install-deps.sh tools bench
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVO_SANITIZE=OFF \
  -DTARVO_BUILD_TESTS=OFF -DTARVO_BUILD_TOOLS=ON -DTARVO_BUILD_BENCH=ON >/dev/null
cmake --build "$build_dir" -j2 --target tarvo_bench tarvo_invoicing_bench >"$build_dir/build.log" 2>&1 ||
  { tail -n 40 "$build_dir/build.log"; exit 1; }

# Load before and after: other builds on the machine make the numbers noisy.
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg) ($(nproc) cores)"
"$build_dir/bench/tarvo_bench" "$@" 2>"$build_dir/bench.log" >"$build_dir/bench-table.md" ||
  { tail -n 40 "$build_dir/bench.log"; exit 1; }
# Invoicing against the simulator answering each WSFEv1 request 100 ms late.
"$build_dir/bench/tarvo_invoicing_bench" >"$build_dir/invoicing-table.md" ||
  { cat "$build_dir/invoicing-table.md"; exit 1; }
echo "load after:  $(cut -d' ' -f1-3 /proc/loadavg)"
echo
cat "$build_dir/bench-table.md"
echo
cat "$build_dir/invoicing-table.md"
