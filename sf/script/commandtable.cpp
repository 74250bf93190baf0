// The order in which initTcl registers the library's script commands. Hosts
// and scripts may rely on it, so keep it:
//   bind, spinThread, mkQ, enQ, sfenv, dummyWorker, sf_dumpMsg, sf_echo,
//   sfi_pipeEnv, sfload, sf_quiesce, sf_ping, sf_dump, sfThreadId, sf_event,
//   sf_log, status
// Each module adds its commands here, in their place, when it lands.
#include <string>

#include "sf/base/log.h"
#include "sf/script/commands.h"
#include "sf/script/interp.h"
#include "sf/script/tcl.h"

namespace sf {

namespace {
struct Command {
  const char* name;
  TclProc proc;
};

const Command kCommands[] = {
    {"bind", sfi_cmd_bind},
    {"spinThread", sfi_cmd_spinThread},
    {"mkQ", sfi_cmd_mkQ},
    {"enQ", sfi_cmd_enQ},
    {"sfenv", sfi_cmd_sfenv},
    {"dummyWorker", sfi_cmd_dummyWorker},
    {"sf_dumpMsg", sfi_cmd_sf_dumpMsg},
    {"sf_echo", sfi_cmd_sf_echo},
    {"sfi_pipeEnv", sfi_cmd_sfi_pipeEnv},
    {"sfload", sfi_cmd_sfload},
    {"sf_quiesce", sfi_cmd_sf_quiesce},
    {"sf_ping", sfi_cmd_sf_ping},
    {"sf_dump", sfi_cmd_sf_dump},
    {"sfThreadId", sfi_cmd_sfThreadId},
    {"sf_event", sfi_cmd_sf_event},
    {"sf_log", sfi_cmd_sf_log},
    {"status", sfi_cmd_status},
    // Beyond the fixed seventeen: raw TCP services and process hand-over.
    {"tcpReader", sfi_cmd_tcpReader},
    {"sf_handover", sfi_cmd_sf_handover},
    {"sf_receiveEnv", sfi_cmd_sf_receiveEnv},
    {"sf_startupOk", sfi_cmd_sf_startupOk},
    {nullptr, nullptr},  // end of table
};
}  // namespace

void sfi_registerCommands() {
  for (const Command* c = kCommands; c->name; ++c) exportProc(c->name, c->proc);
}

bool sfi_refuseInsideEvaluation(const char* command) {
  if (!sfi_tclHeldByCaller()) return false;
  std::string why = std::string(command) +
                    " never returns: start it in a thread of its own (spinThread " + command +
                    " ...), not from inside a script";
  SF_LOG(1, "%s", why.c_str());
  setRes(why.c_str());
  return true;
}

}  // namespace sf
