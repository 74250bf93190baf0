// The dump file: "dump_<pid>" in the current directory.
#include "sf/base/dumpfile.h"

#include <cstdio>
#include <ctime>
#include <string>

#include "sf/base/log.h"
#include "sf/platform/clock.h"
#include "sf/platform/thread.h"

namespace sf {

void sfi_writeDump(const char* reason) {
  std::string name = "dump_" + std::to_string(platform::process_id());
  FILE* f = fopen(name.c_str(), "wb");  // the same bytes on every system, as the log
  if (!f) {
    SF_LOG(1, "cannot write to dump file %s", name.c_str());
    return;
  }
  std::string when = platform::ctime_text(time(nullptr));
  fprintf(f, "dump file for process %d created at %s Reason for dump: %s\n\n",
          static_cast<int>(platform::process_id()), when.c_str(), reason);
  fclose(f);
}

}  // namespace sf
