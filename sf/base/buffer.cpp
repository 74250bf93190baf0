// sf::Buffer and sf::ExtBuffer.
#include "sf/base/buffer.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "sf/base/log.h"
#include "sf/sferr.h"

namespace sf {

namespace {

// What the ceiling caches take at their first use.
std::atomic<int> g_ceilingSetting{kDefaultBufferCeiling};

// The ceiling is read once per cache; the constructor and extend each keep
// their own, filled at their own first call. Sign extension makes a negative
// setting act as no ceiling against unsigned requests.
std::uint64_t ceilingOf(int cached) {
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(cached));
}

// One cached reading of the setting, taken by the first call that needs it
// and kept for the life of the process; only the first value published is
// ever used.
class CeilingCache {
 public:
  int get() {
    std::int64_t v = value_.load(std::memory_order_acquire);
    if (v != kUnread) return static_cast<int>(v);
    std::int64_t read = g_ceilingSetting.load(std::memory_order_acquire);
    std::int64_t expected = kUnread;
    if (value_.compare_exchange_strong(expected, read, std::memory_order_acq_rel))
      return static_cast<int>(read);
    return static_cast<int>(expected);
  }

 private:
  static constexpr std::int64_t kUnread = INT64_MIN;
  std::atomic<std::int64_t> value_{kUnread};
};

// The constructor and extend each keep their own cache.
CeilingCache g_allocCeiling;
CeilingCache g_extendCeiling;

// The hint is composed and dropped, never written anywhere; operators find
// the ceiling in the throw-site record instead.
void composeHint(int ceiling, size_t n, const char* where) {
  char hint[160];  // the longest text, with two ten-digit numbers, is 85 bytes
  snprintf(hint, sizeof hint, ": HINT: increase sf.maxbuf(%d), to greater than (%d). %s", ceiling,
           static_cast<int>(n), where);
  (void)hint;
}

}  // namespace

void setBufferCeiling(int bytes) {
  g_ceilingSetting.store(bytes, std::memory_order_release);
}

Buffer::Buffer(size_t sz) : data(nullptr), used(0), capacity(sz) {
  if (sz == 0) return;
  const int max_alloc = g_allocCeiling.get();
  if (sz > ceilingOf(max_alloc)) {
    composeHint(max_alloc, sz, "buffer alloc");
    SF_THROW("buffer alloc", Xbounds(max_alloc, static_cast<int>(sz)));
  }
  data = static_cast<char*>(malloc(sz));
  if (!data) SF_THROW("buffer alloc", Xmem(int(sz)));
}

Buffer::~Buffer() {
  if (data) free(data);
  data = nullptr;
}

void Buffer::extend(size_t ix) {
  if (ix <= capacity) return;
  const int max_alloc = g_extendCeiling.get();
  if (ix > ceilingOf(max_alloc)) {
    composeHint(max_alloc, ix, "extend");
    SF_THROW("extend", Xbounds(max_alloc, static_cast<int>(ix)));
  }
  size_t newCapacity = ix + ix / 5;
  if (!data) {
    // Unchecked on purpose: a failed first allocation leaves data null and
    // the copy that follows fails.
    data = static_cast<char*>(malloc(newCapacity));
  } else {
    char* grown = static_cast<char*>(realloc(data, newCapacity));
    if (!grown) {
      ix = newCapacity;
      SF_THROW("extend", Xmem(int(ix)));
    }
    data = grown;
  }
  capacity = newCapacity;
}

void Buffer::release() {
  if (data) free(data);
  data = nullptr;
  used = 0;
  capacity = 0;
}

void Buffer::resize(size_t n) {
  if (n > capacity) extend(n);
  used = n;
}

void Buffer::append(const void* p, size_t n) {
  extend(used + n);
  if (n) memcpy(data + used, p, n);
  used += n;
}

void Buffer::append(const char* s) {
  append(s, strlen(s));
}

