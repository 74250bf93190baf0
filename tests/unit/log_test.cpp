// The log core: levels, the three sinks, SF_DBG, rotation, the format
// template and tracing.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "sf/platform/clock.h"
#include "sf/platform/syserr.h"
#include "sf/platform/thread.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

namespace fs = std::filesystem;

namespace {

// Points the file sink at dir with the given keys and initialises the log at
// an explicit level, as start-up does.
void initFileLog(const sftest::TempDir& dir, int level, int filemaxKiB = 1024, int numfiles = 5,
                 const char* fmt = "") {
  sftest::ensureInterp();
  sf::setlog(nullptr);
  sf::setVarStr("sf.log.dir", dir.str().c_str());
  sf::setVarStr("sf.log.filename", "unit");
  sf::setVarInt("sf.log.filemax", filemaxKiB);
  sf::setVarInt("sf.log.numfiles", numfiles);
  sf::setVarStr("sf.log.fmt", fmt);
  sf::sfi_setLogLevel(level);
  sf::sfi_logInit();
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

struct FullRecord {
  std::uint32_t pid, tid, level, seconds, micros;
  std::string stamp, msg, file;
  int code, line;
};
std::vector<FullRecord> g_full;
void keepFull(std::uint32_t pid, std::uint32_t tid, std::uint32_t level, const char* stamp,
              std::uint32_t seconds, std::uint32_t micros, const char* msg, int code,
              const char* file, int line) {
  g_full.push_back({pid, tid, level, seconds, micros, stamp, msg, file ? file : "", code, line});
}

}  // namespace

TEST(Log, LevelsGateEveryRecord) {
  {
    // Unset (-1): nothing at all, not even level 0.
    sftest::LogCapture log(-1);
    EXPECT_FALSE(sf::sfi_on(0));
    sf::sfi_log(0, 0, "event", "f.cpp", 1, 0);
    SF_LOG(0, "formatted %d", 1);
    EXPECT_TRUE(log.records().empty());
  }
  sftest::LogCapture log(3);
  EXPECT_TRUE(sf::sfi_on(3));
  EXPECT_FALSE(sf::sfi_on(4));
  EXPECT_EQ(sf::sfi_log(4, 99, "too detailed", "f.cpp", 1, 0), 99);
  EXPECT_EQ(sf::sfi_log(3, 17, "kept", "src/f.cpp", 12, 0), 17);
  std::vector<sftest::Record> records = log.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, 3u);
  EXPECT_EQ(records[0].msg, "kept");
  EXPECT_EQ(records[0].code, 17);
  EXPECT_EQ(records[0].file, "src/f.cpp");
  EXPECT_EQ(records[0].line, 12);

  // Formatting keeps at most 4095 characters.
  EXPECT_EQ(sf::sfi_fmtlog("%s", std::string(5000, 'a').c_str()).size(), 4095u);
  EXPECT_EQ(sf::sfi_fmtlog("%d-%s", 4, "x"), "4-x");
}

TEST(Log, FailedSystemCallPrintsTheSystemError) {
  sftest::LogCapture log(0);
  const std::string text2 = sf::platform::error_text(2);
  sf::platform::set_last_error(2);
  int rc = SF_SYSFAIL(-7, "bind(s, addr.addr->addr(), addr.addr->addrlen())");
  EXPECT_EQ(rc, -7);  // the caller keeps its result
  EXPECT_EQ(sf::platform::last_error(), 2);
  std::vector<sftest::Record> records = log.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, 0u);
  EXPECT_EQ(records[0].code, 2);  // the system error, not the result
  // The bare system text follows the call's text directly.
  EXPECT_EQ(records[0].msg, "bind(s, addr.addr->addr(), addr.addr->addrlen())" + text2);

  // Filtered out, the record still returns its code and leaves the error.
  sf::g_logLevel.store(-1);
  sf::platform::set_last_error(13);
  EXPECT_EQ(sf::sfi_log(0, 5, "x", "f", 1, 1), 5);
  EXPECT_EQ(sf::platform::last_error(), 13);
}

