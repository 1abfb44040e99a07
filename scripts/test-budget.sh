#!/usr/bin/env bash
# Fails when the tests (tests/ and fuzz/) grow past 35 % of the rest of the code, counted as the
# project counts it: non-blank lines of C, C++, Python and shell in the files git tracks.
set -euo pipefail
cd "$(dirname "$0")/.."
count() { git ls-files -- "$@" | grep -E '\.(c|cc|cpp|cxx|h|hh|hpp|py|sh)$' | xargs -r cat | grep -c -v -E '^\s*$' || true; }
tests=$(count tests fuzz)
code=$(($(count .) - tests))
echo "test lines: $tests, other code lines: $code, tests = $((100 * tests / code))% of the code (budget 35%, aim 25-33%)"
if [ $((100 * tests)) -gt $((35 * code)) ]; then
  echo "test-budget: over the budget: merge cases into tables, drop tests that kill no mutant of their own" >&2
  exit 1
fi
