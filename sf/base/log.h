// The process-wide log.
//
// Callers test a level cheaply with sfi_on(), format only when it is on, and
// hand the text to sfi_log() with their source file and line. A record goes to
// exactly one sink: standard error (stderr mode, for development), the host's
// callback (setlog), or the library's own rotating log file. Lower levels are
// more important; level 0 is written whenever logging is initialised.
//
//   0 events            4 timers               8 environment, timer, watchdog
//   1 important         5 reader and queues    9 connection data
//   2 start-up facts    6 evaluation          10 traces
//   3 errors, throws    7 script commands
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

// printf format checking where the compiler offers it. mingw-w64's printf
// family is its C99 one (%zu, %lld), so the GNU rules apply there too.
#if defined(__MINGW32__)
#define SF_PRINTF_LIKE(fmt, args) __attribute__((format(gnu_printf, fmt, args)))
#elif defined(__GNUC__)
#define SF_PRINTF_LIKE(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define SF_PRINTF_LIKE(fmt, args)
#endif

namespace sf {

// The current level; -1 (the start) writes nothing. Use sfi_on().
extern std::atomic<int> g_logLevel;

// True if records of level l are written. One comparison.
inline bool sfi_on(int l) {
  return l <= g_logLevel.load(std::memory_order_relaxed);
}

// printf-style formatting into a 4096-byte area: at most 4095 characters kept.
std::string sfi_fmtlog(const char* fmt, ...) SF_PRINTF_LIKE(1, 2);

// Writes one record and returns code. With syserr non-zero the calling
// thread's last system error becomes the printed code and its text is
// appended to msg. Never throws for file problems (they become events).
int sfi_log(int level, int code, const char* msg, const char* file, int line, int syserr);

// The host's log sink: replaces the file sink when installed.
typedef void (*LogCallback)(std::uint32_t pid, std::uint32_t tid, std::uint32_t level,
                            const char* timestamp, std::uint32_t seconds, std::uint32_t micros,
                            const char* msg, int code, const char* file, int line);

// Installs (null: removes) the callback sink. Call it at start-up.
void setlog(LogCallback cb);

// Fine-grained tracing at level 10. *siteId numbers the call site on its
// first use (a "DEF" record names its file).
void trace(const char* file, int* siteId, int line, const char* tag, const char* text,
           long long value, int a, int b, int c);

}  // namespace sf

// Logs a printf-formatted record at level when that level is on.
#define SF_LOG(level, ...)                                                                   \
  do {                                                                                       \
    if (::sf::sfi_on(level))                                                                 \
      ::sf::sfi_log(level, 0, ::sf::sfi_fmtlog(__VA_ARGS__).c_str(), __FILE__, __LINE__, 0); \
  } while (0)

// Records a failed system call: level 0, its result as code, the call's text
// as written in the source as message, and the system error and text added.
// Evaluates to result.
#define SF_SYSFAIL(result, calltext) ::sf::sfi_log(0, (result), calltext, __FILE__, __LINE__, 1)
