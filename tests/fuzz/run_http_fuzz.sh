#!/usr/bin/env bash
# Usage: run_http_fuzz.sh FUZZER WORK-DIR SECONDS. Seeds: two control bytes
# (see http_fuzz.cpp) and a real request or response stream.
set -euo pipefail
fuzzer=$1 work=$2 seconds=$3

rm -rf "$work"
mkdir -p "$work/corpus" "$work/seeds" "$work/artifacts"
seed() {  # name, control bytes (octal), message
  printf "$2" >"$work/seeds/$1"
  printf '%s' "$3" >>"$work/seeds/$1"
}
crlf=$'\r\n'
seed get '\000\377' "GET /a?b=c HTTP/1.1${crlf}Host: example${crlf}X-A: 1${crlf}  folded${crlf}${crlf}GET /next HTTP/1.1${crlf}Host: x${crlf}${crlf}"
seed post '\000\007' "POST /p HTTP/1.1${crlf}Host: x${crlf}Content-Length: 5${crlf}Connection: keep-alive${crlf}${crlf}hello"
seed chunked '\020\003' "POST /c HTTP/1.1${crlf}Host: x${crlf}Transfer-Encoding: chunked${crlf}${crlf}5;e=1${crlf}hello${crlf}A${crlf}0123456789${crlf}0${crlf}T: v${crlf}${crlf}"
seed framed '\040\007' "POST /c HTTP/1.1${crlf}Host: x${crlf}Transfer-Encoding: chunked${crlf}${crlf}5;e=1${crlf}hello${crlf}0${crlf}${crlf}GET /g HTTP/1.1${crlf}Host: x${crlf}Content-Length: 2${crlf}${crlf}okGET /x HTTP/1.1${crlf}"
seed old '\000\040' "GET /nine${crlf}GET /ten HTTP/1.0${crlf}${crlf}"
seed resp '\001\100' "HTTP/1.1 200 OK${crlf}Content-Length: 3${crlf}X-B: b${crlf}${crlf}abcHTTP/1.1 204 No Content${crlf}${crlf}"
seed respchunked '\021\005' "HTTP/1.1 200 OK${crlf}Transfer-Encoding: chunked${crlf}${crlf}3${crlf}abc${crlf}0${crlf}${crlf}"
seed resp10 '\001\377' "HTTP/1.0 200 OK${crlf}Server: old${crlf}${crlf}until the end"
seed head '\011\377' "HTTP/1.1 404 Not Found${crlf}Content-Length: 99${crlf}${crlf}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
exec "$fuzzer" -max_total_time="$seconds" -max_len=16384 -timeout=10 -rss_limit_mb=2048 \
  -print_final_stats=1 -artifact_prefix="$work/artifacts/" "$work/corpus" "$work/seeds"
