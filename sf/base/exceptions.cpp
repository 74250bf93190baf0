// Texts of the exception family and the throw-site record.
#include <string>

#include "sf/platform/syserr.h"
#include "sf/sferr.h"

namespace sf {

std::string X::str() const {
  return sfi_fmtlog("%d-%d", category, code);
}

Xsys::Xsys(const char* what) : X(1, platform::last_error()) {
  message = std::string(what) + " - " + platform::error_text(code);
}

std::string Xsys::str() const {
  return X::str() + " " + message;
}

std::string Xmem::str() const {
  return X::str() + " " + sfi_fmtlog("mem requested=%d", requested);
}

std::string Xbounds::str() const {
  return X::str() + " " + sfi_fmtlog("range=%d; index=%d", range, index);
}

std::string Xclosed::str() const {
  return "the connection is closed.";
}

std::string Xtcl::str() const {
  // No space between the prefix and "tcl code: ": hosts match this text.
  return X::str() + "tcl code: " + errorCode + " error info: " + errorInfo;
}

std::string Xber::str() const {
  return "BER - an error occured processing ber data.";
}

void sfi_throwsite(const char* site, const char* expression, const char* file, int line) {
  if (!sfi_on(3)) return;
  int saved = platform::last_error();
  std::string text = sfi_fmtlog("exception %s:%s thrown at %s.%d", site, expression, file, line);
  sfi_log(3, 0, text.c_str(), file, line, 0);
  platform::set_last_error(saved);
}

}  // namespace sf
