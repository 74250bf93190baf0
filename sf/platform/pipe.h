// Pipes and child processes, for the hand-over of listening sockets.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace sf {
namespace platform {

// Creates a two-way pipe between fds[0] and fds[1]. Both ends are closed on
// exec unless set_fd_inherit() says otherwise. False on failure.
bool pipe_create(int fds[2]);
// Writes / reads up to n bytes once (retrying interrupted calls); the count,
// or -1 with last_error() set.
long fd_write(int fd, const void* p, size_t n);
long fd_read(int fd, void* p, size_t n);
// Reads exactly n bytes unless the other end closes or fails; the count read
// (or fd_read's answer when nothing was read).
inline long fd_read_full(int fd, void* p, size_t n) {
  size_t got = 0;
  while (got < n) {
    long r = fd_read(fd, static_cast<char*>(p) + got, n - got);
    if (r <= 0) return got ? static_cast<long>(got) : r;
    got += static_cast<size_t>(r);
  }
  return static_cast<long>(got);
}
int fd_close(int fd);
int set_fd_inherit(int fd, bool inherit);

// Starts program with argv (argv[0] included) and extra environment entries
// ("NAME=value"); descriptors marked inheritable stay open in the child. The
// child's process id, or -1.
long spawn(const std::string& program, const std::vector<std::string>& argv,
           const std::vector<std::string>& env);
// Waits for the child to end; its exit status (128 + signal when killed),
// or -1.
int wait_child(long pid);
// Sends the termination request to pid.
int terminate(long pid);

}  // namespace platform
}  // namespace sf
