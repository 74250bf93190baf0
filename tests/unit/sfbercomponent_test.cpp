// SfBerComponent: lengths and bounds, the type rules, indefinite and
// multi-octet forms, depth, navigation and accessors.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "sf/sflib.h"
#include "support/testsupport.h"

using sfber::SfBerComponent;
using Bytes = std::vector<unsigned char>;

namespace {

// A buffer and a component over all of it.
struct Pdu {
  sf::Buffer buf;
  SfBerComponent comp;
  explicit Pdu(const Bytes& bytes) {
    if (!bytes.empty()) buf.append(bytes.data(), bytes.size());
    comp.AssignPDU(&buf, 0, buf.size());
  }
};

// The Xber code f throws, or 0 when it returns.
int berCode(const std::function<void()>& f) {
  try {
    f();
  } catch (const sf::Xber& e) {
    return e.GetError();
  }
  return 0;
}

// 0 when the bytes validate, else the Xber code.
int validation(const Bytes& bytes) {
  Pdu p(bytes);
  return berCode([&] { p.comp.ValidateStructure(); });
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// identifier, definite length (short or long form), content.
Bytes tlv(int tag, const Bytes& content) {
  Bytes out{static_cast<unsigned char>(tag)};
  size_t n = content.size();
  if (n < 128) {
    out.push_back(static_cast<unsigned char>(n));
  } else {
    Bytes len;
    for (size_t v = n; v; v >>= 8) len.insert(len.begin(), static_cast<unsigned char>(v & 0xFF));
    out.push_back(static_cast<unsigned char>(0x80 | len.size()));
    out.insert(out.end(), len.begin(), len.end());
  }
  out.insert(out.end(), content.begin(), content.end());
  return out;
}

Bytes str(int tag, const std::string& s) {
  return tlv(tag, Bytes(s.begin(), s.end()));
}

Bytes nested(int levels) {
  Bytes b = tlv(0x05, {});
  for (int i = 0; i < levels; ++i) b = tlv(0x30, b);
  return b;
}

}  // namespace

TEST(BerLength, ShortLongAndTheBounds) {
  using namespace sf::Ber;
  EXPECT_EQ(validation({0x05}), BER_NOT_VALIDATED);  // one octet: fewer than 2
  EXPECT_EQ(validation({}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0x05, 0x00}), 0);

  // Nine length octets are never read.
  EXPECT_EQ(validation({0x04, 0x89, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0x41}), LENGTH_OUT_OF_BOUNDS);
  // The default item limit is 65535.
  EXPECT_EQ(validation(tlv(0x04, Bytes(65535, 'a'))), 0);
  EXPECT_EQ(validation(tlv(0x04, Bytes(65536, 'a'))), LENGTH_OUT_OF_BOUNDS);
  {
    Pdu p(tlv(0x04, Bytes(65536, 'a')));
    p.comp.SetMaxLength(0);  // no limit
    EXPECT_EQ(berCode([&] { p.comp.ValidateStructure(); }), 0);
    p.comp.SetMaxLength(100);
    EXPECT_EQ(berCode([&] { p.comp.ValidateStructure(); }), LENGTH_OUT_OF_BOUNDS);
  }

  // Truncation: in the content, in the long-form length octets, in the
  // header of a later item, inside a nested item.
  EXPECT_EQ(validation({0x04, 0x05, 'a', 'b'}), INSUFFICENT_DATA);
  EXPECT_EQ(validation({0x04, 0x82, 0x01}), INSUFFICENT_DATA);
  EXPECT_EQ(validation({0x05, 0x00, 0x05}), INSUFFICENT_DATA);
  EXPECT_EQ(validation({0x30, 0x03, 0x04, 0x05, 'a'}), INSUFFICENT_DATA);
  // A nested item longer than its parent, though the data goes on.
  EXPECT_EQ(validation({0x30, 0x03, 0x04, 0x02, 'a', 'b', 0x05, 0x00}), INSUFFICENT_DATA);
  // A parent whose content is not filled exactly by its items.
  EXPECT_EQ(validation({0x30, 0x03, 0x05, 0x00, 0x05}), INSUFFICENT_DATA);
}