TEST(Log, CallbackReceivesEveryField) {
  g_full.clear();
  sf::setlog(keepFull);
  sf::g_logLevel.store(5);
  sf::sfi_log(5, -3, "to the host", "host.cpp", 44, 0);
  sf::setlog(nullptr);
  sf::g_logLevel.store(-1);
  ASSERT_EQ(g_full.size(), 1u);
  const FullRecord& r = g_full[0];
  EXPECT_EQ(r.pid, sf::platform::process_id());
  EXPECT_EQ(r.tid, sf::platform::thread_id());
  EXPECT_EQ(r.level, 5u);
  EXPECT_EQ(r.micros, 0u);
  EXPECT_EQ(r.stamp, sf::platform::local_time_text(r.seconds, "%Y-%m-%d.%H:%M:%S"));
  EXPECT_TRUE(std::regex_match(r.stamp, std::regex(R"(\d{4}-\d\d-\d\d\.\d\d:\d\d:\d\d)")));
  EXPECT_EQ(r.msg, "to the host");
  EXPECT_EQ(r.code, -3);
  EXPECT_EQ(r.file, "host.cpp");
  EXPECT_EQ(r.line, 44);
}

TEST(Log, InitialisationChoosesTheLevel) {
  sftest::ensureInterp();
  sftest::TempDir dir;
  sf::setVarStr("sf.log.dir", dir.str().c_str());
  sf::setVarInt("sf.log.level", 4);
  sftest::LogCapture log(-1);

  // Nobody set it and no SF_DBG: the script's sf.log.level.
  unsetenv("SF_DBG");
  sf::sfi_setLogLevel(-1);
  sf::sfi_logInit();
  EXPECT_EQ(sf::g_logLevel.load(), 4);
  EXPECT_EQ(log.messages(1), std::vector<std::string>{"using tcl log level of 4"});

  // SF_DBG wins over sf.log.level.
  log.clear();
  setenv("SF_DBG", "6", 1);
  sf::sfi_setLogLevel(-1);
  sf::sfi_logInit();
  EXPECT_EQ(sf::g_logLevel.load(), 6);
  EXPECT_EQ(log.messages(1), std::vector<std::string>{"SF_DBG being used to set log level to 6"});

  // An explicit level wins over SF_DBG.
  log.clear();
  sf::sfi_setLogLevel(2);
  sf::sfi_logInit();
  EXPECT_EQ(sf::g_logLevel.load(), 2);
  EXPECT_EQ(log.messages(1), std::vector<std::string>{"explicitly setting log level to 2"});

  // Present but empty: everything, traces included.
  log.clear();
  setenv("SF_DBG", "", 1);
  sf::sfi_setLogLevel(-1);
  sf::sfi_logInit();
  EXPECT_EQ(sf::g_logLevel.load(), 255);
  EXPECT_TRUE(log.contains("SF_DBG set to null, setting log level to 255"));
  log.clear();
  sf::Mx mx;
  mx.lock();
  mx.unlock();
  std::vector<std::string> traces = log.messages(10);
  std::regex lockTrace(R"(lock  \d+ 0 0 0)"), unlockTrace(R"(unlock  \d+ 0 0 0)");
  bool sawLock = false, sawUnlock = false;
  for (const std::string& t : traces) {
    sawLock = sawLock || std::regex_match(t, lockTrace);
    sawUnlock = sawUnlock || std::regex_match(t, unlockTrace);
  }
  EXPECT_TRUE(sawLock && sawUnlock) << ::testing::PrintToString(traces);
  unsetenv("SF_DBG");
  sf::sfi_setLogLevel(-1);
}

TEST(LogDeathTest, StderrModeStartsAtMinusOne) {
  // A fresh process: stderr mode cannot be switched off again.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        sf::sfi_setLogLevel(1);
        sf::sfi_logToStderr();
        sf::platform::set_last_error(2);
        SF_SYSFAIL(-1, "open(x)");
        sf::sfi_log(2, 0, "filtered", "f", 1, 0);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0),
      "^[0-9]+/1 <-1\\.1000000> \\(0\\) sending logs to stderr\n"
      "[0-9]+/0 <-?[0-9]+\\.1000000> \\(2\\) open\\(x\\)No such file or directory\n$");
}

