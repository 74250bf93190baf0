// File-system facts from the Win32 API. Paths are given back with '/' as the
// separator: Windows accepts it everywhere, and the library and Tcl cut and
// join paths at '/'.
#include "sf/platform/fs.h"

#include <windows.h>

#include <algorithm>

namespace sf {
namespace platform {

namespace {
std::string forwardSlashes(std::string path) {
  std::replace(path.begin(), path.end(), '\\', '/');
  return path;
}
}  // namespace

std::string executable_path() {
  char buf[MAX_PATH * 4];
  DWORD n = GetModuleFileNameA(nullptr, buf, sizeof buf);
  if (n == 0 || n >= sizeof buf) return "";
  return forwardSlashes(std::string(buf, n));
}

std::string current_directory() {
  char buf[MAX_PATH * 4];
  DWORD n = GetCurrentDirectoryA(sizeof buf, buf);
  if (n == 0 || n >= sizeof buf) return "";
  return forwardSlashes(std::string(buf, n));
}

bool is_directory(const std::string& path) {
  DWORD attributes = GetFileAttributesA(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

// Directory attributes say nothing about the right to create files in it, so
// create (and at once delete) a file there.
bool is_writable(const std::string& path) {
  DWORD saved = GetLastError();
  char name[MAX_PATH];
  bool ok = GetTempFileNameA(path.c_str(), "sf", 0, name) != 0;
  if (ok) DeleteFileA(name);
  SetLastError(saved);
  return ok;
}

}  // namespace platform
}  // namespace sf
