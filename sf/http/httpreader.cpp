// sf::HttpReader: a reader whose connections are HTTP servers.
#include "sf/http/httpreader.h"

#include "sf/script/deliveryscript.h"
#include "sf/work/message.h"

namespace sf {

HttpReader::HttpReader() {
  SF_LOG(3, "HTTP - Creating new reader module.");
}

void HttpReader::acceptHook(Connection& c) {
  SF_LOG(2, "HTTP - Pushing encapsulating server adaptor onto connection.");
  c.push(new HttpAdaptor(false));
}

void HttpReader::validate(Message* msg, const void* script) {
  SF_LOG(5, "HTTP - Calling TCL code to validate and queue message.");
  // Whoever takes the request replies on another thread; until then the
  // reader must leave the connection alone, or it would read a pipelined
  // request into the adaptor under the reply (and replies could overtake
  // each other). The reply gives the reservation back.
  HttpAdaptor* http = dynamic_cast<HttpAdaptor*>(msg->conn.getAdaptor());
  if (http) http->reserveForReply(msg->conn);
  try {
    sfi_runDeliveryScript(static_cast<const char*>(script));
  } catch (...) {
    if (http && getContext()->message == msg) http->releaseReservation(&msg->conn);
    throw;
  }
  // Not delivered: nobody will reply.
  if (http && getContext()->message == msg) http->releaseReservation(&msg->conn);
}

}  // namespace sf
