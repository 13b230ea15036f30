#!/usr/bin/env bash
# The checks of ./run test beyond the two ctest runs, each on its own build and directory:
#   ThreadSanitizer over 16 threads of mixed reads and writes,
#   the server tests under valgrind memcheck (no errors, no bytes lost in our code),
#   every libFuzzer target for a few seconds (QORLDAP_FUZZ_SECONDS, default 5).
set -euo pipefail
cd "$(dirname "$0")/.."
step() { printf '\n==> %s\n' "$*"; }

step "threads under ThreadSanitizer"
tests/stress/run_tsan.sh
step "the server tests under valgrind memcheck"
tests/memcheck/run_memcheck.sh
step "fuzzing each target for ${QORLDAP_FUZZ_SECONDS:-5} s"
tests/fuzz/run_fuzz.sh "${QORLDAP_FUZZ_SECONDS:-5}"
