// syslog(3). openlog keeps the ident pointer, so each post opens and closes
// the log under a lock with a stable copy of the ident.
#include "sf/platform/syslog.h"

#include <syslog.h>

#include <mutex>

namespace sf {
namespace platform {

bool syslog_post(const SyslogTarget& target, const std::string& text) {
  static std::mutex lock;
  static std::string ident;
  std::lock_guard<std::mutex> guard(lock);
  ident = target.ident;
  openlog(ident.c_str(), LOG_PID | LOG_NDELAY | (target.console ? LOG_CONS : 0), target.facility);
  syslog(LOG_MAKEPRI(target.facility, target.priority & LOG_PRIMASK), "%s", text.c_str());
  closelog();
  return true;
}

}  // namespace platform
}  // namespace sf
