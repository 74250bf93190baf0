// Wake-ups held until a thread's batch of work ends.
#include "sf/work/wakeupbatch.h"

#include <algorithm>
#include <vector>

#include "sf/platform/events.h"

namespace sf {

namespace {

struct Held {
  int depth = 0;
  std::vector<platform::Wakeup*> wakeups;
};

thread_local Held t_held;

}  // namespace

WakeupBatch::WakeupBatch() {
  ++t_held.depth;
}

WakeupBatch::~WakeupBatch() {
  if (--t_held.depth > 0) return;
  for (platform::Wakeup* w : t_held.wakeups) w->notify();
  t_held.wakeups.clear();
}

void WakeupBatch::ring(platform::Wakeup* w) {
  std::vector<platform::Wakeup*>& held = t_held.wakeups;
  if (t_held.depth == 0)
    w->notify();
  else if (std::find(held.begin(), held.end(), w) == held.end())
    held.push_back(w);
}

}  // namespace sf
