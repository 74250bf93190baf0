#!/usr/bin/env bash
# Installs what building, running and testing sf needs on Debian 12, and
# nothing when it is all there already. Usage: scripts/deps.sh [run|test|bench]
set -euo pipefail

build_pkgs=(cmake ninja-build g++ pkg-config tcl8.6 tcl8.6-dev libkrb5-dev)
test_pkgs=(clang clang-format clang-tidy libclang-rt-14-dev googletest libgtest-dev libgmock-dev
           libbenchmark-dev python3 curl netcat-openbsd procps rsyslog openssl ca-certificates libssl-dev
           libtasn1-6-dev slapd ldap-utils nginx-light squid wrk gss-ntlmssp python3-gssapi)
# The HTTP proxy benchmark compares against HAProxy as well.
test_pkgs+=(haproxy)
# bench/http_bench.py: the peers, the load client, core pinning and process lookup.
bench_pkgs=(nginx-light haproxy wrk util-linux procps python3)

want=("${build_pkgs[@]}")
[ "${1:-test}" = test ] && want+=("${test_pkgs[@]}")
[ "${1:-test}" = bench ] && want+=("${bench_pkgs[@]}")

missing=()
for p in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "deps: installing ${missing[*]}" >&2
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO=sudo
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
# Services some packages start on install are not wanted: tests start their
# own instances on free loopback ports.
printf '#!/bin/sh\nexit 101\n' | $SUDO tee /usr/sbin/policy-rc.d >/dev/null
$SUDO chmod +x /usr/sbin/policy-rc.d
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
$SUDO rm -f /usr/sbin/policy-rc.d
