// Pipes and child processes on Windows.
//
// The hand-over pipe is a duplex named pipe of one instance: this process
// creates the server end and at once opens the client end itself, so both
// ends are handles of this process and either may be passed to a child.
// A pipe end travels as its handle value in an int: kernel handles only use
// their low 32 bits, which is what lets a 64-bit process pass them on.
//
// Child processes inherit the handles marked inheritable (sockets through
// set_inherit, pipe ends through set_fd_inherit) and keep their values, so
// the hand-over's socket values are valid in the child as they are.
#include "sf/platform/pipe.h"

#include <windows.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>

namespace sf {
namespace platform {

namespace {

HANDLE handleOf(int fd) {
  return LongToHandle(fd);
}

DWORD clampLen(size_t n) {
  return n > static_cast<size_t>(INT_MAX) ? static_cast<DWORD>(INT_MAX) : static_cast<DWORD>(n);
}

// The processes spawn() started and nobody waited for yet. The handle keeps
// the process object, and so its id and exit code, until wait_child.
std::mutex g_childrenLock;
std::map<long, HANDLE>& children() {
  static auto* m = new std::map<long, HANDLE>;
  return *m;
}

// A name free on this machine, in the form getUniqueP2PPipeName gives:
// this process's id and a serial number.
HANDLE createServerEnd(std::string* name) {
  static std::atomic<int> serial{0};
  for (int attempt = 0; attempt < 16; ++attempt) {
    char text[32];
    snprintf(text, sizeof text, "\\\\.\\pipe\\id%lu-%d", GetCurrentProcessId(), ++serial);
    // One instance, created here first: nobody else can own the name or
    // add a second server to it.
    HANDLE h = CreateNamedPipeA(
        text, PIPE_ACCESS_DUPLEX | FILE_FLAG_FIRST_PIPE_INSTANCE,
        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1, 65536,
        65536, 0, nullptr);
    if (h != INVALID_HANDLE_VALUE) {
      *name = text;
      return h;
    }
    if (GetLastError() != ERROR_ACCESS_DENIED && GetLastError() != ERROR_PIPE_BUSY) break;
  }
  return INVALID_HANDLE_VALUE;
}

// The command line a child's C runtime splits back into argv: arguments
// with blanks or quotes are quoted, and backslashes are doubled only where
// they come before a quote.
std::string commandLine(const std::vector<std::string>& argv) {
  std::string line;
  for (const std::string& a : argv) {
    if (!line.empty()) line += ' ';
    if (!a.empty() && a.find_first_of(" \t\n\v\"") == std::string::npos) {
      line += a;
      continue;
    }
    line += '"';
    size_t backslashes = 0;
    for (char c : a) {
      if (c == '\\') {
        ++backslashes;
        continue;
      }
      line.append(c == '"' ? backslashes * 2 + 1 : backslashes, '\\');
      line += c;
      backslashes = 0;
    }
    line.append(backslashes * 2, '\\');
    line += '"';
  }
  return line;
}

// Length of the name in an environment entry "NAME=value"; entries such as
// "=C:=C:\dir" keep their leading '=' in the name.
size_t nameLength(const char* entry) {
  const char* eq = strchr(entry + (entry[0] == '=' ? 1 : 0), '=');
  return eq ? static_cast<size_t>(eq - entry) : strlen(entry);
}

// This process's environment with env's entries added, replacing entries
// of the same name (names ignore case on Windows), as the block
// CreateProcess takes: entries ended by NUL, then one more NUL.
std::string environmentBlock(const std::vector<std::string>& env) {
  std::string block;
  char* own = GetEnvironmentStringsA();
  for (const char* e = own; e && *e; e += strlen(e) + 1) {
    size_t len = nameLength(e);
    bool replaced = false;
    for (const std::string& x : env)
      if (nameLength(x.c_str()) == len && _strnicmp(x.c_str(), e, len) == 0) replaced = true;
    if (!replaced) block.append(e, strlen(e) + 1);
  }
  if (own) FreeEnvironmentStringsA(own);
  for (const std::string& x : env) block.append(x.c_str(), x.size() + 1);
  if (block.empty()) block.push_back('\0');
  block.push_back('\0');
  return block;
}

}  // namespace

bool pipe_create(int fds[2]) {
  std::string name;
  HANDLE server = createServerEnd(&name);
  if (server == INVALID_HANDLE_VALUE) return false;
  HANDLE client = CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              0, nullptr);
  // Only this client may be the connected one: had another process opened
  // the name first, the single instance would be taken and CreateFile
  // would have failed.
  if (client == INVALID_HANDLE_VALUE ||
      (!ConnectNamedPipe(server, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED)) {
    DWORD e = GetLastError();
    if (client != INVALID_HANDLE_VALUE) CloseHandle(client);
    CloseHandle(server);
    SetLastError(e);
    return false;
  }
  fds[0] = HandleToLong(server);
  fds[1] = HandleToLong(client);
  return true;
}

long fd_write(int fd, const void* p, size_t n) {
  DWORD written = 0;
  if (!WriteFile(handleOf(fd), p, clampLen(n), &written, nullptr)) return -1;
  return static_cast<long>(written);
}

// The other end closed: the end of the stream, as a read of 0 bytes.
long fd_read(int fd, void* p, size_t n) {
  DWORD got = 0;
  if (ReadFile(handleOf(fd), p, clampLen(n), &got, nullptr)) return static_cast<long>(got);
  DWORD e = GetLastError();
  return e == ERROR_BROKEN_PIPE || e == ERROR_PIPE_NOT_CONNECTED ? 0 : -1;
}

int fd_close(int fd) {
  return CloseHandle(handleOf(fd)) ? 0 : -1;
}

int set_fd_inherit(int fd, bool inherit) {
  return SetHandleInformation(handleOf(fd), HANDLE_FLAG_INHERIT, inherit ? HANDLE_FLAG_INHERIT : 0)
             ? 0
             : -1;
}

long spawn(const std::string& program, const std::vector<std::string>& argv,
           const std::vector<std::string>& env) {
  std::string line = commandLine(argv);
  std::string block = environmentBlock(env);
  STARTUPINFOA si;
  memset(&si, 0, sizeof si);
  si.cb = sizeof si;
  PROCESS_INFORMATION pi;
  memset(&pi, 0, sizeof pi);
  // Handle inheritance on: the child gets every handle marked inheritable,
  // as a POSIX child keeps every descriptor without close-on-exec.
  if (!CreateProcessA(program.c_str(), &line[0], nullptr, nullptr, TRUE, 0, &block[0], nullptr, &si,
                      &pi))
    return -1;
  if (!pi.hProcess) {
    // Wine starts a Linux program this way, outside its process table: it
    // cannot be waited for or ended.
    SetLastError(ERROR_BAD_EXE_FORMAT);
    return -1;
  }
  CloseHandle(pi.hThread);
  long pid = static_cast<long>(pi.dwProcessId);
  std::lock_guard<std::mutex> hold(g_childrenLock);
  children()[pid] = pi.hProcess;
  return pid;
}

int wait_child(long pid) {
  HANDLE h;
  {
    std::lock_guard<std::mutex> hold(g_childrenLock);
    auto it = children().find(pid);
    if (it == children().end()) {
      SetLastError(ERROR_INVALID_PARAMETER);  // not a child of this process
      return -1;
    }
    h = it->second;
    children().erase(it);
  }
  DWORD code = 0;
  bool ok = WaitForSingleObject(h, INFINITE) == WAIT_OBJECT_0 && GetExitCodeProcess(h, &code);
  CloseHandle(h);
  return ok ? static_cast<int>(code) : -1;
}

// Windows has no stop request that a process can take without sharing a
// console process group with the sender: the child is ended, with the exit
// status a SIGTERM kill gives on POSIX.
int terminate(long pid) {
  const UINT status = 128 + SIGTERM;
  {
    std::lock_guard<std::mutex> hold(g_childrenLock);  // wait_child closes the handle
    auto it = children().find(pid);
    if (it != children().end()) return TerminateProcess(it->second, status) ? 0 : -1;
  }
  HANDLE h = OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(pid));
  if (!h) return -1;
  BOOL ok = TerminateProcess(h, status);
  CloseHandle(h);
  return ok ? 0 : -1;
}

}  // namespace platform
}  // namespace sf