TEST(BerLength, RawReaderAndSignedResults) {
  // The long form reads big-endian; once the value turns negative the
  // remaining octets are left unread, and negative values pass the bound.
  Pdu p({0x88, 0xFF, 0xFF, 0xFF, 0xFF, 0x11, 0x22, 0x33, 0x44});
  unsigned pos = 0;
  EXPECT_EQ(p.comp.GetValueLength(&pos), static_cast<size_t>(-1));
  EXPECT_EQ(pos, 5u);

  Pdu q({0x84, 0x80, 0x00, 0x00, 0x00});
  pos = 0;
  EXPECT_EQ(static_cast<long long>(q.comp.GetValueLength(&pos)), -2147483648LL);

  Pdu r({0x80, 0x82, 0x01, 0x00, 0x83, 0x01, 0x00, 0x00});
  pos = 0;
  EXPECT_EQ(r.comp.GetValueLength(&pos), static_cast<size_t>(-1));  // indefinite
  EXPECT_EQ(r.comp.GetValueLength(&pos), 256u);
  EXPECT_EQ(berCode([&] { r.comp.GetValueLength(&pos); }), sf::Ber::LENGTH_OUT_OF_BOUNDS);
  pos = 8;
  EXPECT_EQ(berCode([&] { r.comp.GetValueLength(&pos); }), sf::Ber::INSUFFICENT_DATA);

  SfBerComponent none;
  EXPECT_EQ(berCode([&] { none.ValidateStructure(); }), sf::Ber::NO_BER_DEFINED);
  EXPECT_EQ(berCode([&] { none.GetValueLength(&pos); }), sf::Ber::NO_BER_DEFINED);
  EXPECT_EQ(berCode([&] { none.GetLengthAdditionalSize(); }), sf::Ber::NO_BER_DEFINED);
}

TEST(BerLength, BufferChecksAndPartialPdus) {
  using namespace sf::Ber;
  // The buffer changed size since assignment.
  Pdu grown({0x05, 0x00});
  grown.buf.append("x", 1);
  EXPECT_EQ(berCode([&] { grown.comp.ValidateStructure(); }), INVALID_LENGTH);
  // A stretch longer than the buffer.
  sf::Buffer b;
  b.append("\x05\x00", 2);
  SfBerComponent c;
  c.AssignPDU(&b, 0, 3);
  EXPECT_EQ(berCode([&] { c.ValidateStructure(); }), INVALID_LENGTH);
  // A stretch inside a larger buffer.
  sf::Buffer mid;
  mid.append("\xff\xff\x02\x01\x07\xff", 6);
  c.AssignPDU(&mid, 2, 3);
  c.ValidateStructure();
  EXPECT_EQ(c.GetInteger(1), 7);

  // Sizing a PDU of which only the header has arrived.
  Pdu partial({0x30, 0x82, 0x01, 0x2C, 0x02});
  EXPECT_EQ(partial.comp.GetLengthAdditionalSize(), 2u);
  EXPECT_EQ(partial.comp.GetItemLength(1, true), 300u);
  EXPECT_EQ(partial.comp.GetLength(), 5u);  // restored after the widening
  EXPECT_EQ(berCode([&] { partial.comp.GetItemLength(1, false); }), BER_NOT_VALIDATED);
  Pdu shortForm({0x30, 0x05});
  EXPECT_EQ(shortForm.comp.GetLengthAdditionalSize(), 0u);
  Pdu tooShort({0x30});
  EXPECT_EQ(berCode([&] { tooShort.comp.GetLengthAdditionalSize(); }), INSUFFICENT_DATA);
}

