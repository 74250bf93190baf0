// Shared memory through shm_open, and the process-shared mutex as a robust
// pthread mutex in its own small segment.
//
// Creation is decided under flock on the segment's descriptor: the first
// process to see it empty sizes and initialises it, everybody else waits on
// the flock and then maps what the creator made. A creator that dies half-way
// drops its flock; the next process sees the work undone and does it again.
#include "sf/platform/shm.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

namespace sf {
namespace platform {

namespace {

const mode_t kMode = 0660;

// "Global\estat.._shm" and "estat.._shm" both become "/estat.._shm": POSIX
// shared memory has one system-wide name space.
std::string systemName(const std::string& name) {
  static const char kGlobal[] = "Global\\";
  std::string base = name;
  if (base.compare(0, sizeof kGlobal - 1, kGlobal) == 0) base.erase(0, sizeof kGlobal - 1);
  return "/" + base;
}

// Opens (creating if needed) and flocks the segment; returns the descriptor
// and its current size, or -1.
int openLocked(const std::string& name, off_t* size) {
  int fd = shm_open(systemName(name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kMode);
  if (fd < 0) return -1;
  while (flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR) {
      int e = errno;
      close(fd);
      errno = e;
      return -1;
    }
  }
  struct stat st;
  if (fstat(fd, &st) != 0) {
    int e = errno;
    close(fd);
    errno = e;
    return -1;
  }
  *size = st.st_size;
  return fd;
}

void closeLocked(int fd) {
  flock(fd, LOCK_UN);
  close(fd);
}

// Makes a segment found empty the requested size and owner/group-only
// (shm_open's mode is filtered through the umask).
bool sizeNew(int fd, std::size_t size) {
  if (fchmod(fd, kMode) != 0) return false;
  return ftruncate(fd, static_cast<off_t>(size)) == 0;
}

}  // namespace

struct SharedMemory {
  void* address;
  std::size_t size;
};

SharedMemory* shared_memory_open(const std::string& name, std::size_t size, bool* created) {
  off_t current = 0;
  int fd = openLocked(name, &current);
  if (fd < 0) return nullptr;
  *created = current == 0;
  bool ok = true;
  if (*created) {
    ok = sizeNew(fd, size);
  } else if (current < static_cast<off_t>(size)) {
    // Made smaller by someone else: grow it (new bytes read as zero) rather
    // than fault on access beyond its end.
    ok = ftruncate(fd, static_cast<off_t>(size)) == 0;
  }
  void* address = MAP_FAILED;
  if (ok) address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (address == MAP_FAILED) {
    int e = errno;
    closeLocked(fd);
    errno = e;
    return nullptr;
  }
  if (*created) memset(address, 0, size);
  closeLocked(fd);
  return new SharedMemory{address, size};
}

void* shared_memory_address(SharedMemory* m) {
  return m->address;
}

void shared_memory_close(SharedMemory* m) {
  if (!m) return;
  munmap(m->address, m->size);
  delete m;
}

bool shared_memory_unlink(const std::string& name) {
  return shm_unlink(systemName(name).c_str()) == 0;
}

namespace {
const std::uint32_t kMutexReady = 0x73664d58;  // set once the mutex is initialised

struct MutexSegment {
  std::uint32_t ready;
  pthread_mutex_t mutex;
};

bool initMutex(pthread_mutex_t* m) {
  pthread_mutexattr_t attr;
  if (pthread_mutexattr_init(&attr) != 0) return false;
  bool ok = pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED) == 0 &&
            pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST) == 0 &&
            pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) == 0 &&
            pthread_mutex_init(m, &attr) == 0;
  pthread_mutexattr_destroy(&attr);
  return ok;
}
}  // namespace

struct ProcessMutex {
  MutexSegment* segment;
};

ProcessMutex* process_mutex_open(const std::string& name) {
  off_t current = 0;
  int fd = openLocked(name, &current);
  if (fd < 0) return nullptr;
  bool ok = true;
  if (current < static_cast<off_t>(sizeof(MutexSegment))) {
    ok = sizeNew(fd, sizeof(MutexSegment));
  }
  void* address = MAP_FAILED;
  if (ok) {
    address = mmap(nullptr, sizeof(MutexSegment), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  }
  if (address == MAP_FAILED) {
    int e = errno;
    closeLocked(fd);
    errno = e;
    return nullptr;
  }
  MutexSegment* segment = static_cast<MutexSegment*>(address);
  // Under the flock nobody else initialises; a segment whose creator died
  // before marking it ready is initialised again.
  if (__atomic_load_n(&segment->ready, __ATOMIC_ACQUIRE) != kMutexReady) {
    if (!initMutex(&segment->mutex)) {
      int e = errno;
      munmap(address, sizeof(MutexSegment));
      closeLocked(fd);
      errno = e;
      return nullptr;
    }
    __atomic_store_n(&segment->ready, kMutexReady, __ATOMIC_RELEASE);
  }
  closeLocked(fd);
  return new ProcessMutex{segment};
}

void process_mutex_close(ProcessMutex* m) {
  if (!m) return;
  munmap(m->segment, sizeof(MutexSegment));
  delete m;
}

int process_mutex_lock(ProcessMutex* m) {
  int rc = pthread_mutex_lock(&m->segment->mutex);
  if (rc == EOWNERDEAD) {
    // The previous owner died holding it; whatever it was doing is over.
    rc = pthread_mutex_consistent(&m->segment->mutex);
  }
  return rc;
}

int process_mutex_unlock(ProcessMutex* m) {
  return pthread_mutex_unlock(&m->segment->mutex);
}

bool process_mutex_unlink(const std::string& name) {
  return shm_unlink(systemName(name).c_str()) == 0;
}

}  // namespace platform
}  // namespace sf
