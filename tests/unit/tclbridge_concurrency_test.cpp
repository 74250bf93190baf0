// One interpreter, one lock: the bridge used from several threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sf/base/logcontrol.h"
#include "sf/script/interp.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

namespace {

// Read-modify-write of a global through the bridge: correct only because a
// command procedure runs under the Tcl lock, which its calls take again.
int addOne(int, const char**) {
  int v = sf::getVarInt("unit.cmdcount", 0);
  sf::Buffer scratch(64);  // the ceiling caches may be filled under the lock
  scratch.append("x");
  sf::setVarInt("unit.cmdcount", v + 1);
  sf::setRes(std::to_string(v + 1).c_str());
  return 0;
}

void registerOnce() {
  static bool done = false;
  if (done) return;
  done = true;
  sftest::ensureInterp();
  sf::exportProc("t_addone", addOne);
}

// Runs every body on its own thread and waits for all.
void runTogether(std::vector<std::function<void()>> bodies) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (auto& body : bodies) {
    threads.emplace_back([&ready, &bodies, body] {
      ++ready;
      while (ready.load() < static_cast<int>(bodies.size())) std::this_thread::yield();
      body();
      sf::sfi_tclThreadDone();
    });
  }
  for (std::thread& t : threads) t.join();
}

}  // namespace

// Debug builds check the lock at every entry into the interpreter, so a
// single-threaded call finds a missing lock; what takes threads is a lock
// released too early, seen here as a lost increment.
TEST(TclBridgeConcurrency, OneLockSerialisesEveryUse) {
  registerOnce();
  const int rounds = 1000;
  sf::setVarInt("unit.counter", 0);
  sf::setVarInt("unit.cmdcount", 0);
  std::vector<std::function<void()>> bodies;
  for (int t = 0; t < 2; ++t) {
    bodies.push_back([&] {
      for (int i = 0; i < rounds; ++i) sf::eval("incr unit.counter");
    });
    bodies.push_back([&] {
      for (int i = 0; i < rounds; ++i) sf::eval("t_addone");
    });
  }
  runTogether(bodies);
  EXPECT_EQ(sf::getVarInt("unit.counter", -1), 2 * rounds);
  EXPECT_EQ(sf::getVarInt("unit.cmdcount", -1), 2 * rounds);
}

TEST(TclBridgeConcurrency, TemplateRecordsAndLoggingEvaluationsShareTheLocks) {
  // Evaluations log while they hold the Tcl lock; template records need the
  // Tcl lock too. Both at once from several threads must neither deadlock
  // nor lose a line.
  registerOnce();
  sftest::TempDir dir;
  sftest::logToFile(dir.str(), 6, 1 << 20, "%4$s %8$s\n");

  const int rounds = 150;
  std::vector<std::function<void()>> bodies;
  for (int t = 0; t < 2; ++t) {
    bodies.push_back([&, t] {
      for (int i = 0; i < rounds; ++i) SF_LOG(1, "direct %d %d", t, i);
    });
    bodies.push_back([&] {
      for (int i = 0; i < rounds; ++i) sf::eval("t_addone");
    });
  }
  runTogether(bodies);
  sf::sfi_setLogLevel(-1);

  std::istringstream in(sftest::readFile(dir.path() / "unit.log"));
  std::map<std::string, int> kinds;
  for (std::string line; std::getline(in, line);) {
    if (line != "1 explicitly setting log level to 6")  // when already initialised
      ++kinds[line.substr(0, line.find_first_of("0123456789>", 2))];
  }
  EXPECT_EQ(kinds, (std::map<std::string, int>{{"1 direct ", 2 * rounds},
                                               {"6 eval t_addone", 2 * rounds},
                                               {"3 eval t_addone-", 2 * rounds}}));
}

#ifndef NDEBUG
namespace {
// A command that lets go of the lock inside its evaluation, as a careless
// waiting command would, while another thread enters the interpreter.
int releaseInside(int, const char**) {
  sf::sfi_tclLock().unlock();
  std::thread([] { sf::eval("set unit.intruder 1"); }).join();
  sf::sfi_tclLock().lock();
  return 0;
}
}  // namespace
#endif

// Debug builds turn an interleaved evaluation, which corrupts the
// interpreter's stack at random, into a certain abort naming the entry.
TEST(TclBridgeConcurrency, DebugBuildsStopAnEvaluationInsideAnotherThreads) {
#ifdef NDEBUG
  GTEST_SKIP() << "the entry checks are compiled into debug builds only";
#else
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        sftest::ensureInterp();
        sf::exportProc("t_releaseinside", releaseInside);
        sf::eval("t_releaseinside");
      },
      "entered through eval while another thread's evaluation is unfinished");
#endif
}
