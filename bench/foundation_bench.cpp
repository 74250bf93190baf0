// Foundation figures: Buffer growth against the standard containers, the
// cost of a disabled log level, one record to the file sink, and one short
// evaluation through the Tcl bridge.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>
#include <vector>

#include "sf/base/logcontrol.h"
#include "sf/script/interp.h"
#include "sf/sflib.h"

namespace {

const size_t kTotal = 64 * 1024;  // bytes appended per iteration

void BM_BufferAppend(benchmark::State& state) {
  const size_t piece = static_cast<size_t>(state.range(0));
  const std::string chunk(piece, 'x');
  for (auto _ : state) {
    sf::Buffer b;
    for (size_t n = 0; n < kTotal; n += piece) b.append(chunk.data(), piece);
    benchmark::DoNotOptimize(b.data);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}
BENCHMARK(BM_BufferAppend)->Arg(8)->Arg(64);

void BM_StringAppend(benchmark::State& state) {
  const size_t piece = static_cast<size_t>(state.range(0));
  const std::string chunk(piece, 'x');
  for (auto _ : state) {
    std::string s;
    for (size_t n = 0; n < kTotal; n += piece) s.append(chunk.data(), piece);
    benchmark::DoNotOptimize(s.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}
BENCHMARK(BM_StringAppend)->Arg(8)->Arg(64);

void BM_VectorInsertAtEnd(benchmark::State& state) {
  const size_t piece = static_cast<size_t>(state.range(0));
  const std::string chunk(piece, 'x');
  for (auto _ : state) {
    std::vector<char> v;
    for (size_t n = 0; n < kTotal; n += piece) v.insert(v.end(), chunk.begin(), chunk.end());
    benchmark::DoNotOptimize(v.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}
BENCHMARK(BM_VectorInsertAtEnd)->Arg(8)->Arg(64);

void BM_LogLevelOff(benchmark::State& state) {
  sf::g_logLevel.store(1);
  int i = 0;
  for (auto _ : state) {
    SF_LOG(5, "reader %d woke", ++i);
    benchmark::ClobberMemory();
  }
  sf::g_logLevel.store(-1);
}
BENCHMARK(BM_LogLevelOff);

void setUpInterp() {
  static bool done = false;
  if (done) return;
  done = true;
  sf::sfi_tclCreate();
}

// Records to a file sink in a fresh directory, removed afterwards. The
// default size limit applies, so rotations are part of the figure.
void fileSinkRecords(benchmark::State& state, const char* templateText) {
  setUpInterp();
  std::filesystem::path dir = std::filesystem::temp_directory_path() /
                              ("sfbench-" + std::to_string(reinterpret_cast<uintptr_t>(&state)));
  std::filesystem::create_directories(dir);
  sf::setVarStr("sf.log.dir", dir.c_str());
  sf::setVarStr("sf.log.fmt", templateText);
  sf::sfi_setLogLevel(3);
  sf::sfi_logInit();
  int i = 0;
  for (auto _ : state)
    sf::sfi_log(3, ++i, "a record of ordinary length for the benchmark", "bench.cpp", 1, 0);
  sf::sfi_setLogLevel(-1);
  std::filesystem::remove_all(dir);
}

void BM_LogRecordToFile(benchmark::State& state) {
  fileSinkRecords(state, "");
}
BENCHMARK(BM_LogRecordToFile);

void BM_LogRecordToFileWithTemplate(benchmark::State& state) {
  fileSinkRecords(state, "%1$s %4$s %8$s\n");
}
BENCHMARK(BM_LogRecordToFileWithTemplate);

void BM_EvalShortScript(benchmark::State& state) {
  setUpInterp();
  sf::setVarInt("bench.n", 0);
  for (auto _ : state) benchmark::DoNotOptimize(sf::eval("incr bench.n"));
}
BENCHMARK(BM_EvalShortScript);

}  // namespace

BENCHMARK_MAIN();
