// sf::Buffer, the library's byte container, and sf::ExtBuffer over caller
// memory.
//
// A Buffer is a run of bytes with an explicit used length (size()) and
// capacity. Growth allocates 20 % headroom over the request and is refused
// above the process-wide ceiling (setBufferCeiling, default 8 MiB), so a
// hostile peer cannot make the process allocate without bound. Bytes beyond
// size() are undefined. A Buffer is not locked: one thread at a time.
//
// An ExtBuffer is the same interface over memory the caller owns and keeps;
// it never grows or frees it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "sf/sferr.h"

namespace sf {

constexpr int kDefaultBufferCeiling = 8388608;

// Sets the largest Buffer, in bytes (negative: no limit). The constructor and
// extend each fix the ceiling at their first use, from the value set last
// before it; later calls change nothing. The library's start-up keeps it
// equal to sf.maxbuf until then.
void setBufferCeiling(int bytes);

struct Buffer {
  char* data;
  std::uint64_t used;
  std::uint64_t capacity;

  // Allocates n bytes (none for 0). Throws Xbounds above the ceiling, Xmem
  // when the heap refuses.
  explicit Buffer(size_t n = 0);
  virtual ~Buffer();
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  // Ensures capacity >= n (new capacity n + n/5); never changes size().
  virtual void extend(size_t n);
  // Frees the memory; size and capacity become 0.
  virtual void release();

  // Sets size() to n, growing if needed; new bytes are not cleared.
  void resize(size_t n);
  size_t size() const { return used; }

  void append(const void* p, size_t n);
  void append(const char* s);  // without the terminating zero

  // Inserts n bytes at position at (at == size() appends); throws Xbounds
  // when at > size().
  void insert(size_t at, const void* p, size_t n);
  void insert(size_t at, const char* s);

  // Removes up to n bytes at position at; throws Xbounds when at >= size(),
  // even for n == 0.
  void remove(size_t at, size_t n);

  // Pointer to byte i; i >= size() first grows size() to i + 1.
  char* getPtr(size_t i);
  char& operator[](size_t i) { return *getPtr(i); }
  // Pointer to byte i without growing: null when nothing is allocated, data
  // for i == 0, else Xbounds when i >= size().
  inline const char* getROPtr(size_t i) const;

  // Lowercase hex, 24 bytes a line aligned on absolute indexes.
  void dump(FILE* out, int from) const;
  // Offset, 16 uppercase hex bytes and their characters per line.
  void dumpBin(FILE* out, int from) const;
};

struct ExtBuffer : Buffer {
  ExtBuffer(void* mem, int capacity_, int used_);
  ~ExtBuffer() override;
  // Throws Xmem when n exceeds the fixed capacity.
  void extend(size_t n) override;
  // Resets the length only; the caller's memory stays.
  void release() override;
};

// Defined in the header, so that its throw-site record names it.
inline const char* Buffer::getROPtr(size_t offset) const {
  if (!data) return nullptr;
  if (offset == 0 || offset < used) return data + offset;
  std::uint64_t used_sz = used;
  SF_THROW("getRO", Xbounds(static_cast<int>(used_sz), static_cast<int>(offset)));
}

}  // namespace sf
