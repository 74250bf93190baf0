// Mx and Event: recursion, mutual exclusion, the fatal unlock path and the
// auto-reset event.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

#include "sf/platform/thread.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

namespace {
// Gives another thread the chance to run ahead; orders nothing by itself.
void letOthersRun() {
  sf::platform::sleep_ms(20);
}
}  // namespace

TEST(Mx, RecursiveLockIsTheCallersUntilTheLastUnlock) {
  sf::Mx mx;
  mx.lock();
  mx.lock();
  std::thread([&] { EXPECT_FALSE(mx.ownedByCaller()); }).join();
  mx.unlock();
  EXPECT_TRUE(mx.ownedByCaller());
  mx.unlock();
  EXPECT_FALSE(mx.ownedByCaller());
  std::thread([&] { sf::MxLock guard(mx); }).join();  // free for another thread
}

TEST(MxDeathTest, UnlockWithoutOwningIsFatal) {
  // Forked children share the parent's directory name; no other thread runs.
  GTEST_FLAG_SET(death_test_style, "fast");
  sftest::TempDir dir;
  EXPECT_EXIT(
      {
        std::filesystem::current_path(dir.path());
        sf::Mx().unlock();  // never locked
        std::exit(0);
      },
      ::testing::ExitedWithCode(3), "");
  std::vector<std::string> dumped = sftest::dumps(dir.path());
  ASSERT_EQ(dumped.size(), 1u);
  EXPECT_NE(dumped[0].find(" Reason for dump: ReleaseMutex\n\n"), std::string::npos);
}

TEST(Event, AutoResetKeepsOneSignal) {
  sf::Event ev;
  EXPECT_FALSE(ev.wait_ms(0));
  ev.notify();  // nobody waits: kept for the next wait
  EXPECT_TRUE(ev.wait_ms(10000));
  EXPECT_FALSE(ev.wait_ms(0));  // consumed
  ev.notify();
  ev.notify();  // not counted: one wait is released
  ev.wait();
  EXPECT_FALSE(ev.wait_ms(20));

  // A waiter blocked first is released by a later notify, and the ping-pong
  // of two events loses no wake-up.
  sf::Event pong;
  int answered = 0;
  std::thread responder([&] {
    for (int i = 0; i < 2000; ++i) {
      ev.wait();
      ++answered;
      pong.notify();
    }
  });
  letOthersRun();
  for (int i = 0; i < 2000; ++i) {
    ev.notify();
    pong.wait();
  }
  responder.join();
  EXPECT_EQ(answered, 2000);
}
