#!/usr/bin/env bash
# Runs the integration tests N times with `ctest -j2` while another process
# keeps one core busy, and prints every failure with its output. Races at
# start-up and stop show up here long before they show up in CI.
# Usage: scripts/stress.sh N [BUILD_DIR] [CTEST_LABEL]   (default: build integration)
set -uo pipefail
cd "$(dirname "$0")/.."
runs=${1:?usage: stress.sh N [BUILD_DIR] [CTEST_LABEL]}
build=${2:-build}
label=${3:-integration}
[ -d "$build" ] || { echo "stress: no build directory $build" >&2; exit 2; }

# The load: a busy loop, stopped on any exit.
bash -c 'while :; do :; done' &
load=$!
trap 'kill $load 2>/dev/null' EXIT

failed=0
for ((i = 1; i <= runs; i++)); do
  if out=$(ctest --test-dir "$build" -j2 -L "$label" --output-on-failure --timeout 300 2>&1); then
    echo "run $i of $runs: ok"
  else
    failed=$((failed + 1))
    printf '==== run %d of %d failed ====\n%s\n' "$i" "$runs" \
      "$(printf '%s\n' "$out" | grep -v '^ *Start \|Passed')"
  fi
done
echo "stress: $((runs - failed)) passed, $failed failed ($runs runs of ctest -L $label in $build)"
[ $failed -eq 0 ]
