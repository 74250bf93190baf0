// epoll(7) and eventfd(2).
#include "sf/platform/events.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace sf {
namespace platform {

namespace {

int fdof(std::uint64_t s) {
  return static_cast<int>(s);
}

epoll_event eventFor(std::uint64_t key, EventSet::Mode mode) {
  epoll_event ev{};
  // EPOLLEXCLUSIVE admits no EPOLLRDHUP; a listening socket has no peer.
  ev.events = EPOLLIN;
  if (mode != EventSet::Exclusive) ev.events |= EPOLLRDHUP;
  // Edge triggering reports every arrival of bytes, so nothing has to be
  // done when the owner has read a descriptor empty.
  if (mode == EventSet::Edge) ev.events |= EPOLLET;
  if (mode == EventSet::Exclusive) ev.events |= EPOLLEXCLUSIVE;
  ev.data.u64 = key;
  return ev;
}

}  // namespace

struct EventSet::State {
  int fd;
};

EventSet::EventSet() : state_(new State{epoll_create1(EPOLL_CLOEXEC)}) {}

EventSet::~EventSet() {
  if (state_->fd >= 0) close(state_->fd);
  delete state_;
}

int EventSet::add(std::uint64_t s, std::uint64_t key, Mode mode) {
  epoll_event ev = eventFor(key, mode);
  return epoll_ctl(state_->fd, EPOLL_CTL_ADD, fdof(s), &ev);
}

int EventSet::drained(std::uint64_t, std::uint64_t) {
  return 0;
}

int EventSet::watchWrite(std::uint64_t s, std::uint64_t key, Mode mode, bool on) {
  epoll_event ev = eventFor(key, mode);
  if (on) ev.events |= EPOLLOUT;
  return epoll_ctl(state_->fd, EPOLL_CTL_MOD, fdof(s), &ev);
}

int EventSet::remove(std::uint64_t s) {
  epoll_event ev{};  // ignored, but older kernels want a non-null pointer
  return epoll_ctl(state_->fd, EPOLL_CTL_DEL, fdof(s), &ev);
}

int EventSet::wait(Ready* ready, int max, int timeout_ms) {
  const int kBatch = 64;
  epoll_event evs[kBatch];
  int n = epoll_wait(state_->fd, evs, max < kBatch ? max : kBatch, timeout_ms);
  if (n < 0) return errno == EINTR ? 0 : -1;
  for (int i = 0; i < n; ++i)
    ready[i] = Ready{evs[i].data.u64, (evs[i].events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0,
                     (evs[i].events & EPOLLOUT) != 0};
  return n;
}

Wakeup::Wakeup() : fd_(static_cast<std::uint64_t>(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))) {}
Wakeup::~Wakeup() {
  if (fdof(fd_) >= 0) close(fdof(fd_));
}

std::uint64_t Wakeup::fd() const {
  return fd_;
}

void Wakeup::notify() {
  std::uint64_t one = 1;
  int saved = errno;
  ssize_t r = write(fdof(fd_), &one, sizeof one);
  (void)r;  // a full counter is still readable: nothing to do
  errno = saved;
}

void Wakeup::drain() {
  std::uint64_t v;
  int saved = errno;
  ssize_t r = read(fdof(fd_), &v, sizeof v);
  (void)r;
  errno = saved;
}

}  // namespace platform
}  // namespace sf
