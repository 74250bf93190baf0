// The limits the configuration hands to the library once per process: the
// sf.maxbuf ceiling, read separately by the Buffer constructor and by extend,
// and the BER codec's keys, fixed when the first component is made. A program
// of its own, so that nothing earlier has read them at their defaults.
#include <gtest/gtest.h>

#include <string>

#include "sf/sflib.h"
#include "support/testsupport.h"

TEST(BufferCeiling, ReadOnceIntoTwoSeparateCaches) {
  sftest::ensureInterp();
  sf::setVarInt("sf.maxbuf", 100);
  sf::Buffer first(100);  // the constructor reads the ceiling now: 100
  EXPECT_THROW(sf::Buffer(101), sf::Xbounds);

  // extend has not read it yet; it sees the value at its own first use, and
  // a negative one means no ceiling.
  sf::setVarInt("sf.maxbuf", -1);
  sf::Buffer wide;
  wide.extend(20 * 1024 * 1024);
  EXPECT_THROW(sf::Buffer(101), sf::Xbounds);

  // Later changes reach neither.
  sf::setVarInt("sf.maxbuf", 1000);
  EXPECT_THROW(sf::Buffer(101), sf::Xbounds);
  sf::Buffer other;
  other.extend(30 * 1024 * 1024);
}

namespace {

int validation(const std::string& bytes, sf::Buffer& buf, sfber::SfBerComponent& comp) {
  buf.resize(0);
  buf.append(bytes.data(), bytes.size());
  comp.AssignPDU(&buf, 0, buf.size());
  return sftest::berCode([&] { comp.ValidateStructure(); });
}

}  // namespace

TEST(BerSettings, ReadFromTheKeysOnceAtFirstUse) {
  sftest::ensureInterp();
  sf::setVarInt("proxy.*.maxlength", 10);
  sf::setVarInt("sf.ber.maxdepth", 3);
  sf::setVarInt("sf.ber.logerrorlevel", 2);
  sf::setVarInt("sf.ber.loginfolevel", 5);

  sf::Buffer buf;
  sfber::SfBerComponent comp;
  EXPECT_EQ(validation(std::string("\x04\x0a") + std::string(10, 'a'), buf, comp), 0);
  EXPECT_EQ(validation(std::string("\x04\x0b") + std::string(11, 'a'), buf, comp),
            sf::Ber::LENGTH_OUT_OF_BOUNDS);
  // The stretch itself is the first level; an empty SEQUENCE adds none.
  EXPECT_EQ(validation(std::string("\x30\x04\x30\x02\x30\x00", 6), buf, comp), 0);
  EXPECT_EQ(validation(std::string("\x30\x06\x30\x04\x30\x02\x30\x00", 8), buf, comp),
            sf::Ber::TOO_DEEP);

  {
    // Tracing at level 5, rejections at level 2.
    sftest::LogCapture log(5);
    EXPECT_EQ(validation(std::string("\x01\x02\x00\x00", 4), buf, comp),
              sf::Ber::BER_NOT_VALIDATED);
    EXPECT_EQ(log.messages(5).size(), 1u);  // the one validation step
    EXPECT_EQ(log.messages(2).size(), 1u);  // the rejection
  }

  // Later changes of the keys do not reach new components.
  sf::setVarInt("proxy.*.maxlength", 100);
  sfber::SfBerComponent later;
  EXPECT_EQ(later.GetMaxLength(), 10);
  // A component's own limits, and components made from it, follow its setting.
  later.SetMaxLength(0);
  EXPECT_EQ(validation(std::string("\x30\x0d\x04\x0b") + std::string(11, 'a'), buf, later), 0);
  EXPECT_EQ(later.GetSequence(1).GetMaxLength(), 0);
}
