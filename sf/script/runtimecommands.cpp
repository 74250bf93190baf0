// Script commands of the runtime: sf_dump, sf_event, sf_log.
#include <cstdlib>
#include <string>

#include "sf/base/dumpfile.h"
#include "sf/base/eventreport.h"
#include "sf/base/log.h"
#include "sf/runtime.h"
#include "sf/script/commands.h"

namespace sf {

// sf_dump: writes the dump file with the reason "dump requested".
int sfi_cmd_sf_dump(int, const char**) {
  sfi_writeDump("dump requested");
  return 0;
}

// sf_event id ?arg ...?: reports id with each argument as "{ " arg " } ".
int sfi_cmd_sf_event(int argc, const char** argv) {
  if (argc < 2) return -1;
  std::string text;
  for (int i = 2; i < argc; ++i) text.append("{ ").append(argv[i]).append(" } ");
  // Commands run under the interpreter lock, which the reporter takes again.
  sfi_reportEvent(argv[1], text.c_str());
  return 0;
}

// sf_log level text: logs text at the decimal level, code 0, no source place.
int sfi_cmd_sf_log(int argc, const char** argv) {
  if (argc != 3) return -1;
  sfi_log(atoi(argv[1]), 0, argv[2], nullptr, 0, 0);
  return 0;
}

}  // namespace sf
