#!/usr/bin/env bash
# Plants one fault as a temporary edit, rebuilds, runs the tests and names
# every test that caught it; the file is restored however the run ends. A
# fault nobody catches is a missing test; a test that catches nothing another
# test does not is a candidate for folding. The build is rebuilt from the
# restored file afterwards.
# Usage: scripts/plant-fault.sh FILE PERL-SUBSTITUTION [BUILD_DIR] [CTEST_ARGS...]
#   e.g. scripts/plant-fault.sh sf/work/msgq.cpp 's/next == head/next == tail/'
# The default tests are all but the integration ones: add `-R integration.x`
# or `-L integration` for a fault only a whole process shows.
set -uo pipefail
cd "$(dirname "$0")/.."
file=${1:?usage: plant-fault.sh FILE PERL-SUBSTITUTION [BUILD_DIR] [CTEST_ARGS...]}
subst=${2:?usage: plant-fault.sh FILE PERL-SUBSTITUTION [BUILD_DIR] [CTEST_ARGS...]}
build=${3:-build}
shift $(($# < 3 ? $# : 3))
[ $# -gt 0 ] || set -- -LE integration
saved=$(mktemp)
cp "$file" "$saved"
trap 'cp "$saved" "$file"; rm -f "$saved"; cmake --build "$build" -j2 >/dev/null' EXIT
perl -0pi -e "$subst" "$file"
cmp -s "$file" "$saved" && { echo "plant-fault: the substitution changed nothing" >&2; exit 2; }
cmake --build "$build" -j2 >/dev/null || { echo "plant-fault: the fault does not build" >&2; exit 2; }
caught=$(ctest --test-dir "$build" -j2 --timeout 300 "$@" 2>&1 |
  sed -n 's/^[[:space:]]*[0-9]* - \(.*\) (\(Failed\|Timeout\|Subprocess aborted\|Exception\|SEGFAULT\|Child aborted\|[A-Z_]*\))$/\1/p')
if [ -n "$caught" ]; then printf 'caught by:\n%s\n' "$caught"; else echo "SURVIVED"; exit 1; fi
