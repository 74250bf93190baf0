// sfhost: the reference host program. It starts the library on the site
// found from its command line and environment, runs the site's start
// scripts, and then serves until SIGTERM or SIGINT asks for an orderly stop.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "sf/platform/signals.h"
#include "sf/platform/thread.h"
#include "sf/sflib.h"

namespace {

const char kUsage[] =
    "usage: sfhost [-rootdir DIR] [-datdir DIR] [-d LEVEL] [-l] [SCRIPT.tcl ...]\n"
    "\n"
    "Starts the sf library on a site: evaluates ROOT/etc/config.tcl, then each\n"
    "SCRIPT named (found as given, in the data directory, or in ROOT/etc), or\n"
    "start.tcl when none is named and one is found that way. Then serves until\n"
    "SIGTERM or SIGINT, which shut the library down in order, or until a script\n"
    "does so with sf_quiesce.\n"
    "\n"
    "Options:\n"
    "  -rootdir DIR  root directory of the site (its etc/config.tcl is run)\n"
    "                default: two levels above this program (bin/..)\n"
    "  -datdir DIR   data directory, searched for scripts after the current\n"
    "                directory; default: the current directory\n"
    "  -d LEVEL      log level (0 events ... 10 traces); wins over SF_DBG and\n"
    "                sf.log.level\n"
    "  -l            write log records to standard error, not to the log file\n"
    "  -h, --help    print this text and exit\n"
    "\n"
    "Environment:\n"
    "  SFROOTDIR            root directory unless -rootdir is given\n"
    "  SFDATDIR             data directory unless -datdir is given\n"
    "  SF_DBG               log level (empty: 255) unless -d is given\n"
    "  SF_IOLOG             log data passing through connections\n"
    "  TCL_LIBRARY          Tcl's own script library\n"
    "  TAVODATDIR           installation name of the shared statistics block\n"
    "  TAVO_WIN_MEM_GLOBAL  OFF: session-local statistics block name\n"
    "  ESTAT_LOG            file the statistics block's notes are appended to\n"
    "  SF_HTTP_PORT         port of the default site's HTTP echo service (8080)\n"
    "\n"
    "Exit status:\n"
    "  0  stopped by SIGTERM, SIGINT or sf_quiesce, or --help\n"
    "  1  start-up failed (root directory or Tcl library not found)\n"
    "  2  the site configuration or a start script failed\n"
    "  3  the library stopped on an internal error (see the dump_<pid> file)\n";

bool wantsHelp(int argc, const char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) return true;
  }
  return false;
}

bool namesScript(const char** argv) {
  for (int i = 1; argv[i]; ++i) {
    if (argv[i][0] != '-') return true;
  }
  return false;
}

// start.tcl as given, in the data directory, or in root/etc.
bool startScriptFound() {
  namespace fs = std::filesystem;
  std::error_code ec;
  return fs::is_regular_file("start.tcl", ec) ||
         fs::is_regular_file(fs::path(sf::dataDir()) / "start.tcl", ec) ||
         fs::is_regular_file(fs::path(sf::rootDir()) / "etc" / "start.tcl", ec);
}

// Xtcl's text carries the Tcl error and where it happened; a bad setting is
// said in one line of its own.
void reportScriptFailure(const char* what, const sf::X& x) {
  const sf::Xtcl* tcl = dynamic_cast<const sf::Xtcl*>(&x);
  if (tcl && tcl->errorCode == "SF CONFIG")
    fprintf(stderr, "sfhost: bad configuration: %s\n", tcl->errorInfo.c_str());
  else
    fprintf(stderr, "sfhost: %s failed: %s\n", what, x.str().c_str());
}

[[noreturn]] void leave(int status) {
  fflush(nullptr);
  sf::platform::exit_now(status);
}

}  // namespace

int main(int argc, const char** argv) {
  if (wantsHelp(argc, argv)) {
    fputs(kUsage, stdout);
    return 0;
  }
  // Before any thread exists, so that only the main thread ever takes them.
  sf::platform::block_stop_signals();

  try {
    sf::init(argc, argv);
  } catch (const sf::X& x) {
    reportScriptFailure("site configuration", x);
    leave(2);
  } catch (const char* s) {
    fprintf(stderr, "sfhost: start-up failed: %s\n", s);
    leave(1);
  }

  // The timer thread, and with it sf_mkTmr and sf_rmTmr, for the scripts below.
  sf::initTimer();

  try {
    if (namesScript(argv)) {
      sf::evalScript(argc, argv);
    } else if (startScriptFound()) {
      sf::evalFile("start.tcl");
    }
  } catch (const sf::X& x) {
    reportScriptFailure("start script", x);
    sf::shutdown();
    leave(2);
  }

  // Serve until a stop signal, or until a script has shut the library down
  // (sf_quiesce); then there is nothing left to serve.
  int sig;
  while ((sig = sf::platform::wait_stop_signal_ms(500)) == 0) {
    if (sf::quiescedByScript()) {
      SF_LOG(1, "sfhost: shut down by a script");
      SF_LOG(1, "sfhost: stopped");
      leave(0);
    }
  }
  SF_LOG(1, "sfhost: %s received, shutting down", sf::platform::signal_name(sig));
  sf::shutdown();
  SF_LOG(1, "sfhost: stopped");
  leave(0);
}
