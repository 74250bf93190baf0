// The shared statistics block.
//
// Processes of one installation share a small named memory block in which
// the host keeps timing and count statistics, and a named cross-process
// mutex that serialises access to it. sf::init attaches the block; the host
// fills it. While attached, the same mutex also serialises the log file sink,
// so processes that share a log directory write and rotate in turn.
//
// Names: "Global\estat" (or "estat" when TAVO_WIN_MEM_GLOBAL is "OFF"), then
// TAVODATDIR with every '/', ':' and '\' made '_', then "_shm" for the block
// and "_mx" for the mutex; at most 255 characters.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

namespace sf {

const std::size_t kStatsBlockSize = 20480;
// The block holds two regions; the second starts here.
const std::size_t kStatsSecondRegion = 12288;
// Each of the two descriptor arrays holds at most this many rows.
const int kMaxStatDescriptors = 512;

enum StatKind { STAT_TIMER = 1, STAT_COUNT = 2 };

// One counter of the host's vocabulary: a short operation name, its kind, a
// group and an index within the group, and a one-line description.
struct StatDescriptor {
  const char* name;
  int kind;
  int group;
  int index;
  const char* description;
};

// True once attached.
bool statsAttached();
// The block's first byte, or null when not attached.
void* statsBlock();
// True when this process created the block (and so zeroed it).
bool statsCreatedBlock();

// Waits without limit for the cross-process mutex; nothing when there is
// none. Recursive for the calling thread. A holder that died releases it.
void lockStats();
void unlockStats();

// The names the block and its mutex get from the environment now.
std::string statsBlockName();
std::string statsMutexName();

// Appends a row to the array of its kind. False when that array is full or
// the kind is unknown.
bool registerStatDescriptor(const StatDescriptor& d);
// The registered rows of a kind, and how many there are.
const StatDescriptor* statDescriptors(StatKind kind, int* count);

// The ESTAT_LOG stream, or null when none was named or it would not open.
FILE* statsLog();

}  // namespace sf