TEST(BerForms, IndefiniteLengthRefusedEverywhere) {
  using namespace sf::Ber;
  {
    sftest::LogCapture log(4);
    EXPECT_EQ(validation({0x04, 0x80}), BER_NOT_VALIDATED);
    EXPECT_TRUE(log.contains(
        "IsValidStructure_internal found a primitve type with indefinite length, rejecting."));
  }
  EXPECT_EQ(validation({0x24, 0x80, 0x04, 0x01, 0x41, 0x00, 0x00}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0x30, 0x80, 0x02, 0x01, 0x01, 0x00, 0x00}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0xA0, 0x80, 0x02, 0x01, 0x01, 0x00, 0x00}), BER_NOT_VALIDATED);
  // Nested inside a definite SEQUENCE.
  EXPECT_EQ(validation({0x30, 0x06, 0x24, 0x80, 0x04, 0x00, 0x00, 0x00}), BER_NOT_VALIDATED);
  // An indefinite item whose end-of-contents never comes runs into the end
  // of the data, not past it.
  int code = validation({0x30, 0x80, 0x04, 0x03, 'a', 'b', 'c'});
  EXPECT_TRUE(code == INSUFFICENT_DATA || code == BER_NOT_VALIDATED) << code;
  EXPECT_EQ(validation({0x30, 0x80, 0x04, 0x09, 'a'}), INSUFFICENT_DATA);
  // Negative long-form lengths never move backwards or loop.
  EXPECT_EQ(validation({0x04, 0x84, 0xFF, 0xFF, 0xFF, 0xFA}), BER_NOT_VALIDATED);
  EXPECT_NE(validation({0x30, 0x84, 0xFF, 0xFF, 0xFF, 0xFA, 0x05, 0x00}), 0);
}

TEST(BerForms, MultiOctetTagRefused) {
  sftest::LogCapture log(4);
  EXPECT_EQ(validation({0x05, 0x00, 0x1F, 0x81, 0x01, 0x00}), sf::Ber::BER_NOT_VALIDATED);
  EXPECT_TRUE(log.contains("multi-byte tag found (31) at offset 2"));
  EXPECT_TRUE(log.contains("exception taglen:Xber( Ber::BER_NOT_VALIDATED ) thrown at "));
  EXPECT_EQ(validation({0x30, 0x02, 0xBF, 0x00}), sf::Ber::BER_NOT_VALIDATED);
}

TEST(BerDepth, LimitAndTheDepthLeftRaised) {
  // The top-level stretch counts as one level.
  EXPECT_EQ(validation(nested(1023)), 0);
  Pdu deep(nested(1024));
  {
    sftest::LogCapture log(3);
    EXPECT_EQ(berCode([&] { deep.comp.ValidateStructure(); }), sf::Ber::TOO_DEEP);
    EXPECT_TRUE(log.contains("exception IsValidStructure:Xber(Ber::TOO_DEEP) thrown at "));
    EXPECT_TRUE(log.contains("IsValidStructure: caught unexpected exception"));
  }
  // Not unwound by the exception: a second attempt starts deeper.
  EXPECT_EQ(deep.comp.GetDepth(), 1025);
  deep.comp.AssignPDU(&deep.buf, 0, deep.buf.size());
  EXPECT_EQ(deep.comp.GetDepth(), 0);
  deep.comp.SetMaxDepth(2000);
  EXPECT_EQ(berCode([&] { deep.comp.ValidateStructure(); }), 0);
  EXPECT_EQ(deep.comp.GetDepth(), 0);  // unwound after success

  Pdu shallow(nested(3));
  shallow.comp.SetMaxDepth(3);
  EXPECT_EQ(berCode([&] { shallow.comp.ValidateStructure(); }), sf::Ber::TOO_DEEP);
  // Failing by rule (not by exception) unwinds.
  Pdu bad(tlv(0x30, tlv(0x30, {0x01, 0x02, 0x00, 0x00})));
  EXPECT_EQ(berCode([&] { bad.comp.ValidateStructure(); }), sf::Ber::BER_NOT_VALIDATED);
  EXPECT_EQ(bad.comp.GetDepth(), 0);
}

