#!/usr/bin/env bash
# Builds sf and runs the reference host, sfhost, on the default site
# (etc/config.tcl). Extra arguments go to sfhost (try --help).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh run
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"
exec build/bin/sfhost "$@"
