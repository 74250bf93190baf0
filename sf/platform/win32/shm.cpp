// Named shared memory as a paging-file-backed file mapping, and the
// process-shared mutex as a named kernel mutex. "Global\name" and "name" are
// different objects (system-wide and session-local), as the system defines.
#include "sf/platform/shm.h"

#include <windows.h>

namespace sf {
namespace platform {

struct SharedMemory {
  HANDLE mapping;
  void* address;
};

// The system zero-fills a new mapping and says whether the name existed, so
// creation needs no lock of its own.
SharedMemory* shared_memory_open(const std::string& name, std::size_t size, bool* created) {
  const std::uint64_t size64 = size;
  HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE,
                                      static_cast<DWORD>(size64 >> 32), static_cast<DWORD>(size64),
                                      name.c_str());
  if (!mapping) return nullptr;
  *created = GetLastError() != ERROR_ALREADY_EXISTS;
  void* address = MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, size);
  if (!address) {
    DWORD e = GetLastError();
    CloseHandle(mapping);
    SetLastError(e);
    return nullptr;
  }
  return new SharedMemory{mapping, address};
}

void* shared_memory_address(SharedMemory* m) {
  return m->address;
}

void shared_memory_close(SharedMemory* m) {
  if (!m) return;
  UnmapViewOfFile(m->address);
  CloseHandle(m->mapping);
  delete m;
}

// A mapping's name goes with its last handle; there is nothing to remove.
bool shared_memory_unlink(const std::string&) {
  return true;
}

struct ProcessMutex {
  HANDLE handle;
};

ProcessMutex* process_mutex_open(const std::string& name) {
  HANDLE h = CreateMutexA(nullptr, FALSE, name.c_str());
  return h ? new ProcessMutex{h} : nullptr;
}

void process_mutex_close(ProcessMutex* m) {
  if (!m) return;
  CloseHandle(m->handle);
  delete m;
}

int process_mutex_lock(ProcessMutex* m) {
  switch (WaitForSingleObject(m->handle, INFINITE)) {
    case WAIT_OBJECT_0:
    case WAIT_ABANDONED:  // the previous owner died holding it; it is ours now
      return 0;
    default:
      return static_cast<int>(GetLastError());
  }
}

int process_mutex_unlock(ProcessMutex* m) {
  return ReleaseMutex(m->handle) ? 0 : static_cast<int>(GetLastError());
}

bool process_mutex_unlink(const std::string&) {
  return true;
}

}  // namespace platform
}  // namespace sf