TEST(LogFile, BuiltInLayoutOneOpenPerRecord) {
  sftest::TempDir dir;
  initFileLog(dir, 3);
  sf::sfi_log(3, 7, "hello", "src/x.cpp", 12, 0);
  sf::sfi_log(4, 0, "filtered", "src/x.cpp", 13, 0);
  std::string text = sftest::readFile(dir.path() / "unit.log");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(
      text, m,
      std::regex(
          R"(\d{4}-\d\d-\d\d\.\d\d:\d\d:\d\d \[(\d{5,})\.(\d{4,})/3\]; \d+\.000000 \(7\) hello @ src/x\.cpp:12\n)")))
      << text;
  EXPECT_EQ(std::stoul(m[1]), sf::platform::process_id());
  EXPECT_EQ(std::stoul(m[2]), sf::platform::thread_id());

  // The file is closed between records, so it can be moved away at any time.
  fs::rename(dir.path() / "unit.log", dir.path() / "moved.log");
  sf::sfi_log(3, 0, "after the move", "src/x.cpp", 14, 0);
  EXPECT_EQ(lines(sftest::readFile(dir.path() / "moved.log")).size(), 1u);
  std::vector<std::string> now = lines(sftest::readFile(dir.path() / "unit.log"));
  ASSERT_EQ(now.size(), 1u);
  EXPECT_NE(now[0].find("after the move"), std::string::npos);

  // A directory that cannot hold the file loses records but never throws.
  sftest::TempDir other;
  sf::setVarStr("sf.log.dir", (other.str() + "/no/such").c_str());
  sf::sfi_logInit();
  EXPECT_NO_THROW(sf::sfi_log(3, 0, "lost", "f", 1, 0));
  EXPECT_TRUE(fs::is_empty(other.path()));
  sf::sfi_setLogLevel(-1);
}

TEST(LogFile, RotationKeepsTheNumberedSet) {
  sftest::TempDir dir;
  initFileLog(dir, 3, /*filemaxKiB=*/1, /*numfiles=*/5);
  const std::string pad(250, '.');
  const int total = 41;
  for (int i = 1; i <= total; ++i) sf::sfi_log(3, i, pad.c_str(), "f", 1, 0);

  std::set<std::string> names;
  for (const auto& e : fs::directory_iterator(dir.path())) names.insert(e.path().filename());
  EXPECT_EQ(names, (std::set<std::string>{"unit.log", "unit-0.log", "unit-1.log", "unit-2.log",
                                          "unit-3.log", "unit-4.log"}));

  // Oldest first: unit-4 ... unit-0, then unit.log. The records in them are
  // consecutive and end with the last one; the ones before were removed.
  std::regex codeOf(R"(; \d+\.000000 \((\d+)\) )");
  std::vector<int> codes;
  for (std::string name :
       {"unit-4.log", "unit-3.log", "unit-2.log", "unit-1.log", "unit-0.log", "unit.log"}) {
    std::string text = sftest::readFile(dir.path() / name);
    std::vector<std::string> ls = lines(text);
    ASSERT_FALSE(ls.empty()) << name;
    if (name != "unit.log") {
      // Rotated as soon as it reached 1 KiB, not later.
      EXPECT_GE(text.size(), 1024u) << name;
      EXPECT_LT(text.size() - ls.back().size() - 1, 1024u) << name;
    }
    for (const std::string& l : ls) {
      std::smatch m;
      ASSERT_TRUE(std::regex_search(l, m, codeOf)) << l;
      codes.push_back(std::stoi(m[1]));
    }
  }
  EXPECT_EQ(codes.back(), total);
  for (size_t i = 1; i < codes.size(); ++i) EXPECT_EQ(codes[i], codes[i - 1] + 1);
  EXPECT_GT(codes.front(), 1);  // the sixth rotation and later removed the oldest
  sf::sfi_setLogLevel(-1);
}

