// The cross-process lock of the shared statistics block, side by side with
// the library's in-process lock, and what it adds to a log file record, alone
// and with a second process writing to the same log.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "sf/base/logcontrol.h"
#include "sf/base/statsattach.h"
#include "sf/script/interp.h"
#include "sf/sflib.h"

namespace {

namespace fs = std::filesystem;

// One directory for the block's name and the logs; the names are removed at
// the end of the program.
struct Setup {
  fs::path dir = fs::temp_directory_path() / ("sfstatsbench-" + std::to_string(getpid()));
  std::string block, mutex;
  Setup() {
    fs::create_directories(dir);
    setenv("TAVO_WIN_MEM_GLOBAL", "OFF", 1);
    setenv("TAVODATDIR", dir.c_str(), 1);
    block = sf::statsBlockName();
    mutex = sf::statsMutexName();
    sf::sfi_tclCreate();
    sf::setVarStr("sf.log.dir", dir.c_str());
    sf::sfi_setLogLevel(3);
    sf::sfi_logInit();
  }
  ~Setup() {
    fs::remove("/dev/shm/" + block);
    fs::remove("/dev/shm/" + mutex);
    fs::remove_all(dir);
  }
};

Setup& setup() {
  static Setup s;
  return s;
}

void record(int i) {
  sf::sfi_log(3, i, "a record of ordinary length for the benchmark", "bench.cpp", 1, 0);
}

void BM_MxLockUnlock(benchmark::State& state) {
  sf::Mx mx;
  for (auto _ : state) {
    mx.lock();
    mx.unlock();
  }
}
BENCHMARK(BM_MxLockUnlock);

// Registered before anything attaches the block.
void BM_LogRecordWithoutBlock(benchmark::State& state) {
  setup();
  int i = 0;
  for (auto _ : state) record(++i);
}
BENCHMARK(BM_LogRecordWithoutBlock);

void BM_StatsLockUnlock(benchmark::State& state) {
  setup();
  if (sf::sfi_attachStats() != 0) state.SkipWithError("no statistics block");
  for (auto _ : state) {
    sf::lockStats();
    sf::unlockStats();
  }
}
BENCHMARK(BM_StatsLockUnlock);

void BM_LogRecordWithBlock(benchmark::State& state) {
  setup();
  if (sf::sfi_attachStats() != 0) state.SkipWithError("no statistics block");
  int i = 0;
  for (auto _ : state) record(++i);
}
BENCHMARK(BM_LogRecordWithBlock);

// A second process writes to the same log without pause meanwhile.
void BM_LogRecordWithBlockTwoWriters(benchmark::State& state) {
  setup();
  if (sf::sfi_attachStats() != 0) state.SkipWithError("no statistics block");
  fflush(nullptr);
  pid_t other = fork();
  if (other == 0) {
    for (int i = 0;; ++i) record(i);
  }
  int i = 0;
  for (auto _ : state) record(++i);
  kill(other, SIGKILL);
  waitpid(other, nullptr, 0);
}
BENCHMARK(BM_LogRecordWithBlockTwoWriters);

}  // namespace

BENCHMARK_MAIN();
