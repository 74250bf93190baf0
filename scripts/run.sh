#!/usr/bin/env bash
# Builds sf and runs the reference host, sfhost, on the default site
# (etc/config.tcl) with build/data as its data directory, where it logs.
# Extra arguments go to sfhost (try --help).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh run
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"
mkdir -p build/data
exec build/bin/sfhost -datdir build/data "$@"
