// Event reporting: the level-0 log line, the guarded reporter, translation
// through the message catalogue, and posting to the system log.
#include <cstdio>
#include <list>
#include <string>

#include "sf/base/eventreport.h"
#include "sf/base/eventsettings.h"
#include "sf/base/locks.h"
#include "sf/platform/syserr.h"
#include "sf/platform/syslog.h"
#include "sf/script/interp.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"

namespace sf {

namespace {

EventSettings g_settings;
bool g_reporting = false;  // only touched under the Tcl lock

// The reporter proper: translate, number and post one event.
void report(const char* id, const char* argText) {
  if (getVarInt("sf.log.useevorsyslog", 0) == 0) return;
  // The catalogue's format string is filled with the argument text's words.
  // They are passed through a variable and expanded as literal words, so an
  // argument that closes its braces early cannot make the interpreter run
  // anything.
  std::string command = std::string("format [::msgcat::mc ") + id + "] {*}$sfi_eventArgs";
  std::string text = std::string("no translation for ") + id + " " + argText;
  try {
    // msgcat answers an unknown key with the key itself; an event without a
    // catalogue entry keeps the untranslated text instead.
    std::string probe = std::string("::msgcat::mcexists ") + id;
    if (eval(probe.c_str()) == "1") {
      setVarStr("sfi_eventArgs", argText);
      text = eval(command.c_str());
    }
  } catch (const X&) {
    // No catalogue, a malformed argument list, or a format that does not
    // fit the arguments.
  }
  unsigned number = 0;
  sscanf(id, "%u_", &number);
  number |= 0xC0000000u;
  std::list<std::string> inserts;
  try {
    tclsplit(argText, inserts);
  } catch (const X&) {
    // The translated text already carries the arguments.
  }
  std::string service = getVarStr("sf.servicename", "");
  std::string entry = service.empty() ? "" : service + ": ";
  entry += sfi_fmtlog("[%u] ", number & 0xFFFFu) + text;
  SF_LOG(1, "%s", entry.c_str());
  platform::SyslogTarget target{g_settings.ident, g_settings.facility, g_settings.priority,
                                g_settings.console != 0};
  if (!platform::syslog_post(target, entry)) {
    SF_LOG(1, "Error in call to ReportEvent for Windows event viewer - GetLastError() is %d",
           platform::last_error());
  }
}

}  // namespace

void sfi_setEventSettings(const EventSettings& settings) {
  g_settings = settings;
}
EventSettings sfi_eventSettings() {
  return g_settings;
}

void sfi_reportEvent(const char* id, const char* argText) {
  if (!sfi_tclReady()) return;
  MxLock guard(sfi_tclLock());
  if (g_reporting) return;  // an event raised while reporting one is dropped
  g_reporting = true;
  try {
    report(id, argText);
  } catch (...) {
    g_reporting = false;
    throw;
  }
  g_reporting = false;
}

void sfi_reportEventArg(const char* id, const char* arg) {
  std::string text = std::string("{ ") + arg + " }";
  sfi_reportEvent(id, text.c_str());
}

void logandreport_v(const char* id, const char* text, const char* file, int line) {
  std::string message = std::string(id) + " " + text;
  sfi_log(0, 0, message.c_str(), file, line, 0);
  sfi_reportEvent(id, text);
}

void sfi_logAndReport(const char* file, int line, const char* id, const char* a, const char* b,
                      const char* c) {
  std::string text;
  if (a) text = std::string("{ ") + a + " } ";
  if (b) text += std::string(" { ") + b + " }";
  if (c) text += std::string(" { ") + c + " }";
  logandreport_v(id, text.c_str(), file, line);
}

void logandreport3(const char* id, const char* a, const char* b, const char* c, const char* file,
                   int line) {
  sfi_logAndReport(file, line, id, a, b, c);
}

void logandreport2(const char* id, const char* a, const char* b, const char* file, int line) {
  sfi_logAndReport(file, line, id, a, b);
}

void logandreport(const char* id, const char* a, const char* file, int line) {
  sfi_logAndReport(file, line, id, a);
}

}  // namespace sf
