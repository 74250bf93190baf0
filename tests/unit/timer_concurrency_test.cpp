// Timers: firing order, cancellation racing firing, periodic re-arming, the
// script commands, and due messages a queue refuses.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "sf/sflib.h"
#include "sf/work/tickclock.h"
#include "support/testsupport.h"

namespace {

std::atomic<int> g_destroyed{0};

// Counts its own destruction: tells cancelled messages from delivered ones.
struct Counted : sf::Message {
  int tag;
  explicit Counted(int t) : tag(t) {}
  ~Counted() override { ++g_destroyed; }
};

void setUp() {
  sftest::ensureInterp();
  sf::initTimer();
}

// Waits up to 30 s for done() to hold.
template <typename Done>
void waitFor(Done done) {
  for (int i = 0; i < 3000 && !done(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

TEST(Timer, ClockCarriesOnAcrossTheTickWrap) {
  sf::TickExtender clock;
  EXPECT_EQ(clock.extend(1000), 1000u);
  EXPECT_EQ(clock.extend(0xfffffff0u), 0xfffffff0u);
  EXPECT_EQ(clock.extend(0xfffffff0u), 0xfffffff0u);  // no time passed: no wrap
  EXPECT_EQ(clock.extend(5), 0x100000005u);
  EXPECT_EQ(clock.extend(0xffffffffu), 0x1ffffffffu);
  EXPECT_EQ(clock.extend(0), 0x200000000u);
}

TEST(Timer, FiresInExpiryOrderAndEqualDelaysInMakingOrder) {
  setUp();
  sf::MessageQ q(64, "order");
  // Made latest-first, far apart so a slow machine cannot reorder them.
  for (int i = 5; i >= 1; --i) sf::mkTimeout_rel(0, i * 150000, &q, new Counted(100 + i));
  for (int i = 0; i < 10; ++i) sf::mkTimeout_rel(0, 900000, &q, new Counted(i));  // same delay
  sf::mkTimeout_rel(0, 0, &q, new Counted(-1));  // zero delay goes through the timer thread too
  // 0 s + 1 500 000 us keeps the current second, so it fires before 1 s + 0 us
  // made after it; carried, it would fire half a second later.
  sf::mkTimeout_rel(0, 1500000, &q, new Counted(200));
  sf::mkTimeout_rel(1, 0, &q, new Counted(201));
  std::vector<int> order;
  for (int i = 0; i < 18; ++i) {
    sf::Message* m = q.deQ();
    EXPECT_TRUE(m->isTimeout);
    order.push_back(static_cast<Counted*>(m)->tag);
    delete m;
  }
  EXPECT_EQ(order, (std::vector<int>{-1, 101, 102, 103, 104, 105, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 200,
                                     201}));
}

TEST(Timer, CancellingRacesFiringWithoutLosingOrDoublingAMessage) {
  setUp();
  g_destroyed = 0;
  const int threads = 4, perThread = 400;
  sf::MessageQ q(threads * perThread + 1, "race");  // holds every message: nobody takes any
  std::vector<std::thread> makers;
  for (int t = 0; t < threads; ++t) {
    makers.emplace_back([&, t] {
      std::vector<sf::TimeoutId> ids;
      for (int i = 0; i < perThread; ++i) {
        // Delays from 0 to 3 ms, so that many fire while others are cancelled.
        ids.push_back(sf::mkTimeout_rel(0, (i % 4) * 1000, &q, new Counted(t * perThread + i)));
        if (i % 3 == 0) sf::rmTimeout(ids[ids.size() / 2]);
      }
      for (size_t i = 0; i < ids.size(); i += 2) sf::rmTimeout(ids[i]);
    });
  }
  for (auto& m : makers) m.join();
  // Every message is either cancelled (deleted) or delivered, once.
  const int total = threads * perThread;
  waitFor([&] { return g_destroyed.load() + q.size() >= total; });
  int delivered = q.size();
  while (q.size() > 0) delete q.deQ();
  EXPECT_EQ(g_destroyed.load(), total);
  EXPECT_GT(delivered, 0);
  EXPECT_LT(delivered, total);
}

// A cancelled timer's message is deleted, and so is a due one no queue takes;
// a fired one belongs to whoever took it.
TEST(Timer, CancelledAndRefusedMessagesAreDeletedAndAFiredOneIsLeftAlone) {
  setUp();
  g_destroyed = 0;
  sftest::LogCapture log(1);
  sf::MessageQ q(2, "refusing");
  sf::TimeoutId none;
  EXPECT_TRUE(none.isNull());
  EXPECT_FALSE(none.isSet() || !none);  // operator!, kept for hosts, means isSet()
  sf::TimeoutId pending = sf::mkTimeout_rel(3600, 0, &q, new Counted(1));
  EXPECT_TRUE(pending.isSet() && !pending);
  sf::rmTimeout(pending);
  EXPECT_EQ(g_destroyed.load(), 1);

  sf::TimeoutId fired = sf::mkTimeout_rel(0, 0, &q, new Counted(2));
  sf::Message* m = q.deQ();
  sf::rmTimeout(fired);
  EXPECT_EQ(g_destroyed.load(), 1);  // the queue handed it to us; it is ours
  delete m;
  sf::rmTimeout(sf::TimeoutId(999999));  // unknown: nothing happens
  EXPECT_EQ(g_destroyed.load(), 2);

  sf::Message occupant;  // capacity 2 holds one: the queue is full
  q.enQ(&occupant);
  sf::mkTimeout_rel(0, 0, &q, new Counted(3));
  sf::mkTimeout_rel(0, 0, nullptr, new Counted(4));
  waitFor([] { return g_destroyed.load() >= 4; });
  EXPECT_EQ(g_destroyed.load(), 4);
  EXPECT_TRUE(log.contains("queue refusing refused message"));
  EXPECT_TRUE(log.contains("has no queue, message dropped"));
  EXPECT_EQ(q.deQ(), &occupant);
}

TEST(Timer, PeriodicTimerPostsTheSameMessageUnderNewIds) {
  setUp();
  sftest::LogCapture log(4);
  sf::MessageQ q(16, "periodic");
  Counted* msg = new Counted(7);
  sf::TimeoutId first = sf::mkTimeout_per(0, 100000, &q, msg);
  for (int i = 0; i < 3; ++i) {
    sf::Message* m = q.deQ();
    EXPECT_EQ(m, msg);
    EXPECT_TRUE(m->keep);
  }
  // Re-armed under a new id at every firing: the first id is gone.
  sf::rmTimeout(first);
  EXPECT_TRUE(log.contains("rmTimeout " + std::to_string(first.id) + ", timeout not found"));
  EXPECT_EQ(q.deQ(), msg);  // and the timer goes on

  // Removing the live timer, which has the highest id so far (the next one,
  // should it fire first), deletes the message.
  g_destroyed = 0;
  std::uint32_t id = first.id;
  do {
    while (q.size() > 0) q.deQ();  // copies posted meanwhile
    log.clear();
    sf::rmTimeout(sf::TimeoutId(++id));
  } while (!log.contains("removed timeout " + std::to_string(id)));
  EXPECT_EQ(g_destroyed.load(), 1);
  while (q.size() > 0) q.deQ();  // copies pointing at the deleted message
}

TEST(Timer, ScriptCommandsArmAndCancel) {
  setUp();
  sftest::LogCapture log(4);
  sf::setVarInt("sf.qsize", 8);
  sf::MessageQ* q = sf::mkQ("tmr-script");
  testing::internal::CaptureStdout();
  sf::eval("sf_mkTmr tmr-script 0 1000");
  sf::eval("sf_mkTmr tmr-script 3600");
  std::string out = testing::internal::GetCapturedStdout();
  unsigned first = 0, second = 0;
  ASSERT_EQ(sscanf(out.c_str(), "queued timer %u\nqueued timer %u\n", &first, &second), 2) << out;
  sf::Message* m = q->deQ();
  ASSERT_NE(m->data, nullptr);
  EXPECT_EQ(m->data->size(), 0u);
  delete m;
  sf::eval(("sf_rmTmr " + std::to_string(second)).c_str());
  EXPECT_TRUE(log.contains("removed timeout " + std::to_string(second)));
  EXPECT_THROW(sf::eval("sf_mkTmr tmr-script"), sf::Xtcl);
  for (const char* negative : {"-5 0", "0 -5"}) {
    EXPECT_THROW(sf::eval((std::string("sf_mkTmr tmr-script ") + negative).c_str()), sf::Xtcl);
    EXPECT_TRUE(log.contains(std::string("sf_mkTmr: negative delay ") + negative + " refused"));
  }
}

}  // namespace
