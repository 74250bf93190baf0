// One interpreter, one lock: the bridge used from several threads at once.
#include <gtest/gtest.h>

#include <atomic>
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

#ifndef NDEBUG
// A command that lets go of the lock inside its evaluation, as a careless
// waiting command would, while another thread enters the interpreter.
int releaseInside(int, const char**) {
  sf::sfi_tclLock().unlock();
  std::thread([] { sf::eval("set unit.intruder 1"); }).join();
  sf::sfi_tclLock().lock();
  return 0;
}
#endif

}  // namespace

// Debug builds check the lock at every entry into the interpreter, so a
// single-threaded call finds a missing lock; what takes threads is a lock
// released too early, seen here as a lost increment. Evaluations log while
// they hold the Tcl lock, and template records need it too: all of it at once
// must neither deadlock nor lose a line.
TEST(TclBridgeConcurrency, OneLockSerialisesEveryUseAndLogging) {
  sftest::ensureInterp();
  sf::exportProc("t_addone", addOne);
  sf::setVarInt("unit.counter", 0);
  sf::setVarInt("unit.cmdcount", 0);
  sftest::TempDir dir;
  sftest::logToFile(dir.str(), 6, 1 << 20, "%4$s %8$s\n");

  // Two threads of each kind, all let go at once.
  const int rounds = 300, threads = 6;
  std::atomic<int> ready{0};
  std::vector<std::thread> running;
  for (int t = 0; t < threads; ++t) {
    running.emplace_back([&, t] {
      ++ready;
      while (ready.load() < threads) std::this_thread::yield();
      for (int i = 0; i < rounds; ++i) {
        if (t % 3 == 0)
          SF_LOG(1, "direct %d %d", t, i);
        else
          sf::eval(t % 3 == 1 ? "incr unit.counter" : "t_addone");
      }
      sf::sfi_tclThreadDone();
    });
  }
  for (std::thread& thread : running) thread.join();
  sf::sfi_setLogLevel(-1);
  EXPECT_EQ(sf::getVarInt("unit.counter", -1), 2 * rounds);
  EXPECT_EQ(sf::getVarInt("unit.cmdcount", -1), 2 * rounds);

  std::istringstream in(sftest::readFile(dir.path() / "unit.log"));
  std::map<std::string, int> kinds;
  for (std::string line; std::getline(in, line);) {
    if (line != "1 explicitly setting log level to 6")  // when already initialised
      ++kinds[line.substr(0, line.find_first_of("0123456789>", 2))];
  }
  EXPECT_EQ(kinds, (std::map<std::string, int>{{"1 direct ", 2 * rounds},
                                               {"6 eval incr unit.counter", 2 * rounds},
                                               {"3 eval incr unit.counter-", 2 * rounds},
                                               {"6 eval t_addone", 2 * rounds},
                                               {"3 eval t_addone-", 2 * rounds}}));
}

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
