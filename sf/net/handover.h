// Hand-over of listening sockets and settings to a cooperating process.
//
// A parent binds its ports (they enter the shared-port table), starts the
// child with the sockets and one end of a pipe inherited, and calls sendEnv
// on the pipe. The child calls receiveEnv, which rebuilds the shared-port
// table so that its configuration's `bind` takes the same listening sockets,
// and keeps the name/value pairs for getSymbiotic. Once the child serves, it
// calls sendStartupOk; the parent's receiveStartupOk returns and the parent
// may close its copies. The listening sockets are never closed in between,
// so no client is refused. docs/handover.md shows a host doing it.
//
// Wire format (native byte order): int = 4 bytes, socket = 8 bytes, str = an
// int length then that many bytes. sendEnv writes the port count N, N times
// socket + str(address text), the pairs of the Tcl array sf_env as str name +
// str value, then an empty str. The start-up result is the int 1.
#pragma once

#include <cstddef>
#include <string>

namespace sf {

// A pipe end is the system's handle value (a file descriptor here).
int pipewriteint(int pipe, int v);
int pipereadint(int pipe, int& v);
int pipewriteSocket(int pipe, size_t s);
int pipereadSocket(int pipe, size_t& s);
int pipewritestr(int pipe, const std::string& s);
int pipereadstr(int pipe, std::string& s);

void sendEnv(int pipe);
void receiveEnv(int pipe);
// The value received for name, empty if none.
std::string getSymbiotic(const char* name);
void sendStartupOk(int pipe);
// Throws Xio unless the child sent 1.
void receiveStartupOk(int pipe);

}  // namespace sf
