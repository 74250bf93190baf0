// Script commands of the network side: bind, sf_echo, sfload, sf_quiesce,
// sf_ping, tcpReader, and the hand-over commands sf_handover,
// sf_receiveEnv and sf_startupOk (sfi_pipeEnv lives with the hand-over).
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sf/base/buffer.h"
#include "sf/base/log.h"
#include "sf/net/adaptor.h"
#include "sf/net/connection.h"
#include "sf/net/handover.h"
#include "sf/net/net.h"
#include "sf/net/port.h"
#include "sf/net/reader.h"
#include "sf/net/shutdown.h"
#include "sf/platform/pipe.h"
#include "sf/runtime.h"
#include "sf/script/commands.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"
#include "sf/work/message.h"

namespace sf {

namespace {
// A listening port the operator names must be one: the address itself reads
// the text as C's atoi does, so "70000" or "abc" would listen elsewhere.
bool isPortNumber(const char* text) {
  size_t n = strlen(text);
  if (n == 0 || n > 5 || strspn(text, "0123456789") != n || text[0] == '0') return false;
  return atoi(text) <= 65535;
}
}  // namespace

// bind addrA addrB ?-idletimeout seconds? ?acceptAction?
int sfi_cmd_bind(int argc, const char** argv) {
  if (argc < 3) return 1;
  if (!isPortNumber(argv[2])) {
    std::string why = std::string("bind: port \"") + argv[2] + "\" is not a number from 1 to 65535";
    SF_LOG(1, "%s", why.c_str());
    setRes(why.c_str());
    return 1;
  }
  PortAddr addr(argv[1], argv[2]);
  Port port;
  try {
    port = bindSharedPort(addr);
  } catch (const Xio&) {
    port = bindPort(addr);
    setSharedPort(addr, port);
  }
  int next = 3;
  if (argc - next >= 2 && strcmp(argv[next], "-idletimeout") == 0) {
    port.setIdleTimeout_s(atoi(argv[next + 1]));
    next += 2;
  }
  if (next < argc) port.setAcceptAction(argv[next]);
  return 0;
}

namespace {
thread_local EchoesAfterEvaluation* t_echoes = nullptr;
}  // namespace

EchoesAfterEvaluation::EchoesAfterEvaluation(Message* msg) : msg_(msg), outer_(t_echoes) {
  t_echoes = this;
}

EchoesAfterEvaluation::~EchoesAfterEvaluation() {
  t_echoes = outer_;
}

bool EchoesAfterEvaluation::defer(const Message* msg) {
  if (msg != msg_) return false;
  ++owed_;
  return true;
}

void EchoesAfterEvaluation::write() {
  for (; owed_ > 0; --owed_) sfi_echo(msg_);
}

void sfi_writeOwedEchoes() {
  if (t_echoes) t_echoes->write();
}

void sfi_echo(Message* msg) {
  if (msg->data) msg->conn.write(*msg->data);
}

// sf_echo: writes the current message's data back on its own connection,
// at once or, inside a worker's evaluation, when the evaluation is over.
int sfi_cmd_sf_echo(int, const char**) {
  Message* msg = getContext()->message;
  if (!msg || !msg->data) return -1;
  if (!t_echoes || !t_echoes->defer(msg)) sfi_echo(msg);
  return 0;
}

// sfload name: loads a Tcl extension library, name + the system's shared
// library suffix.
int sfi_cmd_sfload(int argc, const char** argv) {
  if (argc != 2) return 1;
  std::string script = std::string("load ") + argv[1] + "[info sharedlibextension]";
  eval(script.c_str());
  return 0;
}

namespace {
std::atomic<bool> g_quiesced{false};
}  // namespace

bool quiescedByScript() {
  return g_quiesced.load();
}

namespace {
void markQuiesced() {
  g_quiesced.store(true);
}
}  // namespace

// sf_quiesce: shuts the library down. Inside an evaluation (the usual case)
// the readers and queues are waited for by a thread of shutdown's own, so
// the result comes at once; quiescedByScript() turns true at the end.
int sfi_cmd_sf_quiesce(int, const char**) {
  sfi_shutdown(markQuiesced);
  setRes("OK");
  return 0;
}

// sf_ping addrA addrB ?script? data: a test client that sends data and dumps
// the answer to standard output.
int sfi_cmd_sf_ping(int argc, const char** argv) {
  if (argc != 4 && argc != 5) return -1;
  PortAddr addr(argv[1], argv[2]);
  Connection c = tcp_connect(addr);
  c.push(new TcpAdaptor);
  struct ContextConn {
    bool set = false;
    ~ContextConn() {
      if (set) getContext()->conn = Connection();
    }
  } release;
  if (argc == 5) {
    getContext()->conn = c;
    release.set = true;
    eval(argv[3]);
  }
  const char* data = argv[argc - 1];
  Buffer buf(0);
  buf.append(data);
  Connection current = argc == 5 ? getContext()->conn : c;
  current.write(buf);
  buf.resize(0);
  current.read(buf);
  buf.dumpBin(stdout, 0);
  fflush(stdout);
  return 0;
}

// tcpReader address port script: serves the shared port of address and port
// with raw TCP; each PDU becomes the current message while script runs (the
// script normally enQs it). Returns when the reader stops at shutdown. Run it
// in its own thread (spinThread).
int sfi_cmd_tcpReader(int argc, const char** argv) {
  if (argc != 4) return 1;
  if (sfi_refuseInsideEvaluation("tcpReader")) return 1;
  SF_LOG(2, "TCP reader starting on %s+%s", argv[1], argv[2]);
  Port port;
  {
    PortAddr addr(argv[1], argv[2]);
    port = bindSharedPort(addr);
  }
  TclReader reader;
  std::string script = argv[3];
  reader.run(port, script.c_str(), nullptr);
  return 0;
}

// ---- hand-over ----

namespace {
int g_childPipe = -1;  // this process's end of the pipe to its parent

void markInherit(const std::string&, i_Port* port, void* arg) {
  socket_t s = port->fd.load();
  if (s != INVALID_SOCK) platform::set_inherit(s, *static_cast<bool*>(arg));
}
}  // namespace

// sf_handover program ?arg ...?: starts program as a child that takes over
// this process's shared listening ports. The child finds its end of the pipe
// in SF_PIPE, calls sf_receiveEnv before it binds, and sf_startupOk once it
// serves. Returns the child's process id once the child reported; the ports
// nobody here took are then closed. The listening sockets stay open
// throughout, so no client is refused.
int sfi_cmd_sf_handover(int argc, const char** argv) {
  if (argc < 2) return 1;
  int fds[2];
  if (!platform::pipe_create(fds)) {
    SF_SYSFAIL(-1, "socketpair(AF_UNIX, SOCK_STREAM, 0, fds)");
    SF_THROW("sf_handover", Xsys("pipe"));
  }
  std::vector<std::string> args(argv + 1, argv + argc);
  std::vector<std::string> env{sfi_fmtlog("SF_PIPE=%d", fds[1])};
  bool inherit = true;
  sfi_forEachSharedPort(markInherit, &inherit);
  platform::set_fd_inherit(fds[1], true);
  long pid = platform::spawn(args[0], args, env);
  inherit = false;
  sfi_forEachSharedPort(markInherit, &inherit);
  platform::fd_close(fds[1]);
  if (pid < 0) {
    platform::fd_close(fds[0]);
    SF_SYSFAIL(-1, "fork()");
    SF_THROW("sf_handover", Xsys("fork"));
  }
  SF_LOG(2, "started child %ld with pipe %d", pid, fds[1]);
  try {
    sendEnv(fds[0]);
    // The child needs nothing from this interpreter. This evaluation keeps
    // it while the child starts: releasing it here would let other threads
    // evaluate inside this unfinished evaluation.
    receiveStartupOk(fds[0]);
  } catch (...) {
    platform::fd_close(fds[0]);
    throw;
  }
  platform::fd_close(fds[0]);
  sfi_closeUnusedSharedPorts();
  setRes(sfi_fmtlog("%ld", pid).c_str());
  return 0;
}

namespace {
void setEnvElement(const std::string& name, const std::string& value, void*) {
  setVarStr(("sf_env(" + name + ")").c_str(), value.c_str());
}
}  // namespace

// sf_receiveEnv: in a child started by sf_handover, takes over the parent's
// ports and pairs; the pairs also become elements of this interpreter's
// sf_env array. Result: the pipe number, or empty when this process was not
// started that way.
int sfi_cmd_sf_receiveEnv(int, const char**) {
  const char* text = getenv("SF_PIPE");
  if (!text || !*text) return 0;
  g_childPipe = atoi(text);
  receiveEnv(g_childPipe);
  sfi_forEachSymbiotic(setEnvElement, nullptr);
  setRes(text);
  return 0;
}

// sf_startupOk: tells the parent that this process serves.
int sfi_cmd_sf_startupOk(int, const char**) {
  if (g_childPipe < 0) return 0;
  sendStartupOk(g_childPipe);
  platform::fd_close(g_childPipe);
  g_childPipe = -1;
  return 0;
}

}  // namespace sf
