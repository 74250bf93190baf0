// Workers, the threads that process messages, and thread helpers.
//
// A Worker loops on one queue for the life of its thread: it takes a message,
// processes it and disposes of it. A failure while processing never leaves
// the loop: it becomes a reject on the message's connection (when it has one)
// and the worker goes on with the next message. The thread's watchdog is
// armed only around processing.
//
// Subclasses override processMessage1 (fill the reply; the base writes it to
// the message's connection) or processMessage (full control). The base
// processMessage1 refuses every message with Xstate, so a plain Worker
// rejects everything.
#pragma once

#include <atomic>
#include <string>

namespace sf {

class MessageQ;
struct Message;
struct Buffer;

class Worker {
 public:
  MessageQ* queue;
  // Close notices are disposed of without processing while this is true.
  bool skipCloseNotices;

  // Serves the registered queue queueName; throws Xinvalid when there is none.
  explicit Worker(const char* queueName);
  Worker(const Worker&) = default;
  Worker& operator=(const Worker&) = default;
  Worker(Worker&&) = default;
  Worker& operator=(Worker&&) = default;
  virtual ~Worker() = default;

  // Runs processMessage1 with an empty reply and writes the reply to
  // msg->conn. Nothing is written when processMessage1 throws.
  virtual void processMessage(Message* msg);
  virtual void processMessage1(Message* msg, Buffer& reply);
  // A hook for subclasses; does nothing here.
  virtual void reject();

  // The worker loop: never returns. The calling thread is dedicated to it.
  [[noreturn]] void run();

  // One pass of the loop for a message already taken off the queue: makes it
  // the context's message, processes it (or skips a close notice), turns a
  // failure into a reject, and disposes of it (dispose).
  void handle(Message* msg);
  // The end of every message: unreserves its connection if the reader had
  // reserved it (wasReserved, read before processing began) and deletes it
  // unless keep is set.
  void dispose(Message* msg, bool wasReserved);
};

// A worker for trying a configuration out: logs each message and evaluates
// script with it as the current message, or dumps its data to standard error
// when there is no script. Writes no reply of its own. A script that is just
// "sf_echo" is not evaluated while sf_echo is the library's command: the
// message is echoed directly, without the Tcl lock.
class DummyWorker : public Worker {
 public:
  const char* script;  // may be null; must outlive the worker

  DummyWorker(const char* queueName, const char* script_);
  void processMessage(Message* msg) override;

 private:
  // Whether sf_echo is still the library's; null unless script is "sf_echo".
  const std::atomic<bool>* echoBuiltIn;
};

// Starts a detached thread running fn(arg), with the default stack size.
// Nothing is returned; a failure to start is logged at level 0.
void startThread(void (*fn)(void*), void* arg);

// The calling thread's system identifier.
unsigned int getThreadId();

// "\\.\pipe\id<a>-<b>", cut to 31 characters: the pipe name of a pair of
// cooperating processes.
std::string getUniqueP2PPipeName(int a, int b);

}  // namespace sf