TEST(BerTypes, SimpleTypeRules) {
  using sf::Ber::BER_NOT_VALIDATED;
  // BOOLEAN exactly one octet; INTEGER and ENUMERATED at least one; none
  // constructed.
  EXPECT_EQ(validation({0x01, 0x01, 0xFF}), 0);
  EXPECT_EQ(validation({0x01, 0x02, 0x00, 0x00}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0x02, 0x00}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0x0A, 0x00}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0x02, 0x09, 1, 2, 3, 4, 5, 6, 7, 8, 9}), 0);  // no upper bound here
  EXPECT_EQ(validation({0x22, 0x03, 0x02, 0x01, 0x01}), BER_NOT_VALIDATED);
  // NULL primitive and empty.
  EXPECT_EQ(validation({0x05, 0x01, 0x00}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0x25, 0x00}), BER_NOT_VALIDATED);
  // Universal tag 0 never stands as an item.
  EXPECT_EQ(validation({0x00, 0x00}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0x30, 0x02, 0x00, 0x00}), BER_NOT_VALIDATED);
  // SEQUENCE, SET and EXTERNAL must be constructed; REAL and RELATIVE-OID
  // primitive.
  EXPECT_EQ(validation({0x10, 0x00}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0x11, 0x00}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0x30, 0x00, 0x31, 0x00}), 0);
  EXPECT_EQ(validation({0x08, 0x00}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0x09, 0x01, 0x40}), 0);
  EXPECT_EQ(validation({0x29, 0x00}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0x2D, 0x00}), BER_NOT_VALIDATED);
  // The types accepted as they are, primitive or constructed.
  EXPECT_EQ(validation(cat({str(0x0C, "\xff\xfe"), str(0x16, "\x01"), str(0x17, "junk"),
                            str(0x18, "x"), str(0x1E, "\x00\x41"), tlv(0x3E, {})})),
            0);
  // Other classes: primitive content unchecked, constructed content
  // validated as items.
  EXPECT_EQ(validation(cat({str(0x80, "\x00\x1F"), str(0x5F - 0x1F, "x"), str(0xC1, "")})), 0);
  EXPECT_EQ(validation({0xA3, 0x03, 0x02, 0x01, 0x05}), 0);
  EXPECT_EQ(validation({0xA3, 0x02, 0x02, 0x00}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0xA3, 0x01, 0x05}), BER_NOT_VALIDATED);  // content under 2 octets
}

TEST(BerTypes, BitStrings) {
  using sf::Ber::BER_NOT_VALIDATED;
  sftest::LogCapture log(4);
  EXPECT_EQ(validation({0x03, 0x01, 0x05}), BER_NOT_VALIDATED);
  EXPECT_TRUE(log.contains("bit string found with a length of 1 and extra bits (5) at offset 2"));
  EXPECT_EQ(validation({0x03, 0x00}), BER_NOT_VALIDATED);
  EXPECT_TRUE(log.contains("bit string primitively encoded with a zero length found at offset 2"));
  EXPECT_EQ(validation({0x03, 0x02, 0x08, 0x00}), BER_NOT_VALIDATED);
  EXPECT_TRUE(log.contains("bit string found with more than 7 extra bits (8) at offset 2"));
  EXPECT_EQ(validation({0x03, 0x01, 0x00}), 0);
  EXPECT_EQ(validation({0x03, 0x02, 0x07, 0x80}), 0);
  // Constructed: primitive bit string parts only.
  EXPECT_EQ(validation({0x23, 0x07, 0x03, 0x02, 0x00, 0xAA, 0x03, 0x01, 0x00}), 0);
  EXPECT_EQ(validation({0x23, 0x04, 0x04, 0x02, 0x00, 0xAA}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0x23, 0x03, 0x03, 0x01, 0x05}), BER_NOT_VALIDATED);
}

