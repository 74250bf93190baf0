// Start-up: option stripping, directory precedence, the Tcl library, the fatal
// exits, events and the runtime's script commands (what an operator sees of
// sfhost, broken sites and exit statuses, is its integration test). Start-up runs once per process,
// so each start-up case runs in a child process of its own.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "sf/base/eventreport.h"
#include "sf/platform/pipe.h"
#include "sf/platform/signals.h"
#include "sf/platform/thread.h"
#include "sf/script/commands.h"
#include "sf/script/interp.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

namespace fs = std::filesystem;
using sftest::TempDir;
using sftest::writeFile;

namespace {

// A site directory: <dir>/etc/config.tcl with the given text.
void makeSite(const fs::path& dir, const std::string& config) {
  fs::create_directories(dir / "etc");
  writeFile(dir / "etc" / "config.tcl", config);
}

// Inside a child: a failed check is printed and makes the child exit 1.
int g_failures = 0;
void check(bool ok, const std::string& what) {
  if (!ok) {
    fprintf(stderr, "CHECK FAILED: %s\n", what.c_str());
    ++g_failures;
  }
}

// Runs body in a forked child that must pass its checks. Children are forked
// from the test (the "fast" death-test style): they see the test's temporary
// directories.
template <typename Fn>
void inChild(Fn body) {
  EXPECT_EXIT(
      {
        body();
        std::exit(g_failures ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

// Inside a child: initTcl on "host" followed by args; returns what it left
// of the command line.
std::vector<std::string> startWith(std::vector<const char*> args) {
  args.insert(args.begin(), "host");
  int argc = static_cast<int>(args.size());
  args.push_back(nullptr);
  sf::initTcl(argc, args.data());
  check(args[argc] == nullptr, "argv still ends in null");
  return {args.begin(), args.begin() + argc};
}

class Startup : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const char* v : {"SFROOTDIR", "SFDATDIR", "TCL_LIBRARY", "TAVODATDIR"}) unsetenv(v);
  }
};

}  // namespace

TEST_F(Startup, OptionsAreTakenOutOfArgvAndWinOverTheEnvironment) {
  TempDir optRoot, envRoot, envData;
  makeSite(optRoot.path(), "set which option\n");
  makeSite(envRoot.path(), "set which environment\n");
  setenv("SFROOTDIR", envRoot.str().c_str(), 1);
  setenv("SFDATDIR", envData.str().c_str(), 1);
  const std::string r = optRoot.str();
  inChild([&] {
    auto left = startWith({"-rootdir", r.c_str(), "-datdir", "/d", "-x", "a.tcl", "-d", "4"});
    check(left == std::vector<std::string>{"host", "-x", "a.tcl"}, "host -x a.tcl kept");
    check(sf::getVarStr("which", "") == "option", "config.tcl of -rootdir");
    check(sf::getVarStr("sf.rootdir", "") == r, "sf.rootdir from -rootdir");
    check(sf::dataDir() == "/d" && sf::getVarStr("sf.datdir", "") == "/d", "datdir /d");
    check(sf::g_logLevel.load() == 4, "-d sets the level");
  });
  // An option without its value is dropped; the directories come from the
  // environment as if it were absent (without either, sfhost's integration
  // test covers the defaults).
  inChild([&] {
    check(startWith({"a.tcl", "-rootdir"}).size() == 2, "argc is 2");
    check(sf::getVarStr("which", "") == "environment", "config.tcl of SFROOTDIR");
    check(sf::getVarStr("sf.datdir", "") == envData.str(), "sf.datdir from SFDATDIR");
  });
}

TEST_F(Startup, TclLibraryShippedWithTheSiteIsUsedUnlessTclLibraryIsSet) {
  TempDir site;
  makeSite(site.path(), "");
  setenv("SFROOTDIR", site.str().c_str(), 1);
  // A library that fails to initialise ends start-up (Tcl_Init runs an
  // existing tclInit procedure instead of its own search).
  EXPECT_EXIT(
      {
        sf::sfi_tclCreate();
        sf::eval("proc tclInit {} {error {no usable init.tcl}}");
        startWith({});
      },
      ::testing::ExitedWithCode(1),
      "^fatal start up error: error initializing tcl, check TCL_LIBRARY files are setup\n$");

  fs::path system;
  for (const char* d : {"/usr/share/tcltk/tcl8.6", "/usr/lib/tcl8.6", "/usr/share/tcl8.6"}) {
    if (fs::exists(fs::path(d) / "init.tcl")) system = d;
  }
  if (system.empty()) GTEST_SKIP() << "no Tcl library found to ship";
  fs::create_directory_symlink(system, site.path() / "etc" / "tcl8.6");
  std::string shipped = (site.path() / "etc" / "tcl8.6").string();
  inChild([&] {
    startWith({});
    check(sf::eval("info library") == shipped, "tcl_library is root/etc/tcl8.6");
  });
  setenv("TCL_LIBRARY", system.string().c_str(), 1);
  inChild([&] {
    startWith({});
    check(sf::eval("info library") != shipped, "TCL_LIBRARY leaves tcl_library alone");
  });
}

namespace {
void hangForEver(std::uint32_t, std::uint32_t, std::uint32_t, const char*, std::uint32_t,
                 std::uint32_t, const char*, int, const char*, int) {
  for (;;) sf::platform::sleep_ms(1000);
}

void fatalAgain(std::uint32_t, std::uint32_t, std::uint32_t, const char*, std::uint32_t,
                std::uint32_t, const char*, int, const char*, int) {
  sf::sf_fatal("during the first");
}
}  // namespace

TEST_F(Startup, FatalErrorsEndTheProcessWhateverHappensOnTheWay) {
  // Exit 3 even when a broken setting makes the event's report throw; a
  // fatal error raised while handling one ends the process at once with 1
  // (the event's level-1 record re-enters); a fatal path that hangs is cut
  // short by the deadline, which exits with 0.
  TempDir dir;
  auto fatal = [&](const char* useevorsyslog, sf::LogCallback hook) {
    fs::current_path(dir.path());
    sftest::ensureInterp();
    sf::setVarStr("sf.log.useevorsyslog", useevorsyslog);
    sf::g_logLevel.store(1);
    if (hook) sf::setlog(hook);
    sf::sf_fatal("queue head lost");
  };
  EXPECT_EXIT(fatal("yes", nullptr), ::testing::ExitedWithCode(3), "");
  EXPECT_EXIT(fatal("1", fatalAgain), ::testing::ExitedWithCode(1), "");
  EXPECT_EXIT(fatal("1", hangForEver), ::testing::ExitedWithCode(0), "");
}

TEST_F(Startup, ProgramsStartedByAHostThatBlocksStopSignalsCanBeStopped) {
  inChild([] {
    // As sfhost does in every thread. A child that kept the mask would sleep
    // its 30 seconds out and exit with 0.
    sf::platform::block_stop_signals();
    long pid = sf::platform::spawn("/bin/sleep", {"sleep", "30"}, {});
    check(pid > 0, "spawned");
    sf::platform::terminate(pid);
    int status = sf::platform::wait_child(pid);
    check(status == 128 + SIGTERM, "SIGTERM ended the child, status " + std::to_string(status));
  });
}

// --- in this process: events and the runtime's commands ---

namespace {
// The records at level (0: the log line, 1: the posted text) of the events
// raised, with useevorsyslog set to post.
template <typename Fn>
std::vector<std::string> eventRecords(int post, unsigned level, Fn raise) {
  sftest::LogCapture capture(3);
  sf::setVarInt("sf.log.useevorsyslog", post);
  raise();
  sf::setVarInt("sf.log.useevorsyslog", 0);
  return capture.messages(level);
}
using Texts = std::vector<std::string>;
}  // namespace

TEST(Events, LogLineAlwaysTranslatedTextWhenPostingAndTheScriptCommands) {
  sftest::ensureCommands();
  ASSERT_TRUE(sf::sfi_tclInitLibrary());
  sf::eval("package require msgcat");
  sf::eval(("source {" + (sftest::sourceDir() / "etc/sf_events.msg").string() + "}").c_str());
  auto raise = [] {
    sf::logandreport("02_sf_bind_s", "1.2.3.4:80", __FILE__, __LINE__);
    sf::logandreport2("10_sf_idletimeout_s_s", "1.1.1.1:80", "2.2.2.2:9", __FILE__, __LINE__);
    sf::logandreport3("09_sf_readtimeout_s_s_d", "a", "b", "5", __FILE__, __LINE__);
    sf::setVarStr("sf.servicename", "proxyA");
    sf::sfi_reportEventArg("16_sf_internalError_s", "lost");
    sf::setVarStr("sf.servicename", "");
    sf::logandreport("02_sf_bind_s", "x } [set ::injected 1] { y", __FILE__, __LINE__);
    sf::logandreport("99_sf_unknown_s", "x", __FILE__, __LINE__);
    sf::sfi_reportEvent("data directory not found/readable", "");
  };
  EXPECT_EQ(eventRecords(0, 1, raise), Texts{}) << "nothing posted with useevorsyslog 0";
  // The log line, always: the identifier and the arguments in braces.
  EXPECT_EQ(
      eventRecords(1, 0, raise),
      (Texts{"02_sf_bind_s { 1.2.3.4:80 } ", "10_sf_idletimeout_s_s { 1.1.1.1:80 }  { 2.2.2.2:9 }",
             "09_sf_readtimeout_s_s_d { a }  { b } { 5 }",
             "02_sf_bind_s { x } [set ::injected 1] { y } ", "99_sf_unknown_s { x } "}));
  // Posting: translated through the catalogue, numbered, prefixed with the
  // service name when one is set. An argument that closes its braces early
  // stays text. No catalogue entry, or no number in the identifier.
  EXPECT_EQ(eventRecords(1, 1, raise),
            (Texts{"[2] cannot bind listening address: 1.2.3.4:80 ",
                   "[10] idle connection closed: local 1.1.1.1:80  remote 2.2.2.2:9 ",
                   "[9] read time-out on connection local a  remote b  after 5  seconds",
                   "proxyA: [16] internal error, the process is ending: lost ",
                   "[2] cannot bind listening address: x ",
                   "[99] no translation for 99_sf_unknown_s { x } ",
                   "[0] no translation for data directory not found/readable "}));
  EXPECT_EQ(sf::getVarStr("injected", "no"), "no");

  // Every identifier the library raises has a text.
  for (const char* id :
       {"01_sf_connect_s", "02_sf_bind_s", "03_sf_eval_s", "06_sf_watchdog_s", "08_sf_openlog_s",
        "09_sf_readtimeout_s_s_d", "10_sf_idletimeout_s_s", "14_sf_renamelog_s_s",
        "15_sf_removelog_s", "16_sf_internalError_s", "17_sf_logError_s"}) {
    EXPECT_EQ(sf::eval((std::string("::msgcat::mcexists ") + id).c_str()), "1") << id;
  }

  // An event raised while reporting one (here by a catalogue lookup) is
  // dropped.
  sf::eval(
      "rename ::msgcat::mcexists ::msgcat::sftest_mcexists\n"
      "proc ::msgcat::mcexists {args} {sf_event 17_sf_logError_s nested; "
      "uplevel 1 [list ::msgcat::sftest_mcexists {*}$args]}");
  Texts posted =
      eventRecords(1, 1, [] { sf::sfi_reportEventArg("01_sf_connect_s", "10.0.0.1:25"); });
  sf::eval("rename ::msgcat::mcexists {}; rename ::msgcat::sftest_mcexists ::msgcat::mcexists");
  EXPECT_EQ(posted, Texts{"[1] outgoing connection failed: 10.0.0.1:25 "});
  // The guard is cleared again: the next event is reported.
  EXPECT_EQ(eventRecords(1, 1, [] { sf::eval("sf_event 17_sf_logError_s disk full"); }),
            Texts{"[17] log error: disk "});

  // sf_log, sf_event and sf_dump from scripts.
  sftest::LogCapture capture(3);
  EXPECT_EQ(sf::eval("sf_log 3 hello"), "");
  EXPECT_EQ(sf::eval("sf_log 4 quiet"), "");  // level 4 is off
  std::string seen;
  for (const auto& r : capture.records())
    if (r.msg == "hello" || r.msg == "quiet")
      seen += r.msg + " " + std::to_string(r.level) + " " + std::to_string(r.code) + " [" + r.file +
              "] " + std::to_string(r.line) + ";";
  EXPECT_EQ(seen, "hello 3 0 [] 0;");

  // Wrong word counts give the status -1.
  for (const char* wrong : {"sf_log 3", "sf_log 3 a b", "sf_event"})
    EXPECT_EQ(sf::eval(("catch {" + std::string(wrong) + "}").c_str()), "-1") << wrong;
  EXPECT_EQ(sf::eval("catch {sf_event 02_sf_bind_s}"), "0");

  TempDir dir;
  fs::path before = fs::current_path();
  fs::current_path(dir.path());
  EXPECT_EQ(sf::eval("catch {sf_dump}"), "0");
  fs::current_path(before);
  std::vector<std::string> dumped = sftest::dumps(dir.path());
  ASSERT_EQ(dumped.size(), 1u);
  EXPECT_NE(dumped[0].find(" Reason for dump: dump requested\n\n"), std::string::npos);
}
