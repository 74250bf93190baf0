// poll(2) and eventfd(2).
#include "sf/platform/poll.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <unordered_map>

namespace sf {
namespace platform {

struct PollSet::Impl {
  std::vector<pollfd> fds;
  std::unordered_map<int, size_t> slot;
};

PollSet::PollSet() : impl_(new Impl) {}
PollSet::~PollSet() {
  delete impl_;
}

void PollSet::clear() {
  impl_->fds.clear();
  impl_->slot.clear();
}

size_t PollSet::add(std::uint64_t s) {
  int fd = static_cast<int>(s);
  auto it = impl_->slot.find(fd);
  if (it != impl_->slot.end()) return it->second;
  pollfd p;
  p.fd = fd;
  p.events = POLLIN;
  p.revents = 0;
  impl_->fds.push_back(p);
  size_t n = impl_->fds.size() - 1;
  impl_->slot.emplace(fd, n);
  return n;
}

bool PollSet::contains(std::uint64_t s) const {
  return impl_->slot.count(static_cast<int>(s)) != 0;
}

size_t PollSet::size() const {
  return impl_->fds.size();
}

int PollSet::wait(int timeout_ms) {
  for (auto& p : impl_->fds) p.revents = 0;
  int r = ::poll(impl_->fds.data(), impl_->fds.size(), timeout_ms);
  if (r < 0 && errno == EINTR) return 0;
  return r;
}

bool PollSet::ready(std::uint64_t s) const {
  auto it = impl_->slot.find(static_cast<int>(s));
  return it != impl_->slot.end() && readySlot(it->second);
}

bool PollSet::readySlot(size_t slot) const {
  return slot < impl_->fds.size() && impl_->fds[slot].revents != 0;
}

Wakeup::Wakeup() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
Wakeup::~Wakeup() {
  if (fd_ >= 0) close(fd_);
}

std::uint64_t Wakeup::fd() const {
  return static_cast<std::uint64_t>(fd_);
}

void Wakeup::notify() {
  std::uint64_t one = 1;
  int saved = errno;
  ssize_t r = write(fd_, &one, sizeof one);
  (void)r;  // a full counter is still readable: nothing to do
  errno = saved;
}

void Wakeup::drain() {
  std::uint64_t v;
  int saved = errno;
  ssize_t r = read(fd_, &v, sizeof v);
  (void)r;
  errno = saved;
}

}  // namespace platform
}  // namespace sf
