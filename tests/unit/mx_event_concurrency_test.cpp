// Mx and Event: recursion, mutual exclusion, the fatal unlock path and the
// auto-reset event.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include "sf/platform/thread.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

namespace {

// Gives another thread the chance to run ahead; orders nothing by itself.
void letOthersRun() {
  sf::platform::sleep_ms(20);
}

// The dump file the fatal path leaves in dir, or "" when there is none.
std::string dumpIn(const sftest::TempDir& dir) {
  for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
    if (entry.path().filename().string().rfind("dump_", 0) == 0)
      return sftest::readFile(entry.path());
  return "";
}

}  // namespace

TEST(Mx, RecursiveLockNeedsAsManyUnlocks) {
  sf::Mx mx;
  mx.lock();
  mx.lock();
  std::atomic<int> stage{0};
  int seenByOther = -1;
  std::thread other([&] {
    sf::MxLock guard(mx);
    seenByOther = stage.load();
  });
  // The other thread may only get in after the second unlock.
  letOthersRun();
  stage = 1;
  mx.unlock();
  letOthersRun();
  stage = 2;
  mx.unlock();
  other.join();
  EXPECT_EQ(seenByOther, 2);

  // The same thread may take it again and again, and a guard unwinding
  // through an exception releases its level.
  try {
    sf::MxLock outer(mx);
    sf::MxLock inner(&mx);
    throw sf::Xstate();
  } catch (const sf::Xstate&) {
  }
  std::thread taker([&] { sf::MxLock guard(mx); });
  taker.join();

  // releaseAll gives up every level for a while; relock takes them back.
  mx.lock();
  mx.lock();
  mx.lock();
  EXPECT_EQ(mx.releaseAll(), 3);
  std::thread between([&] { sf::MxLock guard(mx); });
  between.join();
  mx.relock(3);
  mx.unlock();
  mx.unlock();
  mx.unlock();
  EXPECT_EQ(mx.releaseAll(), 0);  // nothing held any more
}

TEST(Mx, ExcludesOtherThreads) {
  sf::Mx mx;
  long counter = 0;  // deliberately unsynchronised apart from the Mx
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; ++i) {
        sf::MxLock outer(mx);
        sf::MxLock inner(mx);
        long v = counter;
        counter = v + 1;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(counter, 20000);
}

TEST(MxDeathTest, UnlockWithoutOwningIsFatal) {
  // Forked children share the parent's idea of the directory; no other
  // thread runs at this point.
  GTEST_FLAG_SET(death_test_style, "fast");
  sftest::TempDir dir;
  // Never locked.
  EXPECT_EXIT(
      {
        std::filesystem::current_path(dir.path());
        sf::Mx mx;
        mx.unlock();
        std::exit(0);
      },
      ::testing::ExitedWithCode(3), "");
  std::string dump = dumpIn(dir);
  EXPECT_NE(dump.find("dump file for process "), std::string::npos) << dump;
  EXPECT_NE(dump.find(" Reason for dump: ReleaseMutex\n\n"), std::string::npos) << dump;

  // Held by another thread: releasing it from here is just as fatal.
  EXPECT_EXIT(
      {
        std::filesystem::current_path(dir.path());
        sf::Mx mx;
        std::thread owner([&] { mx.lock(); });
        owner.join();
        mx.unlock();
        std::exit(0);
      },
      ::testing::ExitedWithCode(3), "");
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

  // A waiter blocked first is released by a later notify.
  std::atomic<bool> released{false};
  std::thread waiter([&] {
    ev.wait();
    released = true;
  });
  letOthersRun();
  ev.notify();
  waiter.join();
  EXPECT_TRUE(released);
  EXPECT_FALSE(ev.wait_ms(0));
}

TEST(Event, PingPongLosesNoWakeUp) {
  sf::Event ping, pong;
  const int rounds = 2000;
  int hits = 0;
  std::thread responder([&] {
    for (int i = 0; i < rounds; ++i) {
      ping.wait();
      ++hits;
      pong.notify();
    }
  });
  int answered = 0;
  for (int i = 0; i < rounds; ++i) {
    ping.notify();
    pong.wait();
    ++answered;
  }
  responder.join();
  EXPECT_EQ(answered, rounds);
  EXPECT_EQ(hits, rounds);
}
