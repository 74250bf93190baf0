// sf::HttpReader: a reader whose connections are HTTP servers.
#include "sf/http/httpreader.h"

#include "sf/tcl.h"

namespace sf {

HttpReader::HttpReader() { SF_LOG(3, "HTTP - Creating new reader module."); }

void HttpReader::acceptHook(Connection& c) {
  SF_LOG(2, "HTTP - Pushing encapsulating server adaptor onto connection.");
  c.push(new HttpAdaptor(false));
}

void HttpReader::validate(Message*, const void* script) {
  SF_LOG(5, "HTTP - Calling TCL code to validate and queue message.");
  eval(static_cast<const char*>(script));
}

}  // namespace sf
