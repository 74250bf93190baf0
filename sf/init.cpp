// Library start-up: sf::init and sf::initTcl.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sf/base/eventreport.h"
#include "sf/base/eventsettings.h"
#include "sf/base/locks.h"
#include "sf/base/log.h"
#include "sf/base/logcontrol.h"
#include "sf/base/stats.h"
#include "sf/base/statsattach.h"
#include "sf/http/httpcommands.h"
#include "sf/platform/fs.h"
#include "sf/platform/sockinit.h"
#include "sf/runtime.h"
#include "sf/script/commands.h"
#include "sf/script/configcheck.h"
#include "sf/script/interp.h"
#include "sf/script/limits.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"
#include "sf/work/watchdog.h"

namespace sf {

namespace {

const char kNoDataDir[] = "data directory not found/readable";

// A start-up the process cannot survive: one line on standard error, no
// event, no dump.
[[noreturn]] void fatalStartup(const char* reason) {
  fprintf(stderr, "fatal start up error: %s\n", reason);
  fflush(stderr);
  std::exit(1);
}

// Directories chosen by options; empty when not given.
struct StartOptions {
  std::string datadir;
  std::string rootdir;
};

// Takes the library's own options out of argv, keeping every other word in
// order, and acts on -d and -l as they are met.
StartOptions stripOptions(int& argc, const char** argv) {
  StartOptions options;
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    const char* word = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (strcmp(word, "-datdir") == 0) {
      if (value) options.datadir = value, ++i;
    } else if (strcmp(word, "-rootdir") == 0) {
      if (value) options.rootdir = value, ++i;
    } else if (strcmp(word, "-d") == 0) {
      if (value) sfi_setLogLevel(atoi(value)), ++i;
    } else if (strcmp(word, "-l") == 0) {
      sfi_logToStderr();
    } else {
      argv[kept++] = word;
    }
  }
  if (argc > 0) {
    argc = kept;
    argv[argc] = nullptr;
  }
  return options;
}

// Drops the last path component; false when there is no '/' to cut at.
bool cutLast(std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return false;
  path.resize(slash);
  return true;
}

// -rootdir, else SFROOTDIR, else two levels above the executable (a host in
// <root>/bin gives <root>).
std::string rootDirectory(const std::string& option) {
  if (!option.empty()) return option;
  if (const char* env = getenv("SFROOTDIR")) return env;
  std::string path = platform::executable_path();
  for (int level = 0; level < 2; ++level)
    if (!cutLast(path)) fatalStartup("root directory not found");
  return path;
}

// -datdir, else SFDATDIR, else the current directory; may be empty.
std::string dataDirectory(const std::string& option) {
  if (!option.empty()) return option;
  if (const char* env = getenv("SFDATDIR")) return env;
  return platform::current_directory();
}

// Reads an integer key; a bad value leaves with Xtcl naming the key.
int readIntKey(const char* key, int dflt) {
  try {
    return getVarInt(key, dflt);
  } catch (Xtcl& x) {
    x.errorInfo += std::string("\n    (reading integer configuration key \"") + key + "\")";
    throw;
  }
}

}  // namespace

void initTcl(int& argc, const char** argv) {
  sfi_setEventSettings(EventSettings{});

  sfi_tclCreate();
  sfi_registerCommands();

  StartOptions options = stripOptions(argc, argv);

  std::string datadir = dataDirectory(options.datadir);
  if (datadir.empty()) SF_EVENT(kNoDataDir);
  std::string rootdir = rootDirectory(options.rootdir);
  sfi_setDirectories(datadir, rootdir);
  setVarStr("sf.rootdir", rootdir.c_str());
  setVarStr("sf.datdir", datadir.c_str());

  // Tcl's own scripts: TCL_LIBRARY, else a copy shipped under root/etc when
  // there is one, else the library compiled into Tcl.
  if (!getenv("TCL_LIBRARY") && getVarStr("tcl_library", "").empty()) {
    std::string shipped = rootdir + "/etc/tcl8.6";
    if (platform::is_directory(shipped)) setVarStr("tcl_library", shipped.c_str());
  }
  if (!sfi_tclInitLibrary())
    fatalStartup("error initializing tcl, check TCL_LIBRARY files are setup");

  std::string site = rootdir + "/etc/config.tcl";
  evalFile(site.c_str());
  sfi_handLimits();

  SF_LOG(2, "sfrootdir=%s datdir = %s", rootdir.c_str(), datadir.c_str());

  EventSettings settings;
  settings.priority = readIntKey("sf.syslog.prio", 4);
  settings.console = readIntKey("sf.syslog.console", 0);
  settings.facility = readIntKey("sf.syslog.facility", 152);
  settings.ident = getVarStr("sf.syslog.ident", "qdlsf");
  sfi_setEventSettings(settings);
}

void init(int& argc, const char** argv) {
  if (!Mx::g_initLock) Mx::g_initLock = new Mx(true);

  // Kept in the shape the Windows socket layer needs: ask for 2.2 and refuse
  // anything else.
  int major = 0;
  int minor = 0;
  if (!platform::socket_layer_start(2, 2, &major, &minor) || major != 2 || minor != 2) {
    platform::socket_layer_cleanup();
    throw "couldn't get appropriate winsock version";
  }

  initTcl(argc, argv);
  sfi_checkConfiguration();

  int attached = sfi_attachStats();

  try {
    sfi_logInit();
  } catch (Xtcl& x) {
    x.errorInfo += "\n    (reading the sf.log.* configuration keys)";
    throw;
  }
  if (attached != 0) SF_LOG(1, "shared statistics block %s not attached", statsBlockName().c_str());
  const std::string& datadir = dataDir();
  if (datadir.empty() || !platform::is_directory(datadir)) {
    SF_LOG(1, "%s: \"%s\"", kNoDataDir, datadir.c_str());
  }

  // The HTTP script commands, now that the site's configuration has run.
  sfi_registerHttpCommands();

  watchdog_init();
}

}  // namespace sf
