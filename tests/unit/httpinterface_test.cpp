// The HTTP script commands: httpPush's options, httpHeader and httpType.
#include <gtest/gtest.h>

#include "sf/http/httpadaptor.h"
#include "sf/http/httpcommands.h"
#include "sf/net/net.h"
#include "sf/platform/socket.h"
#include "sf/sflib.h"
#include "sf/work/message.h"
#include "support/testsupport.h"

namespace {

class HttpCommands : public ::testing::Test {
 protected:
  sf::Connection conn;
  void SetUp() override {
    sftest::ensureInterp();
    static bool registered = false;
    if (!registered) sf::sfi_registerHttpCommands();
    registered = true;
    conn = sf::Connection(
        new sf::i_Connection(sf::platform::sock_stream(sf::platform::family_ipv4())));
    conn.push(new sf::TcpAdaptor);
    sf::getContext()->conn = conn;
  }
  void TearDown() override { sf::setContext(nullptr); }
  sf::HttpAdaptor* top() { return dynamic_cast<sf::HttpAdaptor*>(conn.getAdaptor()); }
};

}  // namespace

TEST_F(HttpCommands, PushAppliesOptionsIgnoringCase) {
  sftest::LogCapture log(2);
  sf::eval(
      "httpPush -CLI -StuffHeader X-One 1 -stuffheader X-Two 2 -REJECT 503 busy "
      "-wrap /tunnel text/x -useragent agent -servertype srv -maxheader 2048 -maxbody abc "
      "-status 202 Accepted -bogus");
  sf::HttpAdaptor* a = top();
  ASSERT_NE(a, nullptr);
  EXPECT_TRUE(a->isClient());
  EXPECT_EQ(a->settings().stuffHeaders, (std::list<std::string>{"X-One: 1", "X-Two: 2"}));
  const sf::HttpAdaptor::Settings& s = a->settings();
  EXPECT_EQ(s.rejectReason + "|" + s.requestURL + "|" + s.contentType + "|" + s.userAgent + "|" +
                s.serverType + "|" + s.statusReason + "|" + std::to_string(s.rejectStatus) + "|" +
                std::to_string(s.maxHeader) + "|" + std::to_string(s.maxBody) + "|" +
                std::to_string(s.statusResult),
            "busy|/tunnel|text/x|agent|srv|Accepted|503|2048|0|202");  // -maxbody abc: 0
  EXPECT_TRUE(log.contains("http: unrecognised argument -bogus"));

  // A rejection without its reason leaves the defaults; a header name
  // without value adds nothing.
  sf::eval("httpPush -reject 503");
  EXPECT_EQ(std::to_string(top()->settings().rejectStatus) + top()->settings().rejectReason, "500");
  sf::eval("httpPush -stuffHeader X-Lonely");
  EXPECT_TRUE(top()->settings().stuffHeaders.empty());
  EXPECT_FALSE(top()->isClient());

  // Without a current connection the command fails and pushes nothing.
  sf::getContext()->conn = sf::Connection();
  EXPECT_THROW(sf::eval("httpPush"), sf::Xtcl);
}

TEST_F(HttpCommands, HeaderAndTypeReadTheCurrentMessage) {
  EXPECT_EQ(sf::eval("httpHeader") + sf::eval("httpHeader X-Any"), "");  // no current message
  sf::Message* m = new sf::Message;
  m->setenv("header:x-trace", "abc def");
  m->setenv("HttpResultCode", "200");
  m->setenv("RequestedURL", " \t text/html \r\n");
  sf::getContext()->message = m;
  EXPECT_EQ(sf::eval("httpHeader X-TRACE") + sf::eval("httpHeader HttpResultCode"), "abc def200");
  EXPECT_EQ(sf::eval("httpHeader X-Missing"), "");
  EXPECT_EQ(sf::eval("httpType"), "text/html");
}
