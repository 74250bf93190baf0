// Event reporting to the Application event log, under a source named by the
// ident. The syslog priority chooses the entry's type.
#include "sf/platform/syslog.h"

#include <windows.h>

#include <cstdio>

namespace sf {
namespace platform {

namespace {
WORD entryType(int priority) {
  int level = priority & 7;
  if (level <= 3) return EVENTLOG_ERROR_TYPE;  // emergency .. error
  if (level == 4) return EVENTLOG_WARNING_TYPE;
  return EVENTLOG_INFORMATION_TYPE;
}
}  // namespace

bool syslog_post(const SyslogTarget& target, const std::string& text) {
  HANDLE source = RegisterEventSourceA(nullptr, target.ident.c_str());
  bool ok = false;
  if (source) {
    const char* strings[1] = {text.c_str()};
    ok = ReportEventA(source, entryType(target.priority), 0, 0, nullptr, 1, 0, strings, nullptr) !=
         0;
    DWORD e = GetLastError();
    DeregisterEventSource(source);
    SetLastError(e);
  }
  if (!ok && target.console) {
    DWORD e = GetLastError();
    fprintf(stderr, "%s: %s\n", target.ident.c_str(), text.c_str());
    SetLastError(e);
  }
  return ok;
}

}  // namespace platform
}  // namespace sf
