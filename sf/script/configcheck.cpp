// The start-up check of the sf.* configuration keys.
//
// Every key the library reads is checked once, after the site's config.tcl
// has run and before anything uses it, against the values that make sense
// for it. A bad value stops start-up with one message naming the key, the
// value and what is allowed, instead of a server that runs with a value
// other than the one its operator wrote (or spins, or grows without bound).
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "sf/base/log.h"
#include "sf/platform/fs.h"
#include "sf/script/configcheck.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"

namespace sf {

namespace {

enum class Kind {
  Integer,     // an integer in [min, max]
  HeaderText,  // text sent in HTTP headers: no control characters
  FileName,    // a plain file name: not empty, no '/'
  Directory,   // an existing directory the process can write into
};

struct Key {
  const char* name;
  Kind kind;
  long long min;
  long long max;
};

constexpr long long kDay = 86400;
constexpr long long kYear = 365 * kDay;
constexpr long long kGiB = 1024LL * 1024 * 1024;

// Ranges are what a server can run with; docs/configuration.md lists them.
const Key kKeys[] = {
    {"sf.maxbuf", Kind::Integer, 4096, kGiB},
    {"sf.log.dir", Kind::Directory, 0, 0},
    {"sf.log.filename", Kind::FileName, 0, 0},
    {"sf.log.filemax", Kind::Integer, 1, 1024LL * 1024},
    {"sf.log.numfiles", Kind::Integer, 1, 1000},
    {"sf.log.level", Kind::Integer, 0, 255},
    {"sf.log.useevorsyslog", Kind::Integer, 0, 1},
    {"sf.syslog.prio", Kind::Integer, 0, 7},
    {"sf.syslog.console", Kind::Integer, 0, 1},
    {"sf.syslog.facility", Kind::Integer, 0, 23 << 3},
    {"sf.watchdog", Kind::Integer, INT_MIN, kYear},
    {"sf.qsize", Kind::Integer, 1, 1000000},
    {"sf.idletimeout", Kind::Integer, 0, kYear},
    {"sf.maxConnections", Kind::Integer, 0, 10000000},
    {"sf.connWaitingAlarmSeconds", Kind::Integer, 1, kDay},
    {"sf.reader.readtimeout", Kind::Integer, 1, kDay},
    {"sf.reader.threads", Kind::Integer, 1, 256},
    {"sf.shutdown.drain", Kind::Integer, 0, kDay},
    {"sf.readtimeout", Kind::Integer, 0, kDay},
    {"sf.socksndbufsize", Kind::Integer, -1, kGiB},
    {"sf.tcp.backlog", Kind::Integer, 1, 65535},
    {"sf.tcp.linger", Kind::Integer, 0, 65535},
    {"sf.ber.maxdepth", Kind::Integer, 1, INT_MAX},
    {"sf.ber.logerrorlevel", Kind::Integer, 0, 255},
    {"sf.ber.loginfolevel", Kind::Integer, 0, 255},
    {"proxy.*.maxlength", Kind::Integer, INT_MIN, kGiB},  // below 1: no BER item limit
    {"sf.http.header.maxlength", Kind::Integer, 64, 64LL * 1024 * 1024},
    {"sf.http.body.maxlength", Kind::Integer, 0, kGiB},
    {"sf.http.statusResult", Kind::Integer, 100, 599},
    {"sf.http.statusReason", Kind::HeaderText, 0, 0},
    {"sf.http.requestURL", Kind::HeaderText, 0, 0},
    {"sf.http.contentType", Kind::HeaderText, 0, 0},
    {"sf.http.useragent", Kind::HeaderText, 0, 0},
    {"sf.http.server", Kind::HeaderText, 0, 0},
    {"sf.servicename", Kind::HeaderText, 0, 0},
    {"sf.syslog.ident", Kind::HeaderText, 0, 0},
};

// True when text is a whole decimal integer (Tcl's own reading would also
// take 0x1f or 010; configuration values are plain decimals).
bool parseDecimal(const std::string& text, long long* value) {
  size_t i = text.find_first_not_of(" \t");
  if (i == std::string::npos) return false;
  const char* start = text.c_str() + i;
  char* end = nullptr;
  errno = 0;
  *value = strtoll(start, &end, 10);
  if (end == start || errno == ERANGE) return false;
  while (*end == ' ' || *end == '\t') ++end;
  return *end == '\0' && (start[0] != '0' || start[1] == '\0' || !isdigit(start[1]));
}

bool hasControlCharacter(const std::string& text) {
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7f) return true;
  }
  return false;
}

// The value as the message shows it: control characters as \r, \n, \xNN,
// so that the message stays one line.
std::string printable(const std::string& value) {
  std::string out;
  for (unsigned char c : value) {
    if (c == '\r') {
      out += "\\r";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c < 0x20 || c == 0x7f) {
      char hex[8];
      snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// What a value of kind must look like, for the message.
std::string allowed(const Key& key) {
  switch (key.kind) {
    case Kind::Integer:
      if (key.min == INT_MIN) return "a decimal integer up to " + std::to_string(key.max);
      return "a decimal integer from " + std::to_string(key.min) + " to " + std::to_string(key.max);
    case Kind::HeaderText:
      return "text without control characters (no CR, LF or NUL)";
    case Kind::FileName:
      return "a file name without '/'";
    case Kind::Directory:
      return "an existing directory this process can write into";
  }
  return "";
}

bool acceptable(const Key& key, const std::string& value) {
  switch (key.kind) {
    case Kind::Integer: {
      long long n;
      return parseDecimal(value, &n) && n >= key.min && n <= key.max;
    }
    case Kind::HeaderText:
      return !hasControlCharacter(value);
    case Kind::FileName:
      return !value.empty() && value.find('/') == std::string::npos && !hasControlCharacter(value);
    case Kind::Directory:
      return platform::is_directory(value) && platform::is_writable(value);
  }
  return false;
}

}  // namespace

void sfi_checkConfiguration() {
  // A value the interpreter holds as a list or number still has a text.
  static const char kUnset[] = "\x01unset";
  for (const Key& key : kKeys) {
    std::string value = getVarStr(key.name, kUnset);
    if (value == kUnset || acceptable(key, value)) continue;
    Xtcl bad;
    bad.errorCode = "SF CONFIG";
    bad.errorInfo =
        std::string(key.name) + " is \"" + printable(value) + "\"; allowed: " + allowed(key);
    SF_LOG(1, "configuration: %s", bad.errorInfo.c_str());
    SF_THROW("config", bad);
  }
}

}  // namespace sf
