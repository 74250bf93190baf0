// The log core: levels, sinks, SF_DBG, rotation, the format template, tracing.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "sf/base/logcontrol.h"
#include "sf/base/logfile.h"
#include "sf/platform/clock.h"
#include "sf/platform/syserr.h"
#include "sf/platform/thread.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

namespace fs = std::filesystem;

namespace {

std::vector<std::string> lines(const fs::path& file) {
  std::vector<std::string> out;
  std::istringstream in(sftest::readFile(file));
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

std::string g_stamp;
std::uint32_t g_pid, g_tid, g_seconds, g_micros;
void keepFields(std::uint32_t pid, std::uint32_t tid, std::uint32_t, const char* stamp,
                std::uint32_t seconds, std::uint32_t micros, const char*, int, const char*, int) {
  g_pid = pid, g_tid = tid, g_stamp = stamp, g_seconds = seconds, g_micros = micros;
}

}  // namespace

TEST(Log, LevelsGateRecordsAndSystemErrorsArePrinted) {
  {
    sftest::LogCapture unset(-1);  // nothing at all, not even level 0
    SF_LOG(0, "formatted %d", 1);
    EXPECT_TRUE(unset.records().empty());
  }
  sftest::LogCapture log(3);
  EXPECT_EQ(sf::sfi_log(4, 99, "too detailed", "f.cpp", 1, 0), 99);
  EXPECT_EQ(sf::sfi_log(3, 17, "kept", "src/f.cpp", 12, 0), 17);
  ASSERT_EQ(log.records().size(), 1u);
  EXPECT_EQ(log.records()[0].code, 17);
  EXPECT_EQ(log.records()[0].line, 12);

  // A failed call: the system error is the printed code and its bare text
  // follows the call's text; the caller keeps its result and its errno.
  log.clear();
  sf::platform::set_last_error(2);
  EXPECT_EQ(SF_SYSFAIL(-7, "bind()"), -7);
  EXPECT_EQ(sf::platform::last_error(), 2);
  ASSERT_EQ(log.records().size(), 1u);
  EXPECT_EQ(log.records()[0].level, 0u);
  EXPECT_EQ(log.records()[0].code, 2);
  EXPECT_EQ(log.records()[0].msg, "bind()" + sf::platform::error_text(2));
  EXPECT_EQ(sf::sfi_fmtlog("%s", std::string(5000, 'a').c_str()).size(), 4095u);

  // The host callback gets the identity and time fields as well.
  sf::setlog(keepFields);
  sf::sfi_log(1, 0, "to the host", "host.cpp", 44, 0);
  EXPECT_EQ(g_pid, sf::platform::process_id());
  EXPECT_EQ(g_tid, sf::platform::thread_id());
  EXPECT_EQ(g_micros, 0u);
  EXPECT_EQ(g_stamp, sf::platform::local_time_text(g_seconds, "%Y-%m-%d.%H:%M:%S"));
}

TEST(Log, InitialisationChoosesTheLevel) {
  sftest::ensureInterp();
  sftest::TempDir dir;
  sf::setVarStr("sf.log.dir", dir.str().c_str());
  sftest::LogCapture log(-1);
  auto initWith = [&](const char* dbg, int explicitLevel) {
    if (dbg)
      setenv("SF_DBG", dbg, 1);
    else
      unsetenv("SF_DBG");
    sf::sfi_setLogLevel(explicitLevel);
    sf::sfi_logInit();
    std::vector<std::string> said = log.messages(1);
    log.clear();
    return std::to_string(sf::g_logLevel.load()) + ": " + (said.empty() ? "" : said.back());
  };
  sf::eval("unset -nocomplain sf.log.level");
  EXPECT_EQ(initWith(nullptr, -1), "1: using tcl log level of 1");  // the default
  sf::setVarInt("sf.log.level", 4);
  EXPECT_EQ(initWith(nullptr, -1), "4: using tcl log level of 4");
  EXPECT_EQ(initWith("6", -1), "6: SF_DBG being used to set log level to 6");
  EXPECT_EQ(initWith("9", 2), "2: explicitly setting log level to 2");
  EXPECT_EQ(initWith("", -1), "255: SF_DBG set to null, setting log level to 255");
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
  sftest::logToFile(dir.str(), 3);
  sf::sfi_log(3, 7, "hello", "src/x.cpp", 12, 0);
  sf::sfi_log(4, 0, "filtered", "src/x.cpp", 13, 0);
  std::smatch m;
  std::string text = sftest::readFile(dir.path() / "unit.log");
  ASSERT_TRUE(std::regex_match(text, m,
                               std::regex(R"(\d{4}-\d\d-\d\d\.\d\d:\d\d:\d\d )"
                                          R"(\[(\d{5,})\.(\d{4,})/3\]; \d+\.000000 )"
                                          R"(\(7\) hello @ src/x\.cpp:12\n)")))
      << text;
  EXPECT_EQ(std::stoul(m[1]), sf::platform::process_id());
  EXPECT_EQ(std::stoul(m[2]), sf::platform::thread_id());

  // Closed between records, so it can be moved away at any time.
  fs::rename(dir.path() / "unit.log", dir.path() / "moved.log");
  sf::sfi_log(3, 0, "after the move", "src/x.cpp", 14, 0);
  EXPECT_EQ(lines(dir.path() / "moved.log").size(), 1u);
  EXPECT_EQ(lines(dir.path() / "unit.log").size(), 1u);

  // The cross-process lock seam: one lock/unlock pair around each write.
  static int locks, unlocks;
  locks = unlocks = 0;
  const sf::LogFileLockHooks hooks{[] { ++locks; }, [] { ++unlocks; }};
  sf::sfi_setLogFileLockHooks(&hooks);
  sf::sfi_log(3, 0, "one", "f", 1, 0);
  sf::sfi_log(3, 0, "two", "f", 1, 0);
  sf::sfi_setLogFileLockHooks(nullptr);
  sf::sfi_log(3, 0, "three", "f", 1, 0);
  EXPECT_EQ(locks * 10 + unlocks, 22);
  sf::sfi_setLogLevel(-1);
}

TEST(LogFile, RotationKeepsTheNumberedSet) {
  sftest::TempDir dir;
  sftest::logToFile(dir.str(), 3, /*filemaxKiB=*/1);
  const int total = 41;  // about four lines a file: ten rotations
  for (int i = 1; i <= total; ++i) sf::sfi_log(3, i, std::string(250, '.').c_str(), "f", 1, 0);

  // Six files, read oldest first: the records are consecutive up to the
  // last; the ones before were removed. Each file rotated as soon as it
  // reached 1 KiB.
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 6);
  std::vector<int> codes;
  for (const char* name :
       {"unit-4.log", "unit-3.log", "unit-2.log", "unit-1.log", "unit-0.log", "unit.log"}) {
    size_t size = fs::file_size(dir.path() / name), last = 0;
    for (const std::string& l : lines(dir.path() / name)) {
      std::smatch m;
      ASSERT_TRUE(std::regex_search(l, m, std::regex(R"(\.000000 \((\d+)\) )"))) << l;
      codes.push_back(std::stoi(m[1]));
      last = l.size() + 1;
    }
    if (std::string(name) != "unit.log") {
      EXPECT_TRUE(size >= 1024 && size - last < 1024) << name;
    }
  }
  EXPECT_EQ(codes.back(), total);
  EXPECT_GT(codes.front(), 1);
  for (size_t i = 1; i < codes.size(); ++i) EXPECT_EQ(codes[i], codes[i - 1] + 1);
  sf::sfi_setLogLevel(-1);

