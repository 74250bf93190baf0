// The HTTP script commands: httpReader, httpWorker, httpPush, httpHeader and
// httpType. init registers them, in that order, after the site's config.tcl
// has run.
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "sf/http/httpcommands.h"
#include "sf/http/httpreader.h"
#include "sf/script/commands.h"
#include "sf/script/tcl.h"
#include "sf/work/message.h"

namespace sf {

namespace {

// httpReader address port script: serves the shared port bound for
// address/port with an HttpReader; script validates and queues each
// request. Returns only when the reader stops (start it with spinThread).
int httpReaderCmd(int argc, const char** argv) {
  SF_LOG(2, "HTTP - HTTP Reader starting.");
  if (argc < 4) {
    SF_LOG(1, "http: usage: httpReader address port script");
    return 1;
  }
  if (sfi_refuseInsideEvaluation("httpReader")) return 1;
  PortAddr addr(argv[1], argv[2]);
  Port port = bindSharedPort(addr);
  std::string script = argv[3];
  HttpReader reader;
  reader.run(port, script.c_str(), nullptr);
  return 0;
}

// httpWorker queue address port: forwards the queue's messages to the HTTP
// server at address/port. Never returns.
int httpWorkerCmd(int argc, const char** argv) {
  SF_LOG(2, "HTTP - HTTP Worker starting.");
  bool forward = argc == 5 && iequals(argv[4], strlen(argv[4]), "-forward");
  if (argc < 4 || (argc > 4 && !forward)) {
    SF_LOG(1, "http: usage: httpWorker queue address port ?-forward?");
    return 1;
  }
  if (sfi_refuseInsideEvaluation("httpWorker")) return 1;
  HttpWorker worker(argv[1], argv[2], argv[3]);
  worker.mode = forward ? HttpWorker::Mode::Forward : HttpWorker::Mode::Tunnel;
  worker.serve();
}

// httpPush ?option ...?: a server-role adaptor, configured by the options,
// pushed on the current connection.
int httpPushCmd(int argc, const char** argv) {
  HttpAdaptor* a = new HttpAdaptor(false);
  std::list<std::string> stuff;
  int i = 1;
  // The number of words after the option.
  auto left = [&]() { return argc - i; };
  while (i < argc) {
    const char* opt = argv[i++];
    size_t n = strlen(opt);
    auto is = [&](const char* name) { return iequals(opt, n, name); };
    if (is("-cli")) {
      a->setIsClient(true);
    } else if (is("-stuffHeader")) {
      if (left() < 1) break;
      std::string name = argv[i++];
      if (left() >= 1) stuff.push_back(name + ": " + argv[i++]);
    } else if (is("-reject")) {
      if (left() >= 2) {
        a->setReject(atoi(argv[i]), argv[i + 1]);
        i += 2;
      }
    } else if (is("-wrap")) {
      if (left() >= 2) {
        a->setRequestURL(argv[i]);
        a->setContentType(argv[i + 1]);
        i += 2;
      }
    } else if (is("-status")) {
      if (left() >= 2) {
        a->setStatusResponse(atoi(argv[i]));
        a->setStatusReason(argv[i + 1]);
        i += 2;
      }
    } else if (is("-url") && left() >= 1) {
      a->setRequestURL(argv[i++]);
    } else if (is("-contenttype") && left() >= 1) {
      a->setContentType(argv[i++]);
    } else if (is("-useragent") && left() >= 1) {
      a->setUserAgent(argv[i++]);
    } else if (is("-servertype") && left() >= 1) {
      a->setServerType(argv[i++]);
    } else if (is("-maxheader") && left() >= 1) {
      a->setMaxHeader(atoi(argv[i++]));
    } else if (is("-maxbody") && left() >= 1) {
      a->setMaxBody(atoi(argv[i++]));
    } else {
      SF_LOG(1, "http: unrecognised argument %s", opt);
    }
  }
  a->setStuffHeaders(stuff);
  Connection& c = getContext()->conn;
  if (!c) {
    delete a;
    SF_LOG(1, "http: httpPush without a current connection");
    SF_THROW("httpPush", Xstate());
  }
  SF_LOG(2, "HTTP - Pushing adaptor onto connection.");
  c.push(a);
  return 0;
}

// httpHeader name: the header name of the message read (its headerEntry),
// or else the current message's environment entry name (HttpRequestURL...).
int httpHeaderCmd(int argc, const char** argv) {
  if (argc < 2) {
    SF_LOG(7, "HTTP - TCL called GetHeader without an argument. Returning \"\".");
    setRes("");
    return 0;
  }
  Message* m = getContext()->message;
  std::string value = m ? m->getenv(headerEntry(argv[1]).c_str()) : std::string();
  if (m && value.empty()) value = m->getenv(argv[1]);
  setRes(value.c_str());
  SF_LOG(7, "HTTP - TCL requested environment variable \"%s\", returning \"%s\".", argv[1],
         value.c_str());
  return 0;
}

// httpType: the current message's RequestedURL entry without surrounding
// white space.
int httpTypeCmd(int, const char**) {
  Message* m = getContext()->message;
  std::string value = m ? m->getenv("RequestedURL") : std::string();
  size_t b = 0, e = value.size();
  while (b < e && isspace(static_cast<unsigned char>(value[b]))) ++b;
  while (e > b && isspace(static_cast<unsigned char>(value[e - 1]))) --e;
  value = value.substr(b, e - b);
  setRes(value.c_str());
  SF_LOG(7, "HTTP - TCL requested Quindel content type, returning \"%s\".", value.c_str());
  return 0;
}

}  // namespace

void sfi_registerHttpCommands() {
  exportProc("httpReader", httpReaderCmd);
  exportProc("httpWorker", httpWorkerCmd);
  exportProc("httpPush", httpPushCmd);
  exportProc("httpHeader", httpHeaderCmd);
  exportProc("httpType", httpTypeCmd);
}

}  // namespace sf
