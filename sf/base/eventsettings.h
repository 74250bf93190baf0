// How events reach the system log; set by start-up from the sf.syslog.* keys.
#pragma once

#include <string>

namespace sf {

struct EventSettings {
  int priority = 4;             // sf.syslog.prio (LOG_WARNING)
  int facility = 152;           // sf.syslog.facility (LOG_LOCAL3)
  std::string ident = "qdlsf";  // sf.syslog.ident
  int console = 0;              // sf.syslog.console
};

void sfi_setEventSettings(const EventSettings& settings);
EventSettings sfi_eventSettings();

}  // namespace sf
