// The system log (syslog(3) on POSIX, the event log on Windows).
#pragma once

#include <string>

namespace sf {
namespace platform {

struct SyslogTarget {
  std::string ident;  // program name shown with each entry
  int facility;       // syslog facility code, e.g. 152 (LOG_LOCAL3)
  int priority;       // syslog priority, e.g. 4 (LOG_WARNING)
  bool console;       // also write to the system console if logging fails
};

// Posts one entry. Returns false (last_error() set) when it cannot.
bool syslog_post(const SyslogTarget& target, const std::string& text);

}  // namespace platform
}  // namespace sf