  // A second writer (a process without the shared lock) rotates the full
  // file between our size check and our rotation: we go on in its new file
  // rather than rotate that one away.
  sftest::TempDir race;
  sf::LogFile ours, theirs;
  ours.configure(race.str(), "unit", 1, 5);
  theirs.configure(race.str(), "unit", 1, 5);
  sf::LogFile::Failure failure;
  ASSERT_TRUE(ours.append(std::string(1100, 'o') + "\n", failure));
  theirs.write("theirs\n");
  EXPECT_TRUE(ours.rotate().eventId.empty());
  ours.write("ours\n");
  EXPECT_EQ(sftest::readFile(race.path() / "unit-0.log").size(), 1108u);
  EXPECT_EQ(sftest::readFile(race.path() / "unit.log"), "ours\n");
  EXPECT_FALSE(fs::exists(race.path() / "unit-1.log"));
}

TEST(LogFile, TemplateShapesTheLineAndUselessOnesAreDroppedOnce) {
  // format's arguments: 1 timestamp, 2 pid, 3 tid, 4 level, 5 seconds,
  // 6 microseconds, 7 code, 8 message, 9 file, 10 line.
  sftest::TempDir dir;
  sftest::logToFile(dir.str(), 3, 1024, "L%4$s C%7$s <%8$s> %9$s:%10$s us=%6$s\n");
  // A message is one word of the format command, whatever it holds.
  sf::sfi_log(3, 7, "hello} [set ::ran 1] {world", "x.cpp", 12, 0);
  EXPECT_EQ(sftest::readFile(dir.path() / "unit.log"),
            "L3 C7 <hello} [set ::ran 1] {world> x.cpp:12 us=0\n");
  EXPECT_EQ(sf::getVarStr("ran", "no"), "no");

  // Failing for one record (a message that is no integer) gives that record
  // the built-in layout; the template stays.
  sftest::TempDir dir2;
  sftest::logToFile(dir2.str(), 3, 1024, "n=%8$d\n");
  sf::sfi_log(3, 0, "not a number", "x.cpp", 1, 0);
  sf::sfi_log(3, 0, "42", "x.cpp", 2, 0);
  std::vector<std::string> ls = lines(dir2.path() / "unit.log");
  ASSERT_EQ(ls.size(), 2u);
  EXPECT_NE(ls[0].find("(0) not a number @ x.cpp:1"), std::string::npos);
  EXPECT_EQ(ls[1], "n=42");

  // Formatting to itself or to nothing drops it, once, with a notice.
  for (const char* useless : {"constant text", "%8$.0s"}) {
    sftest::TempDir dir3;
    sftest::logToFile(dir3.str(), 1, 1024, useless);
    sf::sfi_log(1, 0, "first", "x.cpp", 1, 0);
    sf::sfi_log(1, 0, "second", "x.cpp", 2, 0);
    ls = lines(dir3.path() / "unit.log");
    ASSERT_EQ(ls.size(), 3u) << useless;
    EXPECT_NE(ls[0].find("/1]; "), std::string::npos);
    EXPECT_NE(ls[0].find(std::string(" ignoring invalid format string ") + useless + " @ "),
              std::string::npos);
    EXPECT_NE(ls[1].find(" first @ x.cpp:1"), std::string::npos);
    EXPECT_NE(ls[2].find(" second @ x.cpp:2"), std::string::npos);
  }
  sf::sfi_setLogLevel(-1);
}

TEST(Log, TraceRecordsAtLevelTenWithTagAndTextCut) {
  // Trace records are for developers and their layout is free; they are
  // logged at level 10, a long tag or text cut to its field.
  sftest::LogCapture log(10);
  int site = 0;
  sf::trace("trace_site.cpp", &site, 77, "abcdefghij", std::string(40, 't').c_str(), 5, 1, 2, 3);
  // A site is numbered on first use with a definition record naming the file.
  EXPECT_EQ(log.messages(10),
            (std::vector<std::string>{"DEF trace_site.cpp 5 1 2 3",
                                      "abcdefg " + std::string(31, 't') + " 5 1 2 3"}));
  // In a file each record takes the log lock, which traces; those traces
  // are not traced in turn.
  sftest::TempDir dir;
  sftest::logToFile(dir.str(), 10);
  sf::sfi_log(1, 0, "under a traced lock", "x.cpp", 1, 0);
  EXPECT_NE(sftest::readFile(dir.path() / "unit.log").find("lock  "), std::string::npos);
}
