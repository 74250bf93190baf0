// The log core: level test, record formatting and the three sinks.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "sf/base/eventreport.h"
#include "sf/base/locks.h"
#include "sf/base/log.h"
#include "sf/base/logcontrol.h"
#include "sf/base/logfile.h"
#include "sf/platform/clock.h"
#include "sf/platform/syserr.h"
#include "sf/platform/thread.h"
#include "sf/script/interp.h"
#include "sf/script/tcl.h"

namespace sf {

std::atomic<int> g_logLevel{-1};

namespace {

const size_t kArea = 4096;

std::atomic<bool> g_initialised{false};
std::atomic<bool> g_stderrMode{false};
std::atomic<LogCallback> g_callback{nullptr};
std::atomic<std::int64_t> g_firstStderrTime{0};

// Set once by sfi_logInit and afterwards read and cleared under the log lock.
Mx* g_logLock = nullptr;
std::string g_template SF_GUARDED_BY(*g_logLock);
// Whether g_template is non-empty, readable without the log lock.
std::atomic<bool> g_templateSet{false};
LogFile g_file SF_GUARDED_BY(*g_logLock);

std::string builtInLine(const std::string& stamp, std::uint32_t pid, std::uint32_t tid, int level,
                        std::int64_t secs, int code, const std::string& msg, const char* file,
                        int line) {
  char area[kArea];
  snprintf(area, sizeof area, "%s [%05d.%04d/%d]; %d.%06d (%d) %s @ %s:%d\n", stamp.c_str(),
           static_cast<int>(pid), static_cast<int>(tid), level, static_cast<int>(secs), 0, code,
           msg.c_str(), file ? file : "", line);
  return area;
}

// The line as the Tcl format template makes it, or "" when the template
// gave nothing usable (it is then dropped for the rest of the process) or
// failed for this record.
std::string templateLine(const std::string& stamp, std::uint32_t pid, std::uint32_t tid, int level,
                         std::int64_t secs, int code, const std::string& msg, const char* file,
                         int line) SF_REQUIRES(*g_logLock) {
  // The record's fields go to format as words of their own: a message holds
  // peer bytes, and in a script text a brace or bracket of it would end its
  // word and run a command.
  std::vector<std::string> words = {"format", g_template, stamp};
  for (int n :
       {static_cast<int>(pid), static_cast<int>(tid), level, static_cast<int>(secs), 0, code})
    words.push_back(std::to_string(n));
  words.insert(words.end(), {msg, file ? file : "", std::to_string(line)});
  std::string result;
  try {
    result = sfi_quietEval(words);
  } catch (const char*) {
    return "";  // this record falls back to the built-in layout
  }
  if (result.empty() || result == g_template) {
    std::string dropped = g_template;
    g_template.clear();
    g_templateSet.store(false, std::memory_order_release);
    SF_LOG(1, "ignoring invalid format string %s", dropped.c_str());
    return "";
  }
  if (result.size() >= kArea) result.resize(kArea - 1);
  return result;
}

void writeToFileSink(const std::string& stamp, std::uint32_t pid, std::uint32_t tid, int level,
                     std::int64_t secs, int code, const std::string& msg, const char* file,
                     int line) {
  if (!g_initialised.load(std::memory_order_acquire)) return;
  LogFile::Failure failure;
  {
    // A template is evaluated by the interpreter, so its record needs the Tcl
    // lock as well as the log lock. Evaluations and command procedures log
    // while they hold the Tcl lock, that is they take the log lock inside
    // it; were a template record to take the Tcl lock inside the log lock,
    // two threads could each hold one and wait for the other. So the Tcl lock
    // is taken first here, and the order is the same on every path.
    std::optional<MxLock> tclGuard;
    if (g_templateSet.load(std::memory_order_acquire) && sfi_tclReady())
      tclGuard.emplace(sfi_tclLock());
    MxLock guard(*g_logLock);
    std::string text;
    if (!g_template.empty() && tclGuard)
      text = templateLine(stamp, pid, tid, level, secs, code, msg, file, line);
    if (text.empty()) text = builtInLine(stamp, pid, tid, level, secs, code, msg, file, line);
    failure = g_file.write(text);
  }
  if (!failure.eventId.empty()) sfi_reportEvent(failure.eventId.c_str(), failure.argText.c_str());
}

}  // namespace

std::string sfi_fmtlog(const char* fmt, ...) {
  char area[kArea];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(area, sizeof area, fmt, ap);
  va_end(ap);
  return area;
}

int sfi_log(int level, int code, const char* msg, const char* file, int line, int syserr) {
  int savedError = platform::last_error();
  std::string message(msg ? msg : "");
  int printed = code;
  if (syserr) {
    printed = savedError;
    std::string sysText = platform::error_text(savedError);
    // The long form is composed and discarded; only the bare text is kept.
    std::string discarded = sfi_fmtlog(" failed with error (%d): %s", printed, sysText.c_str());
    (void)discarded;
    message += sysText;
  }
  if (!sfi_on(level)) {
    platform::set_last_error(savedError);
    return code;
  }
  std::uint32_t tid = platform::thread_id();
  std::uint32_t pid = platform::process_id();
  std::int64_t now = static_cast<std::int64_t>(time(nullptr));

  if (g_stderrMode.load(std::memory_order_relaxed)) {
    std::int64_t expected = 0;
    g_firstStderrTime.compare_exchange_strong(expected, now);
    std::int64_t first = g_firstStderrTime.load();
    // The elapsed part reads -1 on the first record and the fraction always
    // prints 1000000: tools that read these lines expect exactly that.
    fprintf(stderr, "%d/%d <%lld.%06d> (%d) %s\n", static_cast<int>(tid), level,
            static_cast<long long>(now - first - 1), 1000000, printed, message.c_str());
    platform::set_last_error(savedError);
    return code;
  }

  std::string stamp = platform::local_time_text(static_cast<std::time_t>(now), "%Y-%m-%d.%H:%M:%S");
  if (LogCallback cb = g_callback.load(std::memory_order_acquire)) {
    cb(pid, tid, static_cast<std::uint32_t>(level), stamp.c_str(), static_cast<std::uint32_t>(now),
       0, message.c_str(), printed, file, line);
  } else {
    writeToFileSink(stamp, pid, tid, level, now, printed, message, file, line);
  }
  platform::set_last_error(savedError);
  return code;
}

void setlog(LogCallback cb) {
  g_callback.store(cb, std::memory_order_release);
}

void sfi_setLogLevel(int level) {
  g_logLevel.store(level, std::memory_order_relaxed);
  SF_LOG(1, "explicitly setting log level to %d", level);
}

void sfi_logToStderr() {
  g_stderrMode.store(true, std::memory_order_relaxed);
  SF_LOG(1, "sending logs to stderr");
}

void sfi_logInit() {
  if (!g_logLock) g_logLock = new Mx(false);
  std::string dir = getVarStr("sf.log.dir", ".");
  int filemax = getVarInt("sf.log.filemax", 1024);
  int numfiles = getVarInt("sf.log.numfiles", 5);
  std::string stem = getVarStr("sf.log.filename", "sf");
  std::string fmt = getVarStr("sf.log.fmt", "");
  int tclLevel = getVarInt("sf.log.level", 1);
  {
    MxLock guard(*g_logLock);
    g_file.configure(dir, stem, filemax, numfiles);
    g_template = fmt;
    g_templateSet.store(!fmt.empty(), std::memory_order_release);
  }
  if (g_logLevel.load() == -1) {
    const char* dbg = getenv("SF_DBG");
    if (!dbg) {
      g_logLevel.store(tclLevel);
      SF_LOG(1, "using tcl log level of %d", tclLevel);
    } else if (*dbg) {
      g_logLevel.store(atoi(dbg));
      SF_LOG(1, "SF_DBG being used to set log level to %d", atoi(dbg));
    } else {
      g_logLevel.store(255);
      SF_LOG(1, "SF_DBG set to null, setting log level to 255");
    }
  }
  g_initialised.store(true, std::memory_order_release);
}

// Before the log lock exists only the starting thread runs, and the sink is
// set without it: a rule the analysis cannot state.
void sfi_setLogFileLockHooks(const LogFileLockHooks* hooks) SF_NO_THREAD_SAFETY_ANALYSIS {
  // Not while a record is being written: it would unlock what it never locked.
  if (g_logLock) {
    MxLock guard(*g_logLock);
    g_file.setLockHooks(hooks);
  } else {
    g_file.setLockHooks(hooks);
  }
}

namespace {
std::atomic<int> g_nextTraceSite{0};
// A trace record is itself logged, and logging takes a lock that traces:
// records raised while one is being written on this thread are not logged.
thread_local bool t_inTrace = false;
}  // namespace

void trace(const char* file, int* siteId, int line, const char* tag, const char* text,
           long long value, int a, int b, int c) {
  if (t_inTrace) return;
  struct Guard {
    Guard() { t_inTrace = true; }
    ~Guard() { t_inTrace = false; }
  } guard;
  auto emit = [&](const char* recordTag, const char* recordText) {
    if (!sfi_on(10)) return;
    char shortTag[8];    // tags are cut to 7 characters
    char shortText[32];  // texts to 31
    snprintf(shortTag, sizeof shortTag, "%s", recordTag);
    snprintf(shortText, sizeof shortText, "%s", recordText);
    std::string msg = sfi_fmtlog("%s %s %lld %d %d %d", shortTag, shortText, value, a, b, c);
    sfi_log(10, 0, msg.c_str(), file, line, 0);
  };
  if (__atomic_load_n(siteId, __ATOMIC_RELAXED) == 0) {
    // The counter starts at 0, so the very first site keeps 0 and registers
    // again on its next call.
    __atomic_store_n(siteId, g_nextTraceSite.fetch_add(1), __ATOMIC_RELAXED);
    emit("DEF", file);
  }
  emit(tag, text);
}

}  // namespace sf
