// Mx and Event: recursion, mutual exclusion, the fatal unlock path and the
// auto-reset event.
#include <gtest/gtest.h>

#include <thread>

#include "sf/platform/thread.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

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
  std::vector<std::string> dumped = sftest::runInChild(
      [] {
        sf::Mx().unlock();  // never locked
        return 0;
      },
      3);
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
  sf::platform::sleep_ms(20);  // lets the responder wait first; orders nothing
  for (int i = 0; i < 2000; ++i) {
    ev.notify();
    pong.wait();
  }
  responder.join();
  EXPECT_EQ(answered, 2000);
}
