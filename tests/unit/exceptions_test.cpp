// The exception family: categories, codes, texts and the throw-site record.
#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "sf/base/logcontrol.h"
#include "sf/platform/syserr.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

TEST(Exceptions, TextsCategoriesCodesAndTheThrowSiteRecord) {
  EXPECT_EQ(sf::Xmem(64).str(), "2-0 mem requested=64");
  EXPECT_EQ(sf::Xstate().str() + " " + sf::Xinvalid().str() + " " + sf::Xiotimeout().str() + " " +
                sf::Xreject().str() + " " + sf::Xproto().str() + " " +
                sf::Xgen(42, "this text is not kept").str(),
            "2-1 2-3 2-5 2-6 2-7 2-42");
  sf::Xber ber(sf::Ber::TOO_DEEP);
  EXPECT_EQ(ber.str(), "BER - an error occured processing ber data.");
  EXPECT_EQ(ber.category, 4);
  EXPECT_EQ(sf::Xldap(sf::ldap::LDAP_PROTOCOL_ERROR).category, 5);
  // Xsys: the system error and its text; reading the text keeps the error.
  const std::string text5 = sf::platform::error_text(5);
  sf::platform::set_last_error(5);
  EXPECT_EQ(sf::Xsys("CreateMutex").str(), "1-5 CreateMutex - " + text5);
  EXPECT_EQ(sf::platform::last_error(), 5);

  // Xclosed and Xiotimeout are Xio's, with its category and code: only the
  // type tells them apart. A handler for X still gets the derived text.
  static_assert(std::is_base_of_v<sf::Xio, sf::Xclosed> &&
                std::is_base_of_v<sf::Xio, sf::Xiotimeout>);
  sf::Xclosed closed;
  EXPECT_EQ(closed.category * 10 + closed.code, 25);
  EXPECT_EQ(static_cast<const sf::X&>(closed).str(), "the connection is closed.");

  // The throw-site record precedes every throw and keeps the system error:
  // here it goes first to a file sink that cannot open its file, so the log
  // path itself meets a failing call before the Xsys is built.
  sftest::TempDir dir;
  sftest::logToFile(dir.str() + "/missing", 3);
  sf::platform::set_last_error(13);
  try {
    SF_THROW("open", sf::Xsys("open"));
  } catch (const sf::Xsys& x) {
    EXPECT_EQ(x.str(), "1-13 open - " + sf::platform::error_text(13));
  }
  sf::sfi_setLogLevel(-1);

  sftest::LogCapture log(3);
  int range = 7, pos = 9;
  const int line = __LINE__ + 1;
  EXPECT_THROW(SF_THROW("probe", sf::Xbounds(range, pos)), sf::Xbounds);
  std::string seen;
  for (const sftest::Record& r : log.records())
    seen += std::to_string(r.level) + " " + r.file + ":" + std::to_string(r.line) + " " + r.msg;
  const std::string at = std::string(__FILE__) + ":" + std::to_string(line);
  EXPECT_EQ(seen, "3 " + at + " exception probe:sf::Xbounds(range, pos) thrown at " + __FILE__ +
                      "." + std::to_string(line));
}