TEST(BerTypes, RestrictedStringsAndConstructedParts) {
  using sf::Ber::BER_NOT_VALIDATED;
  EXPECT_EQ(validation(str(0x12, "0123 456")), 0);
  EXPECT_EQ(validation(str(0x12, "12a")), BER_NOT_VALIDATED);
  EXPECT_EQ(validation(str(0x13, "Az09 '()+,-./:=?")), 0);
  for (const char* bad : {"a*b", "a@b", "a&b", "a_b", "\xe9t\xe9", "a\nb"}) {
    sftest::LogCapture log(4);
    EXPECT_EQ(validation(str(0x13, bad)), BER_NOT_VALIDATED) << bad;
    EXPECT_TRUE(log.contains("IsValidPrintString found invalid character")) << bad;
  }
  // Teletex: both graphic halves and its control functions; NUL, DEL and
  // other control octets refused.
  EXPECT_EQ(validation(str(0x14,
                           "Gr\xfc\xdf"
                           "e\x1b(B\r\n\xc2"
                           "a")),
            0);
  EXPECT_EQ(validation(str(0x14, std::string("a\0b", 3))), BER_NOT_VALIDATED);
  EXPECT_EQ(validation(str(0x14, "a\x7f")), BER_NOT_VALIDATED);
  EXPECT_EQ(validation(str(0x14, "a\x85")), BER_NOT_VALIDATED);
  // Constructed strings: parts of the same type, each checked as primitive.
  EXPECT_EQ(validation(cat({{0x33, 0x07}, str(0x13, "ab"), str(0x13, "c")})), 0);
  EXPECT_EQ(validation(cat({{0x33, 0x07}, str(0x13, "ab"), str(0x13, "*")})), BER_NOT_VALIDATED);
  EXPECT_EQ(validation(cat({{0x24, 0x07}, str(0x04, "ab"), str(0x16, "c")})), BER_NOT_VALIDATED);
  EXPECT_EQ(validation(cat({{0x24, 0x04}, tlv(0x24, str(0x04, ""))})), BER_NOT_VALIDATED);
  // A SEQUENCE takes any items.
  EXPECT_EQ(validation(tlv(0x30, cat({str(0x04, "ab"), str(0x13, "c"), tlv(0x31, {})}))), 0);
}

TEST(BerTypes, ObjectIdentifiers) {
  using sf::Ber::BER_NOT_VALIDATED;
  EXPECT_EQ(validation({0x06, 0x03, 0x55, 0x04, 0x03}), 0);
  EXPECT_EQ(validation({0x06, 0x00}), BER_NOT_VALIDATED);
  EXPECT_EQ(validation({0x06, 0x02, 0x55, 0x84}), BER_NOT_VALIDATED);        // truncated arc
  EXPECT_EQ(validation({0x06, 0x03, 0x55, 0x80, 0x01}), BER_NOT_VALIDATED);  // padded arc
  EXPECT_EQ(validation({0x26, 0x03, 0x06, 0x01, 0x55}), BER_NOT_VALIDATED);

  Pdu p(cat({{0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0B},
             {0x06, 0x01, 0x00},
             {0x06, 0x02, 0x81, 0x34},
             // 2.25 and a 128-bit arc of all ones
             {0x06, 0x14, 0x69, 0x83},
             Bytes(17, 0xFF),
             {0x7F}}));
  p.comp.ValidateStructure();
  EXPECT_EQ(p.comp.GetObjectIdent(1), "1.2.840.113549.1.1.11");
  EXPECT_EQ(p.comp.GetObjectIdent(2), "0.0");
  EXPECT_EQ(p.comp.GetObjectIdent(3), "2.100");
  EXPECT_EQ(p.comp.GetObjectIdent(4), "2.25.340282366920938463463374607431768211455");
}

TEST(BerLog, TraceAndRejectionLinesAtTheirLevels) {
  {
    sftest::LogCapture log(8);
    validation({0x30, 0x03, 0x02, 0x01, 0x05});
    auto info = log.messages(8);
    EXPECT_NE(
        std::find(info.begin(), info.end(), "IsValidSequence - offset 2, dataLen 3, identifier 48"),
        info.end());
    EXPECT_NE(std::find(info.begin(), info.end(), "IsValidInt - offset 4, dataLen 1, identifier 2"),
              info.end());
    EXPECT_NE(std::find(info.begin(), info.end(),
                        "IsValidConstruction about to check structure to ensure concat'ed parts "
                        "are of type 16"),
              info.end());
    log.clear();
    validation({0x02, 0x00});
    auto rejected = log.messages(4);
    ASSERT_EQ(rejected.size(), 1u);
    EXPECT_EQ(rejected[0],
              "IsValidInt found integer/enum using zero bytes, returning false - offset 2, dataLen "
              "0, identifier 2");
  }
  {
    // Below the info level only rejections and throw sites appear.
    sftest::LogCapture log(4);
    validation({0x25, 0x00});
    EXPECT_TRUE(
        log.contains("IsValidNull found constructed null, returning false - offset 2, dataLen 0, "
                     "identifier 37"));
    EXPECT_FALSE(log.contains("IsValidNull - offset"));
    // Level 3 holds only the record of the refusal thrown to the caller.
    auto errors = log.messages(3);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("exception bervalid:Xber( Ber::BER_NOT_VALIDATED ) thrown at ", 0),
              0u);
  }
}