void Buffer::insert(size_t index_, const void* p, size_t n) {
  std::uint64_t used_sz = used;
  if (index_ > used_sz) {
    // The record quotes this expression as written, inner space included.
    // clang-format off
    SF_THROW("insert", Xbounds(static_cast<int>(used_sz), static_cast<int>(index_) ));
    // clang-format on
  }
  extend(used_sz + n);
  char* tail = nullptr;
  if (index_ != used_sz) {
    tail = static_cast<char*>(malloc(used_sz - index_));
    if (!tail) SF_THROW("insert", Xmem(static_cast<int>(used_sz - index_)));
    memcpy(tail, data + index_, used_sz - index_);
  }
  if (n) memcpy(data + index_, p, n);
  if (tail) {
    memcpy(data + index_ + n, tail, used_sz - index_);
    free(tail);
  }
  used = used_sz + n;
}

void Buffer::insert(size_t at, const char* s) {
  insert(at, s, strlen(s));
}

void Buffer::remove(size_t index_, size_t n) {
  std::uint64_t used_sz = used;
  if (index_ >= used_sz) {
    // The record quotes this expression as written, inner space included.
    // clang-format off
    SF_THROW("remove", Xbounds(static_cast<int>(used_sz), static_cast<int>(index_) ));
    // clang-format on
  }
  std::uint64_t k = used_sz - index_ < n ? used_sz - index_ : n;
  if (k > 0 && index_ + k < used_sz)
    memmove(data + index_, data + index_ + k, used_sz - index_ - k);
  used = used_sz - k;
}

char* Buffer::getPtr(size_t i) {
  if (i >= used) resize(i + 1);
  return const_cast<char*>(getROPtr(i));
}

void Buffer::dump(FILE* out, int from) const {
  std::uint64_t start = static_cast<std::uint64_t>(static_cast<std::int64_t>(from));
  if (start >= used) {
    fputc('\n', out);
    return;
  }
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
  for (std::uint64_t i = start; i < used; ++i) {
    if (i % 24 == 0) fputc('\n', out);
    fprintf(out, "%02x ", bytes[i]);
  }
  fputc('\n', out);
}

void Buffer::dumpBin(FILE* out, int from) const {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(getROPtr(from));
  // getROPtr has refused a start past the end unless nothing is allocated;
  // then there is nothing to list.
  std::uint64_t start = static_cast<std::uint64_t>(static_cast<std::int64_t>(from));
  std::uint64_t len = p && start < used ? used - start : 0;
  for (std::uint64_t off = 0;; off += 16, p += 16) {
    bool last = false;
    fprintf(out, "0x%5.5X: ", static_cast<unsigned>(off));
    for (std::uint64_t k = off; k < off + 16; ++k) {
      if (k < len) {
        fprintf(out, "%2.2X ", p[k - off]);
      } else {
        fputs("   ", out);
        last = true;
      }
    }
    for (std::uint64_t k = off; k < off + 16; ++k) {
      if (k < len) {
        unsigned char c = p[k - off];
        fputc(c >= 20 && c <= 127 ? c : '.', out);
      } else {
        fputc(' ', out);
      }
    }
    fputc('\n', out);
    if (last) break;
  }
}

ExtBuffer::ExtBuffer(void* mem, int capacity_, int used_) : Buffer(0) {
  data = static_cast<char*>(mem);
  capacity = static_cast<std::uint64_t>(static_cast<std::int64_t>(capacity_));
  used = static_cast<std::uint64_t>(static_cast<std::int64_t>(used_));
}

ExtBuffer::~ExtBuffer() {
  data = nullptr;
}

void ExtBuffer::extend(size_t nbytes) {
  if (nbytes <= capacity) return;
  SF_LOG(1, "External buffer requested %zd, have %zd bytes", nbytes, static_cast<size_t>(capacity));
  SF_THROW("mvfxdbfr", sf::Xmem(int(nbytes)));
}

void ExtBuffer::release() {
  used = 0;
}

}  // namespace sf
