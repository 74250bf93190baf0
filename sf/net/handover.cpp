// Hand-over of listening sockets and settings over a pipe.
#include "sf/net/handover.h"

#include <cinttypes>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>

#include "sf/base/log.h"
#include "sf/net/net.h"
#include "sf/net/port.h"
#include "sf/platform/pipe.h"
#include "sf/script/commands.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"

namespace sf {

namespace {

std::map<std::string, std::string>& symbiotic() {
  static auto* pairs = new std::map<std::string, std::string>;
  return *pairs;
}

}  // namespace

int pipewriteint(int pipe, int v) {
  SF_LOG(7, "about to write int '%d' on fd %d", v, pipe);
  std::int32_t value = v;
  long n = platform::fd_write(pipe, &value, sizeof value);
  SF_LOG(7, "wrote int '%d' on fd %d", v, pipe);
  return static_cast<int>(n);
}

int pipereadint(int pipe, int& v) {
  SF_LOG(7, "about to read int on fd %d", pipe);
  std::int32_t value = 0;
  long n = platform::fd_read_full(pipe, &value, sizeof value);
  if (n == static_cast<long>(sizeof value)) v = value;  // a short read leaves v alone
  SF_LOG(7, "read int '%d' on fd %d", v, pipe);
  return static_cast<int>(n);
}

int pipewriteSocket(int pipe, size_t s) {
  std::uint64_t value = s;
  SF_LOG(7, "about to write int '%" PRIu64 "' on fd %d", value, pipe);
  long n = platform::fd_write(pipe, &value, sizeof value);
  SF_LOG(7, "wrote socket '%" PRIu64 "' on fd %d", value, pipe);
  return static_cast<int>(n);
}

int pipereadSocket(int pipe, size_t& s) {
  SF_LOG(7, "about to read int on fd %d", pipe);
  std::uint64_t value = 0;
  long n = platform::fd_read_full(pipe, &value, sizeof value);
  if (n == static_cast<long>(sizeof value)) s = static_cast<size_t>(value);
  SF_LOG(7, "read socket '%" PRIu64 "' on fd %d", static_cast<std::uint64_t>(s), pipe);
  return static_cast<int>(n);
}

int pipewritestr(int pipe, const std::string& s) {
  int len = static_cast<int>(s.size());
  pipewriteint(pipe, len);
  if (len == 0) return 0;
  long n = platform::fd_write(pipe, s.data(), s.size());
  if (n < 0) {
    SF_SYSFAIL(
        -1,
        "WriteFile( HandleToHandle64( LongToHandle( fd ) ), s.c_str(), len, &bytesWriten, NULL )");
    return 0;
  }
  return static_cast<int>(n);
}

int pipereadstr(int pipe, std::string& s) {
  int len = 0;
  int got = pipereadint(pipe, len);
  if (got <= 0 || len == 0) return 0;
  if (len < 0) SF_THROW("pipereadstr", Xmem(len + 1));
  char* buf = static_cast<char*>(malloc(static_cast<size_t>(len) + 1));
  if (!buf) SF_THROW("pipereadstr", Xmem(len + 1));
  long n = platform::fd_read_full(pipe, buf, static_cast<size_t>(len));
  if (n < 0) {
    SF_SYSFAIL(-1, "ReadFile( HandleToHandle64 (LongToHandle( fd ) ), buf, len, &bytesRead, 0 )");
    n = 0;
  }
  buf[n] = '\0';
  s.assign(buf);  // up to the first NUL byte
  free(buf);
  return n > 0 ? len : 0;
}

namespace {
struct SendState {
  int pipe;
};
void sendPort(const std::string& key, i_Port* port, void* arg) {
  int pipe = static_cast<SendState*>(arg)->pipe;
  std::uint64_t fd = port->fd.load();
  SF_LOG(3, "piping shared port %s fd %" PRIu64, key.c_str(), fd);
  pipewriteSocket(pipe, static_cast<size_t>(fd));
  pipewritestr(pipe, key);
}
void countPort(const std::string&, i_Port*, void* arg) {
  ++*static_cast<int*>(arg);
}
}  // namespace

void sendEnv(int pipe) {
  int n = 0;
  sfi_forEachSharedPort(countPort, &n);
  SF_LOG(3, "piping %d ports to pipe %d", n, pipe);
  pipewriteint(pipe, n);
  SendState st{pipe};
  sfi_forEachSharedPort(sendPort, &st);
  std::string script =
      sfi_fmtlog("foreach f [array names sf_env] { sfi_pipeEnv %d $f $sf_env($f) } ", pipe);
  eval(script.c_str());
  pipewritestr(pipe, std::string());
}

void receiveEnv(int pipe) {
  int n = 0;
  pipereadint(pipe, n);
  SF_LOG(3, "reading %d ports from pipe %d", n, pipe);
  for (int i = 0; i < n; ++i) {
    size_t s = static_cast<size_t>(INVALID_SOCK);
    std::string name;
    if (pipereadSocket(pipe, s) <= 0) break;
    pipereadstr(pipe, name);
    sfi_setSharedPortByName(name, static_cast<socket_t>(s));
    SF_LOG(3, "added shared port %s fd %" PRIu64, name.c_str(), static_cast<std::uint64_t>(s));
  }
  for (;;) {
    std::string name;
    std::string value;
    if (pipereadstr(pipe, name) == 0) break;
    pipereadstr(pipe, value);
    symbiotic()[name] = value;
    SF_LOG(3, "read env pair %s -> %s", name.c_str(), value.c_str());
  }
}

std::string getSymbiotic(const char* name) {
  auto it = symbiotic().find(name ? name : "");
  return it == symbiotic().end() ? std::string() : it->second;
}

void sfi_forEachSymbiotic(void (*fn)(const std::string& name, const std::string& value, void* arg),
                          void* arg) {
  for (auto& e : symbiotic()) fn(e.first, e.second, arg);
}

void sendStartupOk(int pipe) {
  SF_LOG(4, "about to send startup result message '%d' on fd %d.", 1, pipe);
  pipewriteint(pipe, 1);
  SF_LOG(4, "sent startup message '%d'.", 1);
}

void receiveStartupOk(int pipe) {
  SF_LOG(4, "about to wait for startup result message on fd %d.", pipe);
  int result = 0;
  pipereadint(pipe, result);
  if (result == 1) {
    SF_LOG(4, "got startup result message '%d'.", result);
    return;
  }
  SF_LOG(1, "did not recieve correct startup result message, got '%d'", result);
  SF_THROW("receiveStartupOk", Xio());
}

// sfi_pipeEnv pipe name value: writes one pair during sendEnv.
int sfi_cmd_sfi_pipeEnv(int argc, const char** argv) {
  if (argc < 4) return 1;
  int pipe = atoi(argv[1]);
  pipewritestr(pipe, argv[2]);
  pipewritestr(pipe, argv[3]);
  SF_LOG(3, "wrote env pair %s -> %s", argv[2], argv[3]);
  return 0;
}

}  // namespace sf
