// Pipes and fork/exec on POSIX.
#include "sf/platform/pipe.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

// POSIX requires the declaration; glibc makes it too, but only with _GNU_SOURCE.
extern char** environ;  // NOLINT(readability-redundant-declaration)

namespace sf {
namespace platform {

// A socket pair rather than a pipe: the hand-over talks both ways (settings
// to the child, the start-up result back).
bool pipe_create(int fds[2]) {
  return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0;
}

long fd_write(int fd, const void* p, size_t n) {
  ssize_t r;
  do {
    r = ::write(fd, p, n);
  } while (r < 0 && errno == EINTR);
  return r;
}

long fd_read(int fd, void* p, size_t n) {
  ssize_t r;
  do {
    r = ::read(fd, p, n);
  } while (r < 0 && errno == EINTR);
  return r;
}

int fd_close(int fd) {
  return ::close(fd);
}

int set_fd_inherit(int fd, bool inherit) {
  int flags = fcntl(fd, F_GETFD, 0);
  if (flags < 0) return -1;
  return fcntl(fd, F_SETFD, inherit ? (flags & ~FD_CLOEXEC) : (flags | FD_CLOEXEC));
}

long spawn(const std::string& program, const std::vector<std::string>& argv,
           const std::vector<std::string>& env) {
  // Everything the child needs is prepared before fork: after it, only
  // async-signal-safe calls.
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<std::string> merged;
  for (char** e = environ; e && *e; ++e) {
    const char* eq = strchr(*e, '=');
    size_t len = eq ? static_cast<size_t>(eq - *e) : strlen(*e);
    bool replaced = false;
    for (const std::string& x : env)
      if (x.size() > len && x.compare(0, len, *e, len) == 0 && x[len] == '=') replaced = true;
    if (!replaced) merged.push_back(*e);
  }
  for (const std::string& x : env) merged.push_back(x);
  std::vector<char*> envp;
  envp.reserve(merged.size() + 1);
  for (const std::string& e : merged) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);

  pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    // A host may block signals in all its threads (sfhost takes SIGTERM and
    // SIGINT with sigwait); the mask survives exec, so clear it for the child.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(program.c_str(), args.data(), envp.data());
    _exit(127);
  }
  return pid;
}

int wait_child(long pid) {
  int status = 0;
  pid_t r;
  do {
    r = waitpid(static_cast<pid_t>(pid), &status, 0);
  } while (r < 0 && errno == EINTR);
  if (r < 0) return -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

int terminate(long pid) {
  return kill(static_cast<pid_t>(pid), SIGTERM);
}

}  // namespace platform
}  // namespace sf
