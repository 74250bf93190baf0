// The sf exception family.
//
// Every failure inside the library is thrown as a value of a class derived
// from sf::X and caught by reference. Each carries a category and a code and
// renders itself as text with str(). Every throw goes through SF_THROW, which
// first writes the throw-site record to the log (level 3), so the log shows
// where an exception was born even when a caller later swallows it.
#pragma once

#include <string>

#include "sf/base/log.h"

namespace sf {

struct Buffer;

// Codes of Xber, thrown by the BER codec.
namespace Ber {
enum ErrorType {
  NO_BER_DEFINED = 1,
  BER_NOT_VALIDATED = 2,
  INVALID_LENGTH = 3,
  INVALID_TYPE = 4,
  INVALID_INDEX = 5,
  INTEGER_OUT_OF_BOUNDS = 6,
  LENGTH_OUT_OF_BOUNDS = 7,
  TAG_OUT_OF_BOUNDS = 8,
  INSUFFICENT_DATA = 10,
  TOO_DEEP = 11,
};
}  // namespace Ber

// Codes of Xldap. The library itself throws none; they exist for hosts that
// decode LDAP on top of the BER codec.
namespace ldap {
enum ErrorType {
  LDAP_DECODE_ERROR = 1,
  LDAP_UNKNOWN_OPERATION = 2,
  LDAP_PROTOCOL_ERROR = 3,
};
}  // namespace ldap

// Root of the family: category and code, rendered "category-code".
struct X {
  int category;
  int code;

  X(int category_, int code_) : category(category_), code(code_) {}
  virtual ~X() = default;
  virtual std::string str() const;
};

// A failed system call: category 1, the system error code read at
// construction, and what + " - " + the system's text for that code.
struct Xsys : X {
  std::string message;
  explicit Xsys(const char* what);
  std::string str() const override;
};

// A general failure with a caller-chosen code; the text is not kept.
struct Xgen : X {
  Xgen(int code_, const char* /*text*/) : X(2, code_) {}
};

// A memory request that could not be met.
struct Xmem : X {
  int requested;
  explicit Xmem(int requested_) : X(2, 0), requested(requested_) {}
  std::string str() const override;
};

// An operation that the object's state does not allow (full queue, ...).
struct Xstate : X {
  Xstate() : X(2, 1) {}
};

// An index or size outside its range.
struct Xbounds : X {
  int range;
  int index;
  Xbounds(int range_, int index_) : X(2, 2), range(range_), index(index_) {}
  std::string str() const override;
};

// An invalid argument (unknown queue, duplicate name, ...).
struct Xinvalid : X {
  Xinvalid() : X(2, 3) {}
};

// An input/output failure. Xclosed and Xiotimeout share its category and code
// and are told apart only by type: catch them before Xio.
struct Xio : X {
  Xio() : X(2, 5) {}
};

struct Xclosed : Xio {
  std::string str() const override;
};

struct Xiotimeout : Xio {};

// A protocol layer refuses a request. reply, when set, is sent to the peer;
// close asks for the connection to be closed after the reply is sent.
struct Xreject : X {
  Buffer* reply = nullptr;
  bool close = false;
  Xreject() : X(2, 6) {}
};

// A peer broke the protocol.
struct Xproto : X {
  Xproto() : X(2, 7) {}
};

// A Tcl error. Captures the interpreter's errorCode and errorInfo at
// construction, so it must be constructed while the caller holds the Tcl lock.
struct Xtcl : X {
  std::string errorCode;
  std::string errorInfo;
  Xtcl();
  std::string str() const override;
};

// Malformed BER data.
struct Xber : X {
  explicit Xber(Ber::ErrorType e) : X(4, e) {}
  Ber::ErrorType GetError() const { return static_cast<Ber::ErrorType>(code); }
  std::string str() const override;
};

struct Xldap : X {
  explicit Xldap(ldap::ErrorType e) : X(5, e) {}
  ldap::ErrorType GetError() const { return static_cast<ldap::ErrorType>(code); }
};

// Writes the throw-site record "exception %s:%s thrown at %s.%d" at level 3
// when that level is on. Leaves the system's last error untouched.
void sfi_throwsite(const char* site, const char* expression, const char* file, int line);

}  // namespace sf

// Throws expr after logging where. The stringified expression is part of the
// record, so write expr exactly as the record should show it, e.g.
//   SF_THROW("extend", Xbounds(max_alloc, static_cast<int>(ix)));
#define SF_THROW(site, ...)                                      \
  do {                                                           \
    ::sf::sfi_throwsite(site, #__VA_ARGS__, __FILE__, __LINE__); \
    throw __VA_ARGS__;                                           \
  } while (0)
