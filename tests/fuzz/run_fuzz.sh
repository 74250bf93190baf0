#!/usr/bin/env bash
# Runs a fuzz target for a bounded time from its seeds: for ber the bundle's
# DER certificates and the captured LDAP messages in tests/data/ber, for http
# the streams of tests/data/http/fuzz-seeds.txt.
# Usage: run_fuzz.sh ber|http FUZZER SOURCE-DIR WORK-DIR SECONDS
set -euo pipefail
kind=$1 fuzzer=$2 src=$3 work=$4 seconds=$5

rm -rf "$work"
mkdir -p "$work/corpus" "$work/seeds" "$work/artifacts"
maxlen=16384
if [ "$kind" = ber ]; then
  maxlen=8192
  "$src/scripts/ber-fixtures.sh" "$work/fixtures" >/dev/null
  cp "$work"/fixtures/certs/*.der "$src"/tests/data/ber/*.ber "$work/seeds/"
else
  n=0
  grep -v '^#' "$src/tests/data/http/fuzz-seeds.txt" | while IFS= read -r seed; do
    printf '%b' "$seed" >"$work/seeds/$((n += 1))"
  done
fi

# Leaks and undefined behaviour are failures as well as crashes.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
exec "$fuzzer" -max_total_time="$seconds" -max_len=$maxlen -timeout=10 -rss_limit_mb=2048 \
  -print_final_stats=1 -artifact_prefix="$work/artifacts/" "$work/corpus" "$work/seeds"
