// Message queues: the one-empty-slot ring, refusal of a full queue, FIFO order
// under many producers and consumers (a consumer waits in deQ, or on an event
// set with the queue's watch), quiescing, and the script commands for queues
// and messages, through which the registry is tested. Script threads and
// their listing by status run in sfhost (test_sfhost.py).
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "sf/platform/events.h"
#include "sf/script/interp.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

namespace {

// A message that says who made it and in which order.
sf::Message* tagged(int producer, int seq) {
  sf::Message* m = new sf::Message;
  m->createdAt = producer;
  m->processedAt = seq;
  return m;
}

// Offers m until the queue takes it: a refused message stays ours.
void enQRetry(sf::MessageQ& q, sf::Message* m) {
  for (;;) {
    try {
      q.enQ(m);
      return;
    } catch (const sf::Xstate&) {
      std::this_thread::yield();
    }
  }
}

TEST(MessageQ, RingKeepsOneSlotEmptyAndRefusesWhenFull) {
  sftest::LogCapture log(5);
  sf::MessageQ q(3, "three");
  sf::Message a, b, c;
  EXPECT_EQ(q.enQ(&a), 0);
  EXPECT_EQ(q.enQ(&b), 0);
  EXPECT_NE(a.enqueuedAt, 0);
  EXPECT_THROW(q.enQ(&c), sf::Xstate);
  EXPECT_EQ(q.size(), 2);

  // Order survives the ring wrapping round many times.
  EXPECT_EQ(q.deQ(), &a);
  EXPECT_EQ(q.deQ(), &b);
  sf::Message ms[20];
  for (int i = 0; i < 20; i += 2) {
    q.enQ(&ms[i]);
    q.enQ(&ms[i + 1]);
    EXPECT_THROW(q.enQ(&c), sf::Xstate);
    EXPECT_EQ(q.size(), 2);  // also when the tail has wrapped below the head
    EXPECT_EQ(q.deQ(), &ms[i]);
    EXPECT_EQ(q.deQ(), &ms[i + 1]);
  }
  EXPECT_EQ(q.size(), 0);

  // A watcher woken for a message it leaves behind hands the wake-up on.
  sf::platform::Wakeup first, second;
  sf::platform::EventSet set;
  set.add(second.fd(), 0, sf::platform::EventSet::Level);
  sf::platform::EventSet::Ready ready;
  ASSERT_TRUE(q.watch(&first) && q.watch(&second));
  q.enQ(&a);
  q.unwatch(&first);
  EXPECT_EQ(set.wait(&ready, 1, 0), 1);
  q.unwatch(&second);
  EXPECT_FALSE(q.watch(&first));  // a message is there: nothing to wait for
  EXPECT_EQ(q.deQ(), &a);

  sf::MessageQ one(1, "one");  // holds nothing
  EXPECT_THROW(one.enQ(&a), sf::Xstate);
  EXPECT_EQ(one.size(), 0);
  EXPECT_THROW(sf::MessageQ(0, "zero"), sf::Xinvalid);
  EXPECT_THROW(sf::MessageQ(-5, "negative"), sf::Xinvalid);
  EXPECT_TRUE(log.contains("capacity 0 is not usable"));
}

// Takes a message as an event-driven consumer does: tryDeQ, else hang a bell
// on the queue, look once more, and wait for the bell. The wait has no time
// limit (a limit fails on a machine that merely stalls): an enQ that goes
// unannounced leaves the last consumers waiting for good, and the test run's
// time-out reports it.
sf::Message* takeWatching(sf::MessageQ& q, sf::platform::Wakeup& bell,
                          sf::platform::EventSet& set) {
  for (;;) {
    if (sf::Message* m = q.tryDeQ()) return m;
    if (!q.watch(&bell)) continue;  // a message is being put there
    sf::Message* m = q.tryDeQ();
    sf::platform::EventSet::Ready ready;
    if (!m) set.wait(&ready, 1, -1);
    bell.drain();
    q.unwatch(&bell);
    if (m) return m;
  }
}

// Producers retry on a full queue; each consumer checks it sees each
// producer's messages in making order, and every message arrives once. The
// first `watching` consumers wait with takeWatching, the others in deQ.
void runProducersConsumers(int producers, int consumers, int perProducer, int capacity,
                           int watching = 0) {
  sf::MessageQ q(capacity, "load");
  std::vector<std::thread> threads;
  std::vector<std::vector<int>> seen(consumers, std::vector<int>(producers, -1));
  std::vector<std::atomic<int>> received(producers * perProducer);
  std::atomic<bool> orderBroken{false};
  // The bells outlive the consumers: an enQ may ring one after its consumer
  // took that message and stopped.
  std::vector<sf::platform::Wakeup> bells(consumers);

  for (int c = 0; c < consumers; ++c) {
    threads.emplace_back([&, c] {
      sf::platform::EventSet set;
      set.add(bells[c].fd(), 0, sf::platform::EventSet::Level);
      for (;;) {
        sf::Message* m = c < watching ? takeWatching(q, bells[c], set) : q.deQ();
        if (m->createdAt < 0) {  // stop token
          delete m;
          return;
        }
        int p = static_cast<int>(m->createdAt), s = static_cast<int>(m->processedAt);
        if (s <= seen[c][p]) orderBroken = true;
        seen[c][p] = s;
        ++received[p * perProducer + s];
        delete m;
      }
    });
  }
  std::vector<std::thread> makers;
  for (int p = 0; p < producers; ++p) {
    makers.emplace_back([&, p] {
      for (int s = 0; s < perProducer; ++s) enQRetry(q, tagged(p, s));
    });
  }
  for (auto& t : makers) t.join();
  for (int c = 0; c < consumers; ++c) enQRetry(q, tagged(-1, 0));
  for (auto& t : threads) t.join();

  EXPECT_FALSE(orderBroken);
  for (size_t i = 0; i < received.size(); ++i) ASSERT_EQ(received[i].load(), 1) << i;
  EXPECT_EQ(q.size(), 0);
}

TEST(MessageQ, FifoUnderManyProducersAndConsumers) {
  runProducersConsumers(4, 1, 5000, 8);
  runProducersConsumers(4, 4, 5000, 3);
  runProducersConsumers(3, 5, 3000, 100);
  runProducersConsumers(4, 3, 5000, 3, 2);
  runProducersConsumers(2, 2, 5000, 100, 2);
}

TEST(QueueCommands, MakeQueueForwardAndShowTheCurrentMessage) {
  sftest::ensureCommands();
  sf::setVarInt("sf.qsize", 3);
  sf::eval("mkQ cmd-q");
  sf::MessageQ* q = sf::getQ("cmd-q");
  ASSERT_EQ(q->capacity(), 3);
  EXPECT_THROW(sf::eval("mkQ cmd-q"), sf::Xtcl);

  sf::TransactionContext* ctx = sf::getContext();
  EXPECT_THROW(sf::eval("enQ cmd-q"), sf::Xtcl);  // no current message

  sf::Message* m = ctx->message = new sf::Message;
  EXPECT_THROW(sf::eval("enQ no-such-queue"), sf::Xtcl);
  EXPECT_EQ(ctx->message, m);
  sf::eval("enQ cmd-q");
  EXPECT_EQ(ctx->message, nullptr);  // the queue owns it now

  // Capacity 3 holds 2: the refused message stays with us.
  sf::Message* second = ctx->message = new sf::Message;
  sf::eval("enQ cmd-q");
  sf::Message* third = ctx->message = new sf::Message;
  EXPECT_THROW(sf::eval("enQ cmd-q"), sf::Xtcl);
  EXPECT_EQ(ctx->message, third);
  EXPECT_EQ(q->deQ(), m);
  EXPECT_EQ(q->deQ(), second);
  delete m;
  delete second;
  sf::setContext(nullptr);  // deletes third with the context

  // The current message's environment and dump.
  EXPECT_THROW(sf::eval("sfenv HttpRequestURL"), sf::Xtcl);  // no current message
  EXPECT_THROW(sf::eval("sf_dumpMsg"), sf::Xtcl);

  m = new sf::Message;
  m->setenv("HttpRequestURL", "/index.html");
  m->data = new sf::Buffer;
  m->data->append("AB");
  sf::getContext()->message = m;
  EXPECT_EQ(sf::eval("sfenv HttpRequestURL"), "/index.html");
  EXPECT_EQ(sf::eval("sfenv Missing"), "");
  testing::internal::CaptureStderr();
  sf::eval("sf_dumpMsg");
  std::string dumped = testing::internal::GetCapturedStderr();
  EXPECT_NE(dumped.find("41 42"), std::string::npos) << dumped;
  sf::setContext(nullptr);
  EXPECT_EQ(sf::eval("sfThreadId"), std::to_string(sf::getThreadId()));
}

// Quiescing is for good, so it runs in a child process; each check that
// fails has its own exit status.
int quiesceChild() {
  sftest::ensureInterp();
  sf::setVarInt("sf.qsize", 50);
  sf::MessageQ* busy = sf::mkQ("q-busy");
  sf::mkQ("q-idle");
  for (int i = 0; i < 40; ++i) busy->enQ(tagged(0, i));

  // The consumer needs the interpreter lock per message, as a dummy worker
  // does. A caller holding it, as a nested script command does, must not
  // wait (nor drop it); a caller without it waits until the queue is empty.
  // Taken before the consumer starts, so it cannot drain the queue first.
  sf::sfi_tclLock().lock();
  sf::sfi_tclLock().lock();
  std::atomic<int> drained{0};
  std::thread consumer([&] {
    for (;;) {
      delete busy->deQ();
      sf::eval("incr ::drained");
      ++drained;
    }
  });
  consumer.detach();
  sf::MessageQ::quiesceAll();
  sf::sfi_tclLock().unlock();
  if (!sf::sfi_tclHeldByCaller()) return 6;
  sf::sfi_tclLock().unlock();
  sf::MessageQ::quiesceAll();
  if (busy->size() != 0) return 1;
  if (drained.load() < 39) return 2;  // the last deQ may still be finishing
  if (!sf::MessageQ::quiescing()) return 3;

  sf::Message late;
  try {
    sf::getQ("q-idle")->enQ(&late);
    return 4;
  } catch (const sf::Xstate&) {
  }
  if (late.enqueuedAt != 0) return 5;  // refused before being touched
  return 0;
}

TEST(MessageQ, QuiesceRefusesNewWorkAndWaitsForDrain) {
  sftest::runInChild(quiesceChild);
}

}  // namespace
