// The watchdog, each case in a child process: the watchdog thread and its
// queue are made once per process, and a firing ends the process.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "sf/base/logcontrol.h"
#include "sf/script/interp.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

namespace {

void startWith(int timeoutSeconds) {
  sftest::ensureInterp();
  sf::setVarInt("sf.watchdog", timeoutSeconds);
  sf::initTimer();
  sf::watchdog_init();
}

// Whether the timer thread, waiting for its next timer, logged one due in
// 299 to 300 seconds ("now S.U < next S.U").
bool timerDueInFiveMinutes(const sftest::LogCapture& log) {
  for (const std::string& m : log.messages(8)) {
    int now = 0, next = 0;
    if (sscanf(m.c_str(), "now %d.%*d < next %d.", &now, &next) == 2 && next - now >= 299 &&
        next - now <= 300)
      return true;
  }
  return false;
}

// Progress reports keep a long task alive and a cleared watchdog stays quiet;
// a second arming keeps the first deadline, five minutes by default. Then a
// task stuck holding the interpreter lock ends the process with a dump and
// status 1; a failed check before that exits with a status of its own.
int lifeChild() {
  {
    sftest::LogCapture log(8);
    startWith(2);
    sf::watchdog_set();
    // Work past the time-out, proving progress often.
    for (int i = 0; i < 25; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      sf::watchdog_ok();
    }
    if (!sf::getContext()->watchdog) return 7;
    sf::watchdog_clr();
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // cleared: nothing fires

    sf::eval("unset sf.watchdog");  // from the next arming on: the default time-out
    sf::watchdog_set();
    sf::TimeoutId* first = sf::getContext()->watchdog;
    if (!first || first->isNull()) return 8;
    // A timer due at once wakes the timer thread, which then looks at the
    // watchdog's timer as its next.
    sf::mkTimeout_rel(0, 1000, nullptr, nullptr);
    for (int i = 0; i < 1000 && !timerDueInFiveMinutes(log); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!timerDueInFiveMinutes(log)) return 6;
    std::uint32_t id = first->id;
    sf::watchdog_set();
    if (sf::getContext()->watchdog != first || first->id != id) return 2;
    int complaints = 0;
    for (const auto& r : log.records())
      if (r.msg == "attempted to set watchdog when already set") {
        if (r.level != 0 || r.code != 1) return 3;
        ++complaints;
      }
    if (complaints != 1) return 4;
    sf::watchdog_clr();
    if (sf::getContext()->watchdog) return 5;
    sf::watchdog_clr();  // nothing armed: nothing happens
  }
  sf::sfi_logToStderr();
  sf::sfi_setLogLevel(1);
  sf::setVarInt("sf.watchdog", 1);
  sf::watchdog_set();
  // Hang holding the interpreter lock, as a stuck script would.
  sf::sfi_tclLock().lock();
  std::this_thread::sleep_for(std::chrono::seconds(60));
  std::_Exit(0);
}

TEST(Watchdog, ProgressKeepsATaskAliveArmingTwiceKeepsTheFirstDeadlineAndExpiryDumps) {
  std::vector<std::string> dumped = sftest::runInChild(lifeChild, 1, "06_sf_watchdog_s");
  ASSERT_EQ(dumped.size(), 1u);
  EXPECT_NE(dumped[0].find("Reason for dump: watchdog shutdown"), std::string::npos);
}

int disabledChild() {
  startWith(0);
  // Turned on after start-up: still off, there is no watchdog thread.
  sf::setVarInt("sf.watchdog", 1);
  sf::watchdog_set();
  if (sf::getContext()->watchdog) return 1;
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  return 0;
}

TEST(Watchdog, ZeroTimeoutAtStartUpDisablesIt) {
  sftest::runInChild(disabledChild);
}

}  // namespace
