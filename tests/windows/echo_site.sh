#!/usr/bin/env bash
# Starts the Windows sfhost.exe under Wine on the default site (the HTTP echo
# service of etc/start.tcl) and talks to it from Linux with curl: a GET, a
# POST, two requests on one kept connection, then Ctrl-C (SIGINT, which Wine
# delivers as CTRL_C_EVENT) must stop it with exit status 0.
#   usage: tests/windows/echo_site.sh [build-win]
set -euo pipefail
cd "$(dirname "$0")/../.."
root=$PWD
out=$(realpath "${1:-build-win}")
export WINEPREFIX=$out/wineprefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
data=$(mktemp -d)
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
url=http://127.0.0.1:$port
fail() { echo "echo_site: $*" >&2; tail -n 20 "$data/sf.log" "$data/stderr.txt" >&2 || true; kill -9 "$pid" 2>/dev/null; exit 1; }

(cd "$data" && SF_HTTP_PORT=$port exec wine "$out/bin/sfhost.exe" -rootdir "$root" -datdir "$data" \
   2>"$data/stderr.txt") &
pid=$!
for _ in $(seq 120); do curl -s -o /dev/null "$url/" && break; sleep 1; done

[ "$(curl -s -w ' %{http_code}' "$url/hello")" = "/hello 200" ] || fail "GET was not echoed"
[ "$(curl -s -w ' %{http_code}' --data-binary 'a body' "$url/p")" = "a body 200" ] || fail "POST was not echoed"
trace=$(curl -s -v "$url/a" "$url/b" 2>&1)
grep -q "Re-using existing connection" <<<"$trace" || fail "the connection was not kept"

kill -INT "$pid"
for _ in $(seq 60); do kill -0 "$pid" 2>/dev/null || break; sleep 1; done
status=0; wait "$pid" || status=$?
[ "$status" = 0 ] || fail "exit status $status after Ctrl-C"
grep -q "CTRL_C_EVENT received" "$data/sf.log" || fail "the log does not name the stop event"
rm -rf "$data"
echo "echo_site: GET, POST, keep-alive and Ctrl-C stop under Wine passed"
