#!/usr/bin/env bash
# Starts the Windows sfhost.exe under Wine on the default site (the HTTP echo
# service of etc/start.tcl) and talks to it from Linux with curl: a GET, a
# POST, two requests on one kept connection, the same GET through a forwarding
# worker (httpWorker) in a second sfhost.exe, then Ctrl-C (SIGINT, which Wine
# delivers as CTRL_C_EVENT) must stop it with exit status 0. Then a hand-over:
# a parent sfhost.exe binds a port and starts a child sfhost.exe that takes
# the socket over and still serves once the parent stopped.
#   usage: tests/windows/echo_site.sh [build-win]
set -euo pipefail
cd "$(dirname "$0")/../.."
root=$PWD
out=$(realpath "${1:-build-win}")
export WINEPREFIX=$out/wineprefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
data=$(mktemp -d)
freeport() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
port=$(freeport)
url=http://127.0.0.1:$port
cpid= ppid=
fail() {
  echo "echo_site: $*" >&2
  tail -n 20 "$data/sf.log" "$data/parent/sf.log" "$data/stderr.txt" >&2 || true
  kill -9 "$pid" $cpid $ppid 2>/dev/null
  exit 1
}
# Ctrl-C to $1, then its exit status (124: still running a minute later; 127:
# not our child, the handed-over one).
stop() {
  kill -INT "$1"
  for _ in $(seq 60); do kill -0 "$1" 2>/dev/null || { wait "$1" 2>/dev/null; return; }; sleep 1; done
  return 124
}

(cd "$data" && SF_HTTP_PORT=$port exec wine "$out/bin/sfhost.exe" -rootdir "$root" -datdir "$data" \
   2>"$data/stderr.txt") &
pid=$!
for _ in $(seq 120); do curl -s -o /dev/null "$url/" && break; sleep 1; done

[ "$(curl -s -w ' %{http_code}' "$url/hello")" = "/hello 200" ] || fail "GET was not echoed"
[ "$(curl -s -w ' %{http_code}' --data-binary 'a body' "$url/p")" = "a body 200" ] || fail "POST was not echoed"
trace=$(curl -s -v "$url/a" "$url/b" 2>&1)
grep -q "Re-using existing connection" <<<"$trace" || fail "the connection was not kept"

# A forwarding worker in a second sfhost.exe, with the echo site as its server.
pport=$(freeport)
mkdir -p "$data/proxy/etc"
printf 'mkQ proxy\nbind 127.0.0.1 %s\n' "$pport" >"$data/proxy/etc/config.tcl"
printf 'spinThread httpReader 127.0.0.1 %s {enQ proxy}\nspinThread httpWorker proxy 127.0.0.1 %s -forward\n' \
  "$pport" "$port" >"$data/proxy/etc/start.tcl"
(cd "$data/proxy" && exec wine "$out/bin/sfhost.exe" -rootdir "$data/proxy" 2>>"$data/stderr.txt") &
ppid=$!
for _ in $(seq 120); do curl -s -o /dev/null "http://127.0.0.1:$pport/" && break; sleep 1; done
[ "$(curl -s -w ' %{http_code}' "http://127.0.0.1:$pport/via")" = "/via 200" ] || fail "not forwarded"
stop "$ppid" || fail "exit status $? from the forwarding site"

stop "$pid" || fail "exit status $? after Ctrl-C"
grep -q "CTRL_C_EVENT received" "$data/sf.log" || fail "the log does not name the stop event"

hport=$(freeport)
mkdir -p "$data/parent/etc" "$data/child site/etc"  # a blank in the child's argument
echo "bind 127.0.0.1 $hport" >"$data/parent/etc/config.tcl"
echo "sf_log 1 \"handed over to [sf_handover {$out/bin/sfhost.exe} -rootdir {$data/child site}]\"" \
  >"$data/parent/etc/start.tcl"
cat >"$data/child site/etc/config.tcl" <<EOF
sf_receiveEnv
mkQ echo
bind 127.0.0.1 $hport
spinThread tcpReader 127.0.0.1 $hport {enQ echo}
spinThread dummyWorker echo sf_echo
sf_startupOk
EOF
(cd "$data/parent" && exec wine "$out/bin/sfhost.exe" -rootdir "$data/parent" 2>>"$data/stderr.txt") &
pid=$!
for _ in $(seq 120); do grep -q "handed over to" "$data/parent/sf.log" 2>/dev/null && break; sleep 1; done
cpid=$(pgrep -f -- "$data/child site" || true)
grep -q "handed over to" "$data/parent/sf.log" || fail "the parent did not hand the port over"
stop "$pid" || fail "exit status $? from the parent after the hand-over"
echoed=$(python3 -c 'import socket, sys
c = socket.create_connection(("127.0.0.1", int(sys.argv[1])), 30)
c.sendall(b"moved"); print(c.recv(5).decode())' "$hport") || true
[ "$echoed" = moved ] || fail "the child does not serve the handed-over port"
stop "$cpid" || kill -9 "$cpid" 2>/dev/null || true
rm -rf "$data"
echo "echo_site: GET, POST, keep-alive, forwarding, Ctrl-C stop and hand-over under Wine passed"
