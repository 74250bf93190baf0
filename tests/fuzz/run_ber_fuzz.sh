#!/usr/bin/env bash
# Runs the BER fuzz target for a bounded time, seeded with the bundle's DER
# certificates and the captured LDAP messages in tests/data/ber.
# Usage: run_ber_fuzz.sh FUZZER SOURCE-DIR WORK-DIR SECONDS
set -euo pipefail
fuzzer=$1 src=$2 work=$3 seconds=$4

rm -rf "$work"
mkdir -p "$work/corpus" "$work/seeds" "$work/artifacts"
"$src/scripts/ber-fixtures.sh" "$work/fixtures" >/dev/null
cp "$work"/fixtures/certs/*.der "$work/seeds/"
cp "$src"/tests/data/ber/*.ber "$work/seeds/"

# Leaks and undefined behaviour are failures as well as crashes.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
exec "$fuzzer" -max_total_time="$seconds" -max_len=8192 -timeout=10 -rss_limit_mb=2048 \
  -print_final_stats=1 -artifact_prefix="$work/artifacts/" "$work/corpus" "$work/seeds"
