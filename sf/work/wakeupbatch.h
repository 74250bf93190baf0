// Wake-ups held until a thread's batch of work ends. Internal to the library.
//
// A thread that works through a batch (one pass of a reader or forwarding
// worker loop) and wakes other threads as it goes would be preempted by each
// thread it wakes, which then finds one piece of work. Inside a WakeupBatch
// the wake-ups are held, each at most once, and rung when the batch ends,
// just before the thread waits again: the woken threads find the whole
// batch's work. Outside a batch a wake-up is rung at once.
#pragma once

namespace sf {

namespace platform {
class Wakeup;
}

class WakeupBatch {
 public:
  // Begins the calling thread's batch; an inner batch joins the outer one.
  WakeupBatch();
  // Ends it: rings what it held.
  ~WakeupBatch();
  WakeupBatch(const WakeupBatch&) = delete;
  WakeupBatch& operator=(const WakeupBatch&) = delete;

  // Rings w now, or when the calling thread's batch ends. w must outlive
  // the batch.
  static void ring(platform::Wakeup* w);
};

}  // namespace sf
