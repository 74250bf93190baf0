// The shared statistics block: naming, attachment and the cross-process lock.
#include "sf/base/stats.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "sf/base/log.h"
#include "sf/base/logcontrol.h"
#include "sf/base/statdescriptors.h"
#include "sf/base/statsattach.h"
#include "sf/platform/clock.h"
#include "sf/platform/shm.h"
#include "sf/platform/syserr.h"
#include "sf/platform/thread.h"

namespace sf {

namespace {

const size_t kNameLimit = 255;

std::mutex g_attachLock;  // attachment and descriptor registration
bool g_attachTried = false;
int g_attachResult = -1;

platform::SharedMemory* g_block = nullptr;
platform::ProcessMutex* g_mutex = nullptr;
bool g_created = false;
FILE* g_estatLog = nullptr;

StatDescriptor g_timers[kMaxStatDescriptors];
StatDescriptor g_counts[kMaxStatDescriptors];
int g_timerCount = 0;
int g_countCount = 0;

// "Global\estat" or "estat", then TAVODATDIR made into one name, cut so that
// the longer suffix still fits in the limit.
std::string namePrefix() {
  const char* global = getenv("TAVO_WIN_MEM_GLOBAL");
  std::string name = (global && strcmp(global, "OFF") == 0) ? "estat" : "Global\\estat";
  if (const char* dir = getenv("TAVODATDIR")) {
    for (const char* p = dir; *p; ++p) name += (*p == '/' || *p == ':' || *p == '\\') ? '_' : *p;
  }
  const size_t longestSuffix = 4;  // "_shm"
  if (name.size() > kNameLimit - longestSuffix) name.resize(kNameLimit - longestSuffix);
  return name;
}

bool appendRow(const StatDescriptor& d) {
  if (d.kind == STAT_TIMER && g_timerCount < kMaxStatDescriptors) {
    g_timers[g_timerCount++] = d;
    return true;
  }
  if (d.kind == STAT_COUNT && g_countCount < kMaxStatDescriptors) {
    g_counts[g_countCount++] = d;
    return true;
  }
  return false;
}

void hookLock() {
  lockStats();
}
void hookUnlock() {
  unlockStats();
}
const LogFileLockHooks kLogHooks{hookLock, hookUnlock};

}  // namespace

std::string statsBlockName() {
  return namePrefix() + "_shm";
}
std::string statsMutexName() {
  return namePrefix() + "_mx";
}

bool registerStatDescriptor(const StatDescriptor& d) {
  std::lock_guard<std::mutex> guard(g_attachLock);
  return appendRow(d);
}

const StatDescriptor* statDescriptors(StatKind kind, int* count) {
  std::lock_guard<std::mutex> guard(g_attachLock);
  if (kind == STAT_TIMER) {
    *count = g_timerCount;
    return g_timers;
  }
  *count = kind == STAT_COUNT ? g_countCount : 0;
  return g_counts;
}

int sfi_attachStats() {
  std::lock_guard<std::mutex> guard(g_attachLock);
  if (g_attachTried) return g_attachResult;
  g_attachTried = true;

  if (const char* path = getenv("ESTAT_LOG")) {
    if (*path) {
      g_estatLog = fopen(path, "ab");
      if (!g_estatLog) SF_LOG(1, "cannot open ESTAT_LOG file %s", path);
    }
  }
  for (const StatDescriptor& d : kStatTimers) appendRow(d);
  for (const StatDescriptor& d : kStatCounts) appendRow(d);

  std::string blockName = statsBlockName();
  g_block = platform::shared_memory_open(blockName, kStatsBlockSize, &g_created);
  if (!g_block) {
    SF_SYSFAIL(-1, "shared_memory_open(blockName, kStatsBlockSize, &g_created)");
    return g_attachResult = -1;
  }
  std::string mutexName = statsMutexName();
  g_mutex = platform::process_mutex_open(mutexName);
  if (!g_mutex) {
    SF_SYSFAIL(-1, "process_mutex_open(mutexName)");
    platform::shared_memory_close(g_block);
    g_block = nullptr;
    return g_attachResult = -1;
  }
  if (g_estatLog) {
    std::string now = platform::local_time_text(time(nullptr), "%Y-%m-%d.%H:%M:%S");
    fprintf(g_estatLog, "%s process %u attached %s (%s)\n", now.c_str(),
            static_cast<unsigned>(platform::process_id()), blockName.c_str(),
            g_created ? "created" : "existing");
    fflush(g_estatLog);
  }
  sfi_setLogFileLockHooks(&kLogHooks);
  return g_attachResult = 0;
}

bool statsAttached() {
  return g_block != nullptr;
}

void* statsBlock() {
  return g_block ? platform::shared_memory_address(g_block) : nullptr;
}

bool statsCreatedBlock() {
  return g_block && g_created;
}

// No logging here: the log file sink itself runs inside this lock.
void lockStats() {
  if (g_mutex) platform::process_mutex_lock(g_mutex);
}

void unlockStats() {
  if (g_mutex) platform::process_mutex_unlock(g_mutex);
}

FILE* statsLog() {
  return g_estatLog;
}

}  // namespace sf