TEST(LogFile, TemplateShapesTheLine) {
  sftest::TempDir dir;
  // format's arguments: 1 timestamp, 2 pid, 3 tid, 4 level, 5 seconds,
  // 6 microseconds, 7 code, 8 message, 9 file, 10 line.
  initFileLog(dir, 3, 1024, 5, "L%4$s C%7$s <%8$s> %9$s:%10$s us=%6$s\n");
  sf::sfi_log(3, 7, "hello world", "x.cpp", 12, 0);
  EXPECT_EQ(sftest::readFile(dir.path() / "unit.log"), "L3 C7 <hello world> x.cpp:12 us=0\n");

  // A template that fails for one record (a message that is no integer)
  // gives that record the built-in layout and stays in use.
  sftest::TempDir dir2;
  initFileLog(dir2, 3, 1024, 5, "n=%8$d\n");
  sf::sfi_log(3, 0, "not a number", "x.cpp", 1, 0);
  sf::sfi_log(3, 0, "42", "x.cpp", 2, 0);
  std::vector<std::string> ls = lines(sftest::readFile(dir2.path() / "unit.log"));
  ASSERT_EQ(ls.size(), 2u);
  EXPECT_NE(ls[0].find("(0) not a number @ x.cpp:1"), std::string::npos);
  EXPECT_EQ(ls[1], "n=42");
  sf::sfi_setLogLevel(-1);
}

TEST(LogFile, UselessTemplateIsDroppedOnce) {
  // A template without conversions formats to itself.
  sftest::TempDir dir;
  initFileLog(dir, 1, 1024, 5, "constant text");
  sf::sfi_log(1, 0, "first", "x.cpp", 1, 0);
  sf::sfi_log(1, 0, "second", "x.cpp", 2, 0);
  std::vector<std::string> ls = lines(sftest::readFile(dir.path() / "unit.log"));
  ASSERT_EQ(ls.size(), 3u) << sftest::readFile(dir.path() / "unit.log");
  EXPECT_NE(ls[0].find("/1]; "), std::string::npos);
  EXPECT_NE(ls[0].find(" ignoring invalid format string constant text @ "), std::string::npos);
  EXPECT_NE(ls[1].find(" first @ x.cpp:1"), std::string::npos);
  EXPECT_NE(ls[2].find(" second @ x.cpp:2"), std::string::npos);

  // One that formats to nothing is dropped the same way.
  sftest::TempDir dir2;
  initFileLog(dir2, 1, 1024, 5, "%8$.0s");
  sf::sfi_log(1, 0, "third", "x.cpp", 3, 0);
  ls = lines(sftest::readFile(dir2.path() / "unit.log"));
  ASSERT_EQ(ls.size(), 2u);
  EXPECT_NE(ls[0].find("ignoring invalid format string %8$.0s"), std::string::npos);
  EXPECT_NE(ls[1].find(" third @ x.cpp:3"), std::string::npos);
  sf::sfi_setLogLevel(-1);
}

TEST(Log, TraceRecordsAtLevelTen) {
  sftest::LogCapture log(10);
  int site = 0;
  const std::string longText(40, 't');
  sf::trace("trace_site.cpp", &site, 77, "abcdefghij", longText.c_str(), 5, 1, 2, 3);
  int firstId = site;
  sf::trace("trace_site.cpp", &site, 78, "tag", "text", -9, 0, 0, 0);
  // Numbered on first use, with a definition record naming the file; a
  // second call from the same site defines nothing, except for the very
  // first site of the process, which keeps 0 and defines again.
  std::vector<sftest::Record> records, defs;
  for (const sftest::Record& r : log.records())
    (r.msg.rfind("DEF ", 0) == 0 ? defs : records).push_back(r);
  ASSERT_EQ(defs.size(), firstId != 0 ? 1u : 2u);
  EXPECT_EQ(defs[0].msg, "DEF trace_site.cpp 5 1 2 3");
  ASSERT_EQ(records.size(), 2u);
  const sftest::Record& cut = records[0];
  EXPECT_EQ(cut.level, 10u);
  EXPECT_EQ(cut.file, "trace_site.cpp");
  EXPECT_EQ(cut.line, 77);
  EXPECT_EQ(cut.msg, "abcdefg " + std::string(31, 't') + " 5 1 2 3");
  EXPECT_EQ(records.back().msg, "tag text -9 0 0 0");
  EXPECT_EQ(records.back().line, 78);

  // Below level 10 nothing is written, but the site is still numbered.
  log.clear();
  sf::g_logLevel.store(9);
  int quiet = 0;
  sf::trace("trace_site.cpp", &quiet, 1, "t", "x", 0, 0, 0, 0);
  EXPECT_TRUE(log.records().empty());
}
