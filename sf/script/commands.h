// The library's own script commands. Each module that owns a command defines
// its procedure; commandtable.cpp registers them all, in their fixed order.
#pragma once

namespace sf {

class MessageQ;
struct Message;

// Registers every library command with exportProc, in table order. Called by
// initTcl once the interpreter exists.
void sfi_registerCommands();

// For commands that never return (readers and workers): true when the caller
// runs inside an evaluation, where it would keep the interpreter for ever.
// Then the command's result says to start it with spinThread, and the
// command must fail (return 1).
bool sfi_refuseInsideEvaluation(const char* command);

// Queues, messages and script threads (msgcommands.cpp).
int sfi_cmd_spinThread(int argc, const char** argv);
int sfi_cmd_mkQ(int argc, const char** argv);
int sfi_cmd_enQ(int argc, const char** argv);
// What enQ does once its queue is found: moves the current message onto q
// (named name in the log). -1 without a current message; a refusal throws.
int sfi_enQCurrent(MessageQ* q, const char* name);
int sfi_cmd_sfenv(int argc, const char** argv);
int sfi_cmd_dummyWorker(int argc, const char** argv);
int sfi_cmd_sf_dumpMsg(int argc, const char** argv);
int sfi_cmd_sfThreadId(int argc, const char** argv);
int sfi_cmd_status(int argc, const char** argv);

// Runtime commands (runtimecommands.cpp).
int sfi_cmd_sf_dump(int argc, const char** argv);
int sfi_cmd_sf_event(int argc, const char** argv);
int sfi_cmd_sf_log(int argc, const char** argv);

// Network commands (netcommands.cpp, handover.cpp).
int sfi_cmd_bind(int argc, const char** argv);
int sfi_cmd_sf_echo(int argc, const char** argv);
// While one is in scope on a thread, sf_echo there only counts the echoes it
// owes msg; write() sends them once the evaluation is over and the Tcl lock
// released, so a slow peer never holds the interpreter. enQ sends them first
// when the script hands the message on.
class EchoesAfterEvaluation {
 public:
  explicit EchoesAfterEvaluation(Message* msg);
  ~EchoesAfterEvaluation();
  EchoesAfterEvaluation(const EchoesAfterEvaluation&) = delete;
  EchoesAfterEvaluation& operator=(const EchoesAfterEvaluation&) = delete;
  // Counts one more echo when msg is this scope's message; false otherwise.
  bool defer(const Message* msg);
  void write();

 private:
  Message* msg_;
  int owed_ = 0;
  EchoesAfterEvaluation* outer_;
};
// Sends the echoes owed on this thread now (nothing outside a scope).
void sfi_writeOwedEchoes();
// sf_echo's write: msg's data back on its own connection.
void sfi_echo(Message* msg);
int sfi_cmd_sfi_pipeEnv(int argc, const char** argv);
int sfi_cmd_sfload(int argc, const char** argv);
int sfi_cmd_sf_quiesce(int argc, const char** argv);
int sfi_cmd_sf_ping(int argc, const char** argv);
int sfi_cmd_tcpReader(int argc, const char** argv);
int sfi_cmd_sf_handover(int argc, const char** argv);
int sfi_cmd_sf_receiveEnv(int argc, const char** argv);
int sfi_cmd_sf_startupOk(int argc, const char** argv);

}  // namespace sf
