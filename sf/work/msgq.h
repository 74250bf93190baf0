// Named, bounded message queues between threads.
//
// A MessageQ carries Message pointers first in, first out, from any number of
// producers (the reader, timers, close notices, script commands) to any number
// of consumers (workers). enQ never blocks: a full queue, or any enQ once the
// library is quiescing, throws Xstate and leaves the message with the caller.
// deQ blocks until a message is there.
//
// The ring keeps one slot empty, so a queue of capacity N holds at most N - 1
// messages (sf.qsize 100, the default, gives 99). Capacity 1 accepts nothing.
//
// Queues made with mkQ are registered by name for the life of the process and
// found with getQ. quiesceAll refuses all further enqueueing and waits until
// every registered queue has been drained by its consumers.
#pragma once

namespace sf {

namespace platform {
class Wakeup;
}
struct Message;
struct QueueState;

class MessageQ {
 public:
  // A queue with capacity ring slots. Throws Xinvalid when capacity is below
  // 1, Xsys when the system cannot make its mutex or semaphore. Not
  // registered: use mkQ for a named, findable queue.
  MessageQ(int capacity, const char* name);
  // One owner per queue: a copy would destroy it twice.
  MessageQ(const MessageQ&) = delete;
  MessageQ& operator=(const MessageQ&) = delete;
  ~MessageQ();

  // Appends msg and returns 0. Throws Xstate, without touching msg, when the
  // queue is full or the library is quiescing.
  int enQ(Message* msg);
  // Waits for a message, removes it and returns it (oldest first).
  Message* deQ();
  // Removes and returns the oldest message if one is there; null otherwise.
  Message* tryDeQ();
  // For a consumer that waits on an event set rather than in deQ: the next
  // enQ notifies w (and forgets it), unless unwatch(w) comes first. The
  // queue is looked at and w hung on it in one step, so that no message goes
  // unannounced: false, without watching, when a message is there already
  // (tryDeQ takes it, or takes it a moment later, once its producer has
  // finished releasing it). Watchers are woken one per enQ, oldest first;
  // one that was woken and unwatches while messages remain passes its
  // wake-up on to the next watcher. An enQ that took w off just before
  // unwatch may still ring it after unwatch returns: w must stay valid.
  bool watch(platform::Wakeup* w);
  void unwatch(platform::Wakeup* w);

  const char* name() const;
  int capacity() const;
  // Messages queued at this moment.
  int size() const;

  // Refuses every later enQ, on every queue, and waits until each registered
  // queue is empty. A caller holding the interpreter lock (a script command)
  // does not wait: consumers that evaluate scripts need that lock to drain,
  // so the waiting goes to a thread of its own.
  static void quiesceAll();
  // True once quiesceAll has begun.
  static bool quiescing();

 private:
  static void waitForEmptyQueues(void*);
  Message* take();
  QueueState* q;
};

// Makes and registers a queue of capacity sf.qsize (default 100, read at each
// call). Throws Xinvalid when name is already registered or the capacity is
// below 1.
MessageQ* mkQ(const char* name);

// The registered queue called name, or null (logged at level 2).
MessageQ* getQ(const char* name);

}  // namespace sf
