// poll(2) and eventfd(2).
#include "sf/platform/poll.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace sf {
namespace platform {

// The slot of each descriptor is kept in a table indexed by the descriptor
// number (descriptors are small integers), so adding and looking up are O(1)
// and clearing costs only the descriptors that were added.
struct PollSet::Impl {
  std::vector<pollfd> fds;
  std::vector<int> slotOf;  // by descriptor: slot + 1, 0 when absent
  size_t left = 0;
};

PollSet::PollSet() : impl_(new Impl) {}
PollSet::~PollSet() {
  delete impl_;
}

void PollSet::clear() {
  for (const pollfd& p : impl_->fds) impl_->slotOf[static_cast<size_t>(p.fd)] = 0;
  impl_->fds.clear();
  impl_->left = 0;
}

size_t PollSet::add(std::uint64_t s) {
  size_t fd = static_cast<size_t>(static_cast<int>(s));
  if (fd >= impl_->slotOf.size()) impl_->slotOf.resize(fd + 1024, 0);
  if (impl_->slotOf[fd]) return static_cast<size_t>(impl_->slotOf[fd] - 1);
  pollfd p;
  p.fd = static_cast<int>(fd);
  p.events = POLLIN;
  p.revents = 0;
  impl_->fds.push_back(p);
  impl_->slotOf[fd] = static_cast<int>(impl_->fds.size());
  return impl_->fds.size() - 1;
}

namespace {
int slotIndex(const std::vector<int>& slotOf, std::uint64_t s) {
  size_t fd = static_cast<size_t>(static_cast<int>(s));
  return fd < slotOf.size() ? slotOf[fd] - 1 : -1;
}
}  // namespace

bool PollSet::contains(std::uint64_t s) const {
  return slotIndex(impl_->slotOf, s) >= 0;
}

size_t PollSet::size() const {
  return impl_->fds.size();
}

int PollSet::wait(int timeout_ms) {
  for (auto& p : impl_->fds) p.revents = 0;
  int r = ::poll(impl_->fds.data(), impl_->fds.size(), timeout_ms);
  if (r < 0 && errno == EINTR) r = 0;
  impl_->left = r > 0 ? static_cast<size_t>(r) : 0;
  return r;
}

bool PollSet::ready(std::uint64_t s) const {
  int slot = slotIndex(impl_->slotOf, s);
  return slot >= 0 && readySlot(static_cast<size_t>(slot));
}

bool PollSet::readySlot(size_t slot) const {
  return slot < impl_->fds.size() && impl_->fds[slot].revents != 0;
}

void PollSet::consume(std::uint64_t s) {
  int slot = slotIndex(impl_->slotOf, s);
  if (slot < 0 || impl_->fds[static_cast<size_t>(slot)].revents == 0) return;
  impl_->fds[static_cast<size_t>(slot)].revents = 0;
  if (impl_->left) --impl_->left;
}

size_t PollSet::readyLeft() const {
  return impl_->left;
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
