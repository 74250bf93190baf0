// File-system facts from /proc and POSIX calls.
#include "sf/platform/fs.h"

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sf {
namespace platform {

std::string executable_path() {
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return "";
  return std::string(buf, static_cast<size_t>(n));
}

std::string current_directory() {
  char buf[PATH_MAX];
  if (!getcwd(buf, sizeof buf)) return "";
  return buf;
}

bool is_directory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool is_writable(const std::string& path) {
  return access(path.c_str(), W_OK | X_OK) == 0;
}

}  // namespace platform
}  // namespace sf
