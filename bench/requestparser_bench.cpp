// The request parser on its own: a browser-like GET (about 500 bytes of
// headers), the same GET as wrk sends it, and a POST with a chunked body, each
// fed whole and fed in 7-byte pieces. Run it under callgrind for instruction
// counts that a busy machine does not disturb (docs/benchmarks.md).
#include <benchmark/benchmark.h>

#include <string>

#include "sf/http/messageparser.h"

namespace {

const std::string kBrowserGet =
    "GET /static/app/main.css?v=20261124 HTTP/1.1\r\n"
    "Host: www.example.com\r\n"
    "User-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:120.0) Gecko/20100101 Firefox/120.0\r\n"
    "Accept: text/css,*/*;q=0.1\r\n"
    "Accept-Language: en-GB,en;q=0.7,fr;q=0.3\r\n"
    "Accept-Encoding: gzip, deflate, br\r\n"
    "Referer: https://www.example.com/account/settings/profile\r\n"
    "Connection: keep-alive\r\n"
    "Cookie: session=8f14e45fceea167a5a36dedd4bea2543; theme=dark; consent=1\r\n"
    "Sec-Fetch-Dest: style\r\n"
    "Sec-Fetch-Mode: no-cors\r\n"
    "Sec-Fetch-Site: same-origin\r\n"
    "If-None-Match: \"5f3c-6a1b2c3d4e5f\"\r\n"
    "\r\n";
const std::string kWrkGet = "GET / HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n\r\n";
const std::string kChunkedPost =
    "POST /upload HTTP/1.1\r\nHost: api.example.com\r\nContent-Type: application/json\r\n"
    "Transfer-Encoding: chunked\r\n\r\n"
    "1a\r\n{\"id\": 1, \"name\": \"first\"}\r\n1b\r\n{\"id\": 2, \"name\": \"second\"}\r\n"
    "0\r\n\r\n";

void parse(benchmark::State& state, const std::string& request) {
  const size_t piece = state.range(0) ? static_cast<size_t>(state.range(0)) : request.size();
  sf::MessageParser parser(8192, 65536);
  for (auto _ : state) {
    parser.reset(8192, 65536);
    for (size_t at = 0; at < request.size() && !parser.complete();) {
      size_t n = std::min(piece, request.size() - at);
      at += parser.feed(request.data() + at, n);
    }
    if (!parser.complete()) state.SkipWithError("request not parsed");
    benchmark::DoNotOptimize(parser.fields().data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * request.size()));
}

void BM_BrowserGet(benchmark::State& state) {
  parse(state, kBrowserGet);
}
void BM_WrkGet(benchmark::State& state) {
  parse(state, kWrkGet);
}
void BM_ChunkedPost(benchmark::State& state) {
  parse(state, kChunkedPost);
}
BENCHMARK(BM_BrowserGet)->Arg(0)->Arg(7);
BENCHMARK(BM_WrkGet)->Arg(0)->Arg(7);
BENCHMARK(BM_ChunkedPost)->Arg(0)->Arg(7);

}  // namespace

BENCHMARK_MAIN();
