// Named memory shared between processes, and a named mutex that processes
// share (Windows: file mappings and named mutexes; POSIX: shm_open segments).
//
// Names are given in the portable form "Global\name" (system-wide) or "name"
// (session-local). Where the system has a single name space the two forms
// name the same object.
#pragma once

#include <cstddef>
#include <string>

namespace sf {
namespace platform {

struct SharedMemory;

// Opens the named segment, creating it with size bytes when it does not
// exist. Objects are created readable and writable by owner and group only.
// *created tells whether this call made it; only then is it zero-filled, so a
// segment that other processes are using is left as they made it. Returns
// null (last_error() set) on failure.
SharedMemory* shared_memory_open(const std::string& name, std::size_t size, bool* created);
void* shared_memory_address(SharedMemory* m);
void shared_memory_close(SharedMemory* m);
// Removes the name (processes that have it open keep their mapping).
bool shared_memory_unlink(const std::string& name);

// A recursive mutex shared by every process that opens the same name. When
// its owner dies holding it, the next locker gets it (as with an abandoned
// Windows mutex) instead of waiting for ever.
struct ProcessMutex;
ProcessMutex* process_mutex_open(const std::string& name);  // null on failure
void process_mutex_close(ProcessMutex* m);
// 0 on success (including taking over an abandoned lock), else a system
// error code.
int process_mutex_lock(ProcessMutex* m);
int process_mutex_unlock(ProcessMutex* m);
// Removes the name of the mutex's segment.
bool process_mutex_unlink(const std::string& name);

}  // namespace platform
}  // namespace sf
