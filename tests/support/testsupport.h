// Helpers shared by the unit tests.
#pragma once

#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace sf {
struct Buffer;
}

#ifdef _WIN32
// The C runtime of Windows has _putenv_s instead of the POSIX pair.
int setenv(const char* name, const char* value, int overwrite);
int unsetenv(const char* name);
#endif

namespace sftest {

// Creates the process's interpreter once, limit keys handed over (no site script).
void ensureInterp();
// ensureInterp(), and the library's script commands registered once.
void ensureCommands();

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::filesystem::path& path() const { return path_; }
  std::string str() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

// The source tree (SF_TEST_SOURCE_DIR, else the current directory).
std::filesystem::path sourceDir();
std::string readFile(const std::filesystem::path& p);
void writeFile(const std::filesystem::path& p, const std::string& text);
// The texts of the dump files (dump_<pid>) in dir.
std::vector<std::string> dumps(const std::filesystem::path& dir);

// Runs body in a child process whose working directory is a fresh temporary
// one, and expects it to exit with `status` (body's result, should it return)
// and standard error matching `stderrPattern`; returns the dump files the
// child left there. The child is this test program run again up to this call
// (the "threadsafe" death-test style), so it inherits no other thread and no
// lock held; it learns the directory from the environment.
std::vector<std::string> runInChild(const std::function<int()>& body, int status = 0,
                                    const char* stderrPattern = "");

// A buffer's contents (empty when nothing was ever allocated).
std::string text(const sf::Buffer& b);

// Points the file sink at dir/unit.log (five rotated files, the given size
// and template) and initialises the log at an explicit level, as start-up
// does.
void logToFile(const std::string& dir, int level, int filemaxKiB = 1024, const char* fmt = "");

// The Xber code f throws, or 0 when it returns.
int berCode(const std::function<void()>& f);

// One record as the log callback saw it.
struct Record {
  unsigned level;
  std::string msg;
  int code;
  std::string file;
  int line;
};

// Installs a log callback that keeps every record, at the given level, for
// the lifetime of the object; restores the previous level afterwards.
class LogCapture {
 public:
  explicit LogCapture(int level);
  ~LogCapture();
  std::vector<Record> records() const;
  // Messages of records at exactly this level.
  std::vector<std::string> messages(unsigned level) const;
  bool contains(const std::string& text) const;
  void clear();

 private:
  int previousLevel_;
};

}  // namespace sftest
