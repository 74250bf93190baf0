// The library's built-in counter descriptors: the host installation's
// vocabulary of timed operations and counted occurrences.
#pragma once

#include "sf/base/stats.h"

namespace sf {

extern const StatDescriptor kStatTimers[59];
extern const StatDescriptor kStatCounts[56];

}  // namespace sf
