#!/bin/sh
# Echo round trips per second and latency with 1, 50 and 500 keep-alive
# clients: the sf echo site (examples/echo under sfhost, as shipped with a
# 300-second idle time-out, and with the idle time-out off) against the
# minimal event-loop echo server, in one run.
#
#   bench/echo_bench.sh BUILD_DIR [SECONDS]
#
# BUILD_DIR must be configured with -DSF_BENCH=ON.
set -eu
build=${1:?usage: echo_bench.sh BUILD_DIR [SECONDS]}
secs=${2:-5}
src=$(cd "$(dirname "$0")/.." && pwd)
tmp=$(mktemp -d)
port_sf=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
port_sf0=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
port_ref=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
ulimit -n 4096 2>/dev/null || true

ECHO_PORT=$port_sf TAVODATDIR=$tmp "$build/bin/sfhost" -rootdir "$src/examples/echo" -datdir "$tmp" &
sf_pid=$!
mkdir "$tmp/noidle"
ECHO_IDLE=0 ECHO_PORT=$port_sf0 TAVODATDIR=$tmp/noidle "$build/bin/sfhost" -rootdir "$src/examples/echo" -datdir "$tmp/noidle" &
sf0_pid=$!
"$build/bin/event_echo" "$port_ref" &
ref_pid=$!
trap 'kill $sf_pid $sf0_pid $ref_pid 2>/dev/null; wait 2>/dev/null; rm -rf "$tmp"' EXIT
sleep 1

echo "nproc=$(nproc) seconds=$secs"
for n in 1 50 500; do
  printf 'sf echo    '; "$build/bin/echo_load" "$port_sf" "$n" "$secs"
  printf 'sf no idle '; "$build/bin/echo_load" "$port_sf0" "$n" "$secs"
  printf 'event echo '; "$build/bin/echo_load" "$port_ref" "$n" "$secs"
done