TEST(BerNavigation, ItemsCursorAndIndexes) {
  using namespace sf::Ber;
  Pdu p(cat({tlv(0x30, cat({{0x02, 0x01, 0x07}, str(0x04, "ab")})),
             {0x02, 0x01, 0xFF},
             str(0x84, "xyz")}));
  EXPECT_EQ(berCode([&] { p.comp.FirstItem(); }), BER_NOT_VALIDATED);
  EXPECT_EQ(berCode([&] { p.comp.GetInteger(); }), BER_NOT_VALIDATED);
  p.comp.ValidateStructure();

  EXPECT_EQ(berCode([&] { p.comp.SetItem(0); }), INVALID_INDEX);
  EXPECT_EQ(p.comp.SetItem(3), 0x84);
  EXPECT_EQ(p.comp.GetItemTagType(), 0x80);
  EXPECT_EQ(p.comp.GetItemTag(), 4);
  const unsigned last = p.comp.GetItemOffset();
  EXPECT_EQ(p.comp.NextItem(1), 0);  // no fourth item: cursor stays
  EXPECT_EQ(p.comp.GetItemOffset(), last);
  EXPECT_EQ(p.comp.GetItemIndex(), 3);
  EXPECT_EQ(berCode([&] { p.comp.SetItem(4); }), INVALID_INDEX);
  // Backwards restarts from the first item; constructed bit cleared.
  EXPECT_EQ(p.comp.SetItem(1), 0x10);
  EXPECT_EQ(p.comp.GetItemIdentifier(2), 0x02);
  EXPECT_EQ(p.comp.NextItem(0), 0x02);
  EXPECT_EQ(p.comp.FirstItem(), 0x10);
  EXPECT_EQ(p.comp.NextItem(2), 0x84);

  // The whole header of the current item in one read.
  unsigned content;
  size_t contentLen;
  p.comp.SetItem(1);
  EXPECT_EQ(p.comp.GetItemHeader(&content, &contentLen), 0x30);
  EXPECT_EQ(content, 2u);
  EXPECT_EQ(contentLen, 7u);

  // Item lengths: primitive as is; constructed the sum of its parts.
  EXPECT_EQ(p.comp.GetItemLength(1), 3u);
  EXPECT_EQ(p.comp.GetItemLength(3), 3u);

  // A SEQUENCE with nothing in it has no items.
  Pdu empty({0x30, 0x00});
  empty.comp.ValidateStructure();
  SfBerComponent inner = empty.comp.GetSequence(1);
  EXPECT_EQ(inner.NextItem(0), 0);
  EXPECT_EQ(berCode([&] { inner.FirstItem(); }), INVALID_INDEX);
}

