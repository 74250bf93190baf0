// A reader thread's mailbox: connections given back or closed by other
// threads.
#include "sf/net/net.h"
#include "sf/platform/thread.h"
#include "sf/work/wakeupbatch.h"

namespace sf {

void ReaderMailbox::post(i_Connection* rec) {
  if (!open_.load() || thread_.load() == platform::thread_id()) return;
  bool first;
  {
    std::lock_guard<std::mutex> guard(lock_);
    first = posted_.empty();
    posted_.emplace_back(rec);
  }
  // The reader empties the mailbox after it has read the wake-up, so a
  // mailbox that already holds a connection has a wake-up on its way.
  if (first) WakeupBatch::ring(&wakeup);
}

std::vector<Connection> ReaderMailbox::take() {
  std::vector<Connection> out;
  std::lock_guard<std::mutex> guard(lock_);
  out.swap(posted_);
  return out;
}

void ReaderMailbox::open(std::uint32_t thread) {
  thread_ = thread;
  open_ = true;
}

void ReaderMailbox::close() {
  open_ = false;
  thread_ = 0;
  std::vector<Connection> left = take();  // released here, outside the lock
}

}  // namespace sf
