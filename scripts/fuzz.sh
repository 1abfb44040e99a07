#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) and runs each for a bounded time, as many
# at once as there are build jobs (TARVO_JOBS, default 2).
#   scripts/fuzz.sh [seconds-per-target]   (default 60)
# The seed corpora in fuzz/corpus are copied, never written to; crashes land in build-fuzz/crashes.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}

scripts/install-deps.sh fuzz
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVO_FUZZ=ON >/dev/null
cmake --build build-fuzz -j2

mkdir -p build-fuzz/crashes
rm -f build-fuzz/fuzz_*.status
# One target per core at a time; each writes its own log, read once all have finished.
fuzz_target() {
  local target=$1 corpus status=0
  corpus=$(mktemp -d /tmp/tarvo-corpus.XXXXXX)
  cp fuzz/corpus/"$target"/* "$corpus"/
  ASAN_OPTIONS="detect_leaks=1:${ASAN_OPTIONS:-}" UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1" \
    build-fuzz/fuzz/fuzz_"$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
    -max_len=65536 -print_final_stats=1 -artifact_prefix="$(pwd)/build-fuzz/crashes/$target-" \
    "$corpus" >build-fuzz/fuzz_"$target".log 2>&1 || status=$?
  echo "$status" >build-fuzz/fuzz_"$target".status
  rm -rf "$corpus"
}
targets=(login_answer credentials_cache request business_answer base64 invoice_file simulator_request)
jobs=${TARVO_JOBS:-2}
for target in "${targets[@]}"; do
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
  echo "== fuzz_$target for ${seconds}s"
  fuzz_target "$target" &
done
wait

status=0
for target in "${targets[@]}"; do
  if [ "$(cat build-fuzz/fuzz_"$target".status)" != 0 ]; then
    echo "fuzz_$target FAILED:"; tail -n 60 build-fuzz/fuzz_"$target".log
    status=1
  else
    echo "fuzz_$target:" $(grep -E "^stat::number_of_executed_units|^Done" build-fuzz/fuzz_"$target".log)
  fi
done
exit $status