TEST(BerAccessors, IntegersSequencesAndStrings) {
  using namespace sf::Ber;
  Pdu p(cat({{0x02, 0x01, 0xFF},
             {0x02, 0x02, 0x00, 0x80},
             {0x02, 0x04, 0x80, 0x00, 0x00, 0x00},
             {0x02, 0x05, 0x00, 0xFF, 0xFF, 0xFF, 0xFF},
             {0x0A, 0x01, 0x02},
             {0x81, 0x02, 0xFF, 0x7F},
             tlv(0x31, {0x05, 0x00}),
             tlv(0x30, cat({tlv(0x31, str(0x13, "US")), {0x01, 0x01, 0x00}})),
             tlv(0xA5, {0x05, 0x00}),
             cat({{0x24, 0x09}, str(0x04, "abc"), str(0x04, "de")}),
             str(0x13, "Printable"),
             {0x03, 0x03, 0x04, 0xAB, 0xC0},
             cat({{0x23, 0x08}, {0x03, 0x02, 0x00, 0x12}, {0x03, 0x02, 0x03, 0x38}})}));
  p.comp.ValidateStructure();
  EXPECT_EQ(p.comp.GetInteger(1), -1);
  EXPECT_EQ(p.comp.GetInteger(2), 128);
  EXPECT_EQ(p.comp.GetInteger(3), -2147483647 - 1);
  EXPECT_EQ(berCode([&] { p.comp.GetInteger(4); }), INTEGER_OUT_OF_BOUNDS);
  EXPECT_EQ(p.comp.GetInteger(5), 2);
  EXPECT_EQ(p.comp.GetInteger(6), -129);  // an implicitly tagged integer
  EXPECT_EQ(berCode([&] { p.comp.GetInteger(7); }), INVALID_TYPE);

  // GetSet is GetSequence: a universal SET is refused by both.
  {
    sftest::LogCapture log(3);
    EXPECT_EQ(berCode([&] { p.comp.GetSet(7); }), INVALID_TYPE);
    EXPECT_TRUE(log.contains("exception invtype(49):Xber( Ber::INVALID_TYPE ) thrown at "));
  }
  EXPECT_EQ(berCode([&] { p.comp.GetSequence(7); }), INVALID_TYPE);
  EXPECT_EQ(berCode([&] { p.comp.GetSequence(1); }), INVALID_TYPE);
  SfBerComponent seq = p.comp.GetSet(8);
  EXPECT_TRUE(seq.IsValidated());
  EXPECT_EQ(seq.GetItemIdentifier(1), 0x11);
  EXPECT_EQ(seq.GetItemIdentifier(2), 0x01);
  // Into the SET through its content.
  sf::Buffer setData;
  seq.SetItem(1);
  EXPECT_EQ(seq.GetConstructedData(setData), 4u);
  SfBerComponent set;
  set.AssignPDU(&setData, 0, setData.size());
  set.ValidateStructure();
  EXPECT_EQ(set.GetOctetString(1), "US");
  EXPECT_EQ(berCode([&] { set.GetConstructedData(setData); }), INVALID_TYPE);
  // Constructed items of other classes are sequences to GetSequence.
  EXPECT_EQ(p.comp.GetSequence(9).GetItemIdentifier(1), 0x05);

  // Strings: the constructed form is the concatenation of its parts.
  EXPECT_EQ(p.comp.GetOctetString(10), "abcde");
  EXPECT_EQ(p.comp.GetItemLength(10), 5u);
  EXPECT_EQ(p.comp.GetOctetString(11), "Printable");
  EXPECT_EQ(berCode([&] { p.comp.GetOctetString(1); }), INVALID_TYPE);
  EXPECT_EQ(berCode([&] { p.comp.GetOctetString(8); }), INVALID_TYPE);
  EXPECT_EQ(berCode([&] { p.comp.GetObjectIdent(11); }), INVALID_TYPE);

  sf::Buffer bits;
  p.comp.SetItem(12);
  EXPECT_EQ(p.comp.GetBitString(bits), 4u);
  EXPECT_EQ(std::string(bits.data, bits.size()), "\xAB\xC0");
  p.comp.SetItem(13);
  EXPECT_EQ(p.comp.GetBitString(bits), 3u);
  EXPECT_EQ(std::string(bits.data, bits.size()), "\x12\x38");
  p.comp.SetItem(11);
  EXPECT_EQ(berCode([&] { p.comp.GetBitString(bits); }), INVALID_TYPE);
}

TEST(BerAccessors, TrustedViewsStayInsideTheirData) {
  // A trusted view over bytes that were never validated: accessors refuse
  // what does not fit instead of reading past it.
  sf::Buffer b;
  b.append(
      "\x04\x10"
      "abc",
      5);
  SfBerComponent c(&b, 0, b.size());
  EXPECT_EQ(berCode([&] { c.GetOctetString(); }), sf::Ber::INSUFFICENT_DATA);
  EXPECT_EQ(berCode([&] { c.NextItem(1); }), sf::Ber::INSUFFICENT_DATA);
  sf::Buffer oid;
  oid.append("\x06\x02\x55\x84", 4);
  SfBerComponent o(&oid, 0, oid.size());
  EXPECT_EQ(berCode([&] { o.GetObjectIdent(); }), sf::Ber::INVALID_TYPE);
  SfBerComponent beyond(&b, 3, 100);
  EXPECT_EQ(berCode([&] { beyond.GetItemIdentifier(); }), 0);
  EXPECT_EQ(berCode([&] { beyond.GetOctetString(); }), sf::Ber::INSUFFICENT_DATA);
}
