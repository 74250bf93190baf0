// Named, bounded message queues and their registry.
#include "sf/work/msgq.h"

#include <atomic>
#include <cinttypes>
#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sf/base/locks.h"
#include "sf/base/log.h"
#include "sf/platform/sync.h"
#include "sf/runtime.h"
#include "sf/script/interp.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"
#include "sf/work/message.h"
#include "sf/work/queuefull.h"
#include "sf/work/wakeupbatch.h"
#include "sf/work/worker.h"

namespace sf {

namespace {
// Set when a queue refuses this thread's message for lack of room; a reader
// takes it to answer the client with an overload reply.
thread_local bool t_queueFull = false;
}  // namespace

void sfi_noteQueueFull() {
  t_queueFull = true;
}

bool sfi_takeQueueFull() {
  bool full = t_queueFull;
  t_queueFull = false;
  return full;
}

struct QueueState {
  std::string name;
  std::int32_t capacity;
  // Changed under mx; atomic only so that the log lines of enQ, written
  // before it takes mx, read them without a data race.
  std::atomic<std::int32_t> head;  // next message to take
  std::atomic<std::int32_t> tail;  // next free slot
  Message** ring SF_PT_GUARDED_BY(mx);
  platform::CountingSemaphore* count;  // queued messages; consumers wait here
  platform::RecursiveMutex* mx;        // guards head, tail, ring and watchers
  platform::AutoEvent* emptied;        // a quiescing queue became empty
  // Consumers waiting elsewhere for the next enQ (watch), oldest first.
  std::vector<platform::Wakeup*> watchers SF_GUARDED_BY(mx);
};

namespace {

// Written once, by quiesceAll; read by every enQ and deQ.
std::atomic<bool> g_quiescing{false};

// Queues are normally made while the configuration runs, before producers and
// consumers start, but a script thread may make one later: the registry is
// locked so that a lookup never sees a map being changed.
std::mutex& registryLock() {
  static std::mutex m;
  return m;
}
// Never destroyed: queues outlive every static destructor.
std::map<std::string, MessageQ*>& registry() {
  static auto* queues = new std::map<std::string, MessageQ*>;
  return *queues;
}

int traceEnQ = 0, traceEnQfull = 0, traceDeQ = 0;

// A release that fails means the lock discipline is broken.
void release(platform::RecursiveMutex* mx) SF_RELEASE(mx) {
  if (platform::mutex_unlock(mx) != 0) sf_fatal("ReleaseMutex");
}

inline std::uintptr_t addr(const Message* m) {
  return reinterpret_cast<std::uintptr_t>(m);
}

}  // namespace

MessageQ::MessageQ(int capacity, const char* name) : q(nullptr) {
  if (capacity < 1) {
    SF_LOG(1, "queue %s: capacity %d is not usable, it must be at least 1", name, capacity);
    SF_THROW("+MsgQ", Xinvalid());
  }
  QueueState* s = new QueueState;
  s->name = name;
  s->capacity = capacity;
  s->head = 0;
  s->tail = 0;
  s->ring = new Message*[capacity]();
  s->mx = platform::mutex_create();
  if (!s->mx) {
    delete[] s->ring;
    delete s;
    SF_THROW("+MsgQ", Xsys("CreateMutex"));
  }
  s->count = platform::semaphore_create(0, capacity);
  if (!s->count) {
    platform::mutex_destroy(s->mx);
    delete[] s->ring;
    delete s;
    SF_THROW("+MsgQ", Xsys("CreateSemaphore"));
  }
  s->emptied = platform::event_create();
  q = s;
}

MessageQ::~MessageQ() {
  if (!q) return;
  platform::semaphore_destroy(q->count);
  platform::mutex_destroy(q->mx);
  if (q->emptied) platform::event_destroy(q->emptied);
  delete[] q->ring;
  delete q;
  q = nullptr;
}

const char* MessageQ::name() const {
  return q->name.c_str();
}

int MessageQ::capacity() const {
  return q->capacity;
}

int MessageQ::size() const {
  platform::mutex_lock(q->mx);
  int n = (q->tail.load() - q->head.load() + q->capacity) % q->capacity;
  release(q->mx);
  return n;
}

bool MessageQ::quiescing() {
  return g_quiescing.load();
}

int MessageQ::enQ(Message* msg) {
  if (sfi_on(10)) trace(__FILE__, &traceEnQ, __LINE__, "enQ", q->name.c_str(), 0, q->tail, 0, 0);
  SF_LOG(5, "enQ %s %d %" PRIxPTR, q->name.c_str(), q->tail.load(), addr(msg));
  if (g_quiescing.load()) SF_THROW("enQ", Xstate());
  if (msg) msg->enqueuedAt = time(nullptr);

  if (platform::mutex_lock(q->mx) != 0) SF_THROW("enQ", Xsys("WaitForSingleObject"));
  std::int32_t tail = q->tail.load(std::memory_order_relaxed);
  std::int32_t next = (tail + 1) % q->capacity;
  std::int32_t head = q->head.load(std::memory_order_relaxed);
  bool full = next == head;
  platform::Wakeup* watcher = nullptr;
  if (!full) {
    q->ring[tail] = msg;
    q->tail = next;
    if (!q->watchers.empty()) {
      watcher = q->watchers.front();
      q->watchers.erase(q->watchers.begin());
    }
  }
  release(q->mx);
  // The count goes up once the mutex is free: a consumer it wakes takes the
  // mutex next, and would otherwise wake only to wait for the producer. The
  // ring holds at most capacity - 1 messages, so the count can never pass
  // its maximum; if it does, the queue's bookkeeping is broken.
  if (!full && !platform::semaphore_release(q->count)) sf_fatal("ReleaseSemaphore");
  // Nothing of the queue is touched from here on: a consumer may have taken
  // the message and destroyed the queue.
  if (watcher) WakeupBatch::ring(watcher);
  if (full) {
    // Logged once the mutex is released: logging may need the interpreter
    // lock, which a script command waiting for this mutex may hold.
    if (sfi_on(10))
      trace(__FILE__, &traceEnQfull, __LINE__, "enQfull", q->name.c_str(), 0, head, 0, 0);
    SF_LOG(5, "enQfull %s %d %" PRIxPTR, q->name.c_str(), head, addr(msg));
    sfi_noteQueueFull();
    SF_THROW("enQ", Xstate());
  }
  return 0;
}

Message* MessageQ::deQ() {
  platform::semaphore_wait(q->count);
  return take();
}

Message* MessageQ::tryDeQ() {
  return platform::semaphore_wait_ms(q->count, 0) ? take() : nullptr;
}

bool MessageQ::watch(platform::Wakeup* w) {
  platform::mutex_lock(q->mx);
  bool empty = q->head.load(std::memory_order_relaxed) == q->tail.load(std::memory_order_relaxed);
  if (empty) q->watchers.push_back(w);
  release(q->mx);
  return empty;
}

void MessageQ::unwatch(platform::Wakeup* w) {
  platform::mutex_lock(q->mx);
  for (auto it = q->watchers.begin(); it != q->watchers.end(); ++it)
    if (*it == w) {
      q->watchers.erase(it);
      break;
    }
  release(q->mx);
}

// Removes the oldest message once the count has been taken for it.
Message* MessageQ::take() {
  if (platform::mutex_lock(q->mx) != 0) SF_THROW("deQ", Xsys("WaitForSingleObject-mx"));
  Message* msg = q->ring[q->head.load(std::memory_order_relaxed)];
  std::int32_t head = (q->head.load(std::memory_order_relaxed) + 1) % q->capacity;
  q->head.store(head, std::memory_order_relaxed);
  if (g_quiescing.load() && head == q->tail.load(std::memory_order_relaxed))
    platform::event_notify(q->emptied);
  release(q->mx);
  if (msg) msg->dequeuedAt = time(nullptr);
  if (sfi_on(10)) trace(__FILE__, &traceDeQ, __LINE__, "deQ", q->name.c_str(), 0, head, 0, 0);
  SF_LOG(5, "deQ %s %d %" PRIxPTR " ", q->name.c_str(), head, addr(msg));
  return msg;
}

// Waits until every queue has been emptied once quiescing started.
void MessageQ::waitForEmptyQueues(void*) {
  std::map<std::string, MessageQ*> queues;
  {
    std::lock_guard<std::mutex> guard(registryLock());
    queues = registry();
  }
  for (auto& entry : queues) {
    QueueState* s = entry.second->q;
    SF_LOG(2, "quiesce: waiting for queue %s to empty", s->name.c_str());
    // The emptying deQ signals the event even if nobody waits yet, so a
    // queue that empties between the check and the wait still releases us.
    // The event releases one waiter only: when two stops wait at once (a
    // script's and a signal's), the other one sees the empty ring at its
    // next look.
    for (;;) {
      platform::mutex_lock(s->mx);
      bool empty = s->head == s->tail;
      release(s->mx);
      if (empty) break;
      platform::event_wait_ms(s->emptied, 200);
    }
  }
}

void MessageQ::quiesceAll() {
  SF_LOG(4, "quiesceAll - about to clean up Q's.");
  g_quiescing.store(true);
  // Consumers may need the interpreter (a worker evaluating a script) to
  // drain their queue: a caller holding it leaves the waiting to a thread.
  if (sfi_tclHeldByCaller())
    startThread(waitForEmptyQueues, nullptr);
  else
    waitForEmptyQueues(nullptr);
}

namespace {
bool registered(const char* name) {
  std::lock_guard<std::mutex> guard(registryLock());
  return registry().count(name) != 0;
}
}  // namespace

// Nothing is logged while the registry lock is held: logging may take the
// interpreter lock, which a script command calling getQ already holds.
MessageQ* mkQ(const char* name) {
  int capacity = getVarInt("sf.qsize", 100);
  if (registered(name)) SF_THROW("mkQ", Xinvalid());
  MessageQ* queue = new MessageQ(capacity, name);
  bool raced;
  {
    std::lock_guard<std::mutex> guard(registryLock());
    raced = !registry().emplace(name, queue).second;
  }
  if (raced) {
    delete queue;
    SF_THROW("mkQ", Xinvalid());
  }
  SF_LOG(2, "mkQ: created queue %s", name);
  return queue;
}

MessageQ* getQ(const char* name) {
  {
    std::lock_guard<std::mutex> guard(registryLock());
    auto it = registry().find(name);
    if (it != registry().end()) return it->second;
  }
  SF_LOG(2, "getQ: queue %s not found", name);
  return nullptr;
}

}  // namespace sf
