// The hand-over of listening sockets to a child process is not done on
// Windows yet (it needs a duplex named pipe and WSADuplicateSocket for the
// child's process id). Every call fails with ERROR_CALL_NOT_IMPLEMENTED, so
// sf_handover reports "not supported" instead of starting a child that could
// not take the ports over.
#include "sf/platform/pipe.h"

#include <windows.h>

namespace sf {
namespace platform {

namespace {
template <typename T>
T notDone(T result) {
  SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
  return result;
}
}  // namespace

bool pipe_create(int*) {
  return notDone(false);
}
long fd_write(int, const void*, size_t) {
  return notDone(-1L);
}
long fd_read(int, void*, size_t) {
  return notDone(-1L);
}
long fd_read_full(int, void*, size_t) {
  return notDone(-1L);
}
int fd_close(int) {
  return notDone(-1);
}
int set_fd_inherit(int, bool) {
  return notDone(-1);
}
long spawn(const std::string&, const std::vector<std::string>&, const std::vector<std::string>&) {
  return notDone(-1L);
}
int wait_child(long) {
  return notDone(-1);
}
int terminate(long) {
  return notDone(-1);
}

}  // namespace platform
}  // namespace sf
