// The exception family: categories, codes, texts and the throw-site record.
#include <gtest/gtest.h>

#include <string>

#include "sf/platform/syserr.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

TEST(Exceptions, TextsCategoriesAndCodes) {
  EXPECT_EQ(sf::Xbounds(10, 12).str(), "2-2 range=10; index=12");
  EXPECT_EQ(sf::Xbounds(-1, 0).str(), "2-2 range=-1; index=0");
  EXPECT_EQ(sf::Xmem(64).str(), "2-0 mem requested=64");
  EXPECT_EQ(sf::Xstate().str(), "2-1");
  EXPECT_EQ(sf::Xinvalid().str(), "2-3");
  EXPECT_EQ(sf::Xio().str(), "2-5");
  EXPECT_EQ(sf::Xiotimeout().str(), "2-5");
  EXPECT_EQ(sf::Xproto().str(), "2-7");
  EXPECT_EQ(sf::Xgen(42, "this text is not kept").str(), "2-42");

  sf::Xclosed closed;
  EXPECT_EQ(closed.str(), "the connection is closed.");
  EXPECT_EQ(closed.category, 2);
  EXPECT_EQ(closed.code, 5);

  sf::Xreject reject;
  EXPECT_EQ(reject.str(), "2-6");
  EXPECT_EQ(reject.reply, nullptr);

  sf::Xber ber(sf::Ber::TOO_DEEP);
  EXPECT_EQ(ber.str(), "BER - an error occured processing ber data.");
  EXPECT_EQ(ber.category, 4);
  EXPECT_EQ(ber.GetError(), 11);
  EXPECT_EQ(sf::Xber(sf::Ber::INSUFFICENT_DATA).code, 10);

  sf::Xldap ldap(sf::ldap::LDAP_PROTOCOL_ERROR);
  EXPECT_EQ(ldap.category, 5);
  EXPECT_EQ(ldap.GetError(), sf::ldap::LDAP_PROTOCOL_ERROR);
  EXPECT_EQ(ldap.str(), "5-" + std::to_string(sf::ldap::LDAP_PROTOCOL_ERROR));

  // Copies keep their data.
  sf::Xbounds original(3, 4);
  sf::Xbounds copy = original;
  EXPECT_EQ(copy.str(), "2-2 range=3; index=4");
}

TEST(Exceptions, CaughtByReferenceKeepTheirKind) {
  // Xclosed and Xiotimeout share Xio's category and code; only the type
  // tells them apart, and a handler for X still gets the derived text.
  try {
    throw sf::Xclosed();
  } catch (const sf::X& x) {
    EXPECT_EQ(x.str(), "the connection is closed.");
  }
  auto kind = [](auto thrower) -> std::string {
    try {
      thrower();
    } catch (const sf::Xclosed&) {
      return "closed";
    } catch (const sf::Xiotimeout&) {
      return "timeout";
    } catch (const sf::Xio&) {
      return "io";
    } catch (const sf::X&) {
      return "x";
    }
    return "none";
  };
  EXPECT_EQ(kind([] { throw sf::Xclosed(); }), "closed");
  EXPECT_EQ(kind([] { throw sf::Xiotimeout(); }), "timeout");
  EXPECT_EQ(kind([] { throw sf::Xio(); }), "io");
  EXPECT_EQ(kind([] { throw sf::Xbounds(1, 2); }), "x");
}

TEST(Exceptions, XsysCarriesTheSystemErrorAndItsText) {
  const std::string text5 = sf::platform::error_text(5);
  ASSERT_FALSE(text5.empty());
  sf::platform::set_last_error(5);
  sf::Xsys x("CreateMutex");
  EXPECT_EQ(x.category, 1);
  EXPECT_EQ(x.code, 5);
  EXPECT_EQ(x.message, "CreateMutex - " + text5);
  EXPECT_EQ(x.str(), "1-5 CreateMutex - " + text5);
  // Fetching the text did not disturb the error it describes.
  EXPECT_EQ(sf::platform::last_error(), 5);
}

TEST(Exceptions, ThrowSiteRecordPrecedesEveryThrow) {
  sftest::LogCapture log(3);
  int range = 7, pos = 9;
  int line = 0;
  try {
    line = __LINE__ + 1;
    SF_THROW("probe", sf::Xbounds(range, pos));
  } catch (const sf::Xbounds& x) {
    EXPECT_EQ(x.str(), "2-2 range=7; index=9");
  }
  std::vector<sftest::Record> records = log.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, 3u);
  EXPECT_EQ(records[0].code, 0);
  EXPECT_EQ(records[0].line, line);
  EXPECT_EQ(records[0].file, __FILE__);
  EXPECT_EQ(records[0].msg, std::string("exception probe:sf::Xbounds(range, pos) thrown at ") +
                                __FILE__ + "." + std::to_string(line));

  // Quoted text in the expression appears as written.
  log.clear();
  EXPECT_THROW(SF_THROW("i_Mutex", sf::Xsys("CreateMutex")), sf::Xsys);
  ASSERT_EQ(log.records().size(), 1u);
  EXPECT_EQ(log.records()[0].msg.rfind("exception i_Mutex:sf::Xsys(\"CreateMutex\") thrown at ", 0),
            0u);

  // With level 3 off a throw writes nothing.
  log.clear();
  sf::g_logLevel.store(2);
  EXPECT_THROW(SF_THROW("quiet", sf::Xstate()), sf::Xstate);
  EXPECT_TRUE(log.records().empty());
}

TEST(Exceptions, ThrowSiteRecordLeavesTheSystemErrorForXsys) {
  // The record goes to a file sink that cannot open its file, so the log
  // path itself meets a failing system call before the Xsys is built.
  sftest::ensureInterp();
  sftest::TempDir dir;
  sf::setVarStr("sf.log.dir", (dir.str() + "/missing/dir").c_str());
  sf::sfi_setLogLevel(3);
  sf::sfi_logInit();
  sf::platform::set_last_error(13);
  try {
    SF_THROW("open", sf::Xsys("open"));
  } catch (const sf::Xsys& x) {
    EXPECT_EQ(x.code, 13);
    EXPECT_EQ(x.message, "open - " + sf::platform::error_text(13));
  }
  sf::sfi_setLogLevel(-1);
}
