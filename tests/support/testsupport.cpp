#include "support/testsupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>

#include "sf/base/logcontrol.h"
#include "sf/script/commands.h"
#include "sf/script/interp.h"
#include "sf/script/limits.h"
#include "sf/sflib.h"

#ifdef _WIN32
int setenv(const char* name, const char* value, int overwrite) {
  if (!overwrite && getenv(name)) return 0;
  return _putenv_s(name, value);
}
int unsetenv(const char* name) {
  return _putenv_s(name, "");  // an empty value removes the entry
}
#endif

namespace sftest {

void ensureInterp() {
  sf::sfi_tclCreate();
  sf::sfi_handLimits();
}

void ensureCommands() {
  static bool done = false;
  ensureInterp();
  if (!done) sf::sfi_registerCommands();
  done = true;
}

TempDir::TempDir() {
  static std::atomic<int> counter{0};
  path_ = std::filesystem::temp_directory_path() /
          ("sftest-" + std::to_string(std::random_device()()) + "-" + std::to_string(counter++));
  std::filesystem::create_directories(path_);
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::filesystem::path sourceDir() {
  const char* s = getenv("SF_TEST_SOURCE_DIR");
  return s ? s : ".";
}

std::string text(const sf::Buffer& b) {
  return std::string(b.data ? b.data : "", b.size());
}

std::string readFile(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void writeFile(const std::filesystem::path& p, const std::string& text) {
  std::ofstream(p, std::ios::binary) << text;
}

std::vector<std::string> dumps(const std::filesystem::path& dir) {
  std::vector<std::string> out;
  for (const auto& e : std::filesystem::directory_iterator(dir))
    if (e.path().filename().string().rfind("dump_", 0) == 0) out.push_back(readFile(e.path()));
  return out;
}

std::vector<std::string> runInChild(const std::function<int()>& body, int status,
                                    const char* stderrPattern) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::unique_ptr<TempDir> dir;
  if (!getenv("SF_TEST_CHILD_DIR")) {
    dir = std::make_unique<TempDir>();
    setenv("SF_TEST_CHILD_DIR", dir->str().c_str(), 1);
  }
  EXPECT_EXIT(
      {
        std::filesystem::current_path(getenv("SF_TEST_CHILD_DIR"));
        std::_Exit(body());
      },
      ::testing::ExitedWithCode(status), stderrPattern);
  if (!dir) return {};  // in a child, past a call that was not its own
  unsetenv("SF_TEST_CHILD_DIR");
  return dumps(dir->path());
}

void logToFile(const std::string& dir, int level, int filemaxKiB, const char* fmt) {
  ensureInterp();
  sf::setlog(nullptr);
  sf::setVarStr("sf.log.dir", dir.c_str());
  sf::setVarStr("sf.log.filename", "unit");
  sf::setVarInt("sf.log.filemax", filemaxKiB);
  sf::eval("unset -nocomplain sf.log.numfiles");
  sf::setVarStr("sf.log.fmt", fmt);
  sf::sfi_setLogLevel(level);
  sf::sfi_logInit();
}

int berCode(const std::function<void()>& f) {
  try {
    f();
  } catch (const sf::Xber& e) {
    return e.GetError();
  }
  return 0;
}

namespace {
// Never destroyed: library threads that outlive a test (readers, workers)
// may still log into them while the process runs its exit handlers.
std::mutex& g_lock = *new std::mutex;
std::vector<Record>& g_records = *new std::vector<Record>;

void keep(std::uint32_t, std::uint32_t, std::uint32_t level, const char*, std::uint32_t,
          std::uint32_t, const char* msg, int code, const char* file, int line) {
  std::lock_guard<std::mutex> guard(g_lock);
  g_records.push_back({level, msg, code, file ? file : "", line});
}
}  // namespace

LogCapture::LogCapture(int level) : previousLevel_(sf::g_logLevel.load()) {
  clear();
  sf::setlog(keep);
  sf::g_logLevel.store(level);
}

LogCapture::~LogCapture() {
  sf::setlog(nullptr);
  sf::g_logLevel.store(previousLevel_);
}

std::vector<Record> LogCapture::records() const {
  std::lock_guard<std::mutex> guard(g_lock);
  return g_records;
}

std::vector<std::string> LogCapture::messages(unsigned level) const {
  std::vector<std::string> out;
  for (const Record& r : records())
    if (r.level == level) out.push_back(r.msg);
  return out;
}

bool LogCapture::contains(const std::string& text) const {
  for (const Record& r : records())
    if (r.msg.find(text) != std::string::npos) return true;
  return false;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> guard(g_lock);
  g_records.clear();
}

}  // namespace sftest
