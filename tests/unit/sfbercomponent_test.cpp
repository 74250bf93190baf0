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
using namespace sf::Ber;

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

int validation(const Bytes& bytes) {
  Pdu p(bytes);
  return berCode([&] { p.comp.ValidateStructure(); });
}

// Bytes written in hex, "30 00".
Bytes hex(const char* h) {
  Bytes b;
  for (; *h; ++h)
    if (*h != ' ') b.push_back(static_cast<unsigned char>(std::stoi(std::string(h++, 2), 0, 16)));
  return b;
}

// Every stretch validates to code (0: accepted).
void expectAll(int code, std::initializer_list<Bytes> cases) {
  int n = 0;
  for (const Bytes& b : cases) EXPECT_EQ(validation(b), code) << "case " << n++;
}

// Every stretch of a list such as "30 00|05 00" validates to code.
void expectHex(int code, const std::string& cases) {
  for (size_t at = 0, end; at <= cases.size(); at = end + 1) {
    end = std::min(cases.find('|', at), cases.size());
    const std::string one = cases.substr(at, end - at);
    EXPECT_EQ(validation(hex(one.c_str())), code) << one;
  }
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// identifier, definite length (short or long form), content.
Bytes tlv(int tag, const Bytes& content) {
  Bytes out{static_cast<unsigned char>(tag)}, len;
  size_t n = content.size();
  for (size_t v = n; v; v >>= 8) len.insert(len.begin(), static_cast<unsigned char>(v & 0xFF));
  if (n < 128)
    len = {static_cast<unsigned char>(n)};
  else
    len.insert(len.begin(), static_cast<unsigned char>(0x80 | len.size()));
  out.insert(out.end(), len.begin(), len.end());
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
  expectHex(BER_NOT_VALIDATED, "05|");  // fewer than 2 octets, none
  // Nine length octets are never read; the default item limit is 65535.
  expectAll(LENGTH_OUT_OF_BOUNDS,
            {hex("04 89 00 00 00 00 00 00 00 00 01 41"), tlv(0x04, Bytes(65536, 'a'))});
  expectAll(0, {hex("05 00"), tlv(0x04, Bytes(65535, 'a'))});
  Pdu p(tlv(0x04, Bytes(65536, 'a')));
  p.comp.SetMaxLength(0);  // no limit
  EXPECT_EQ(berCode([&] { p.comp.ValidateStructure(); }), 0);
  p.comp.SetMaxLength(100);
  EXPECT_EQ(berCode([&] { p.comp.ValidateStructure(); }), LENGTH_OUT_OF_BOUNDS);

  // Truncated content, long-form length, later header, nested item; a nested
  // item longer than its parent; a parent not filled exactly by its items.
  expectHex(INSUFFICENT_DATA,
            "04 05 61 62|04 82 01|05 00 05|30 03 04 05 61|30 03 04 02 61 62 05 00|30 03 05 00 05");
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
  EXPECT_EQ(berCode([&] { r.comp.GetValueLength(&pos); }), LENGTH_OUT_OF_BOUNDS);
  pos = 8;
  EXPECT_EQ(berCode([&] { r.comp.GetValueLength(&pos); }), INSUFFICENT_DATA);

  SfBerComponent none;
  EXPECT_EQ(berCode([&] { none.ValidateStructure(); }), NO_BER_DEFINED);
  EXPECT_EQ(berCode([&] { none.GetValueLength(&pos); }), NO_BER_DEFINED);
  EXPECT_EQ(berCode([&] { none.GetLengthAdditionalSize(); }), NO_BER_DEFINED);
}

TEST(BerLength, BufferChecksAndPartialPdus) {
  // The buffer changed size since assignment; a stretch longer than it; a
  // stretch inside a larger buffer.
  Pdu grown({0x05, 0x00});
  grown.buf.append("x", 1);
  EXPECT_EQ(berCode([&] { grown.comp.ValidateStructure(); }), INVALID_LENGTH);
  sf::Buffer b;
  b.append("\x05\x00", 2);
  SfBerComponent c;
  c.AssignPDU(&b, 0, 3);
  EXPECT_EQ(berCode([&] { c.ValidateStructure(); }), INVALID_LENGTH);
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
  EXPECT_EQ(Pdu({0x30, 0x05}).comp.GetLengthAdditionalSize(), 0u);
  Pdu tooShort({0x30});
  EXPECT_EQ(berCode([&] { tooShort.comp.GetLengthAdditionalSize(); }), INSUFFICENT_DATA);
}

TEST(BerForms, IndefiniteLengthsMultiOctetTagsAndDepth) {
  // Indefinite forms (also nested in a definite SEQUENCE) and multi-octet
  // tags are refused; negative long-form lengths never move backwards.
  expectHex(BER_NOT_VALIDATED,
            "04 80|05 00 1F 81 01 00|24 80 04 01 41 00 00|30 80 02 01 01 00 00|"
            "A0 80 02 01 01 00 00|30 06 24 80 04 00 00 00|04 84 FF FF FF FA|30 02 BF 00");
  EXPECT_NE(validation({0x30, 0x84, 0xFF, 0xFF, 0xFF, 0xFA, 0x05, 0x00}), 0);
  // An end-of-contents that never comes runs into the end of the data.
  int code = validation({0x30, 0x80, 0x04, 0x03, 'a', 'b', 'c'});
  EXPECT_TRUE(code == INSUFFICENT_DATA || code == BER_NOT_VALIDATED) << code;
  EXPECT_EQ(validation({0x30, 0x80, 0x04, 0x09, 'a'}), INSUFFICENT_DATA);

  // Depth: the top-level stretch counts as one level; a refusal by
  // exception leaves the depth raised (a second attempt starts deeper), one
  // by rule unwinds it.
  EXPECT_EQ(validation(nested(1023)), 0);
  Pdu deep(nested(1024));
  EXPECT_EQ(berCode([&] { deep.comp.ValidateStructure(); }), TOO_DEEP);
  EXPECT_EQ(deep.comp.GetDepth(), 1025);
  deep.comp.AssignPDU(&deep.buf, 0, deep.buf.size());
  EXPECT_EQ(deep.comp.GetDepth(), 0);
  deep.comp.SetMaxDepth(2000);
  EXPECT_EQ(berCode([&] { deep.comp.ValidateStructure(); }), 0);
  EXPECT_EQ(deep.comp.GetDepth(), 0);
  Pdu shallow(nested(3));
  shallow.comp.SetMaxDepth(3);
  EXPECT_EQ(berCode([&] { shallow.comp.ValidateStructure(); }), TOO_DEEP);
  Pdu bad(tlv(0x30, tlv(0x30, {0x01, 0x02, 0x00, 0x00})));
  EXPECT_EQ(berCode([&] { bad.comp.ValidateStructure(); }), BER_NOT_VALIDATED);
  EXPECT_EQ(bad.comp.GetDepth(), 0);
}

TEST(BerTypes, TypeRules) {
  // BOOLEAN exactly one octet, INTEGER and ENUMERATED at least one (no upper
  // bound), none constructed; NULL primitive and empty; universal 0 never an
  // item; SEQUENCE, SET, EXTERNAL constructed; REAL, RELATIVE-OID primitive.
  // Other classes: primitive content unchecked, constructed content items.
  // Bit strings: a count of unused bits up to 7, none in a one-octet one,
  // constructed from primitive bit strings only. Object identifiers: not
  // empty, constructed, truncated or padded.
  expectHex(BER_NOT_VALIDATED,
            "01 02 00 00|02 00|0A 00|22 03 02 01 01|05 01 00|25 00|00 00|30 02 00 00|10 00|11 00|"
            "08 00|29 00|2D 00|A3 02 02 00|A3 01 05|03 01 05|03 00|03 02 08 00|23 04 04 02 00 AA|"
            "23 03 03 01 05|06 00|06 02 55 84|06 03 55 80 01|26 03 06 01 55");
  expectHex(0,
            "01 01 FF|02 09 01 02 03 04 05 06 07 08 09|30 00 31 00|09 01 40|A3 03 02 01 05|"
            "03 01 00|03 02 07 80|23 07 03 02 00 AA 03 01 00");
  // Accepted as they are, primitive or constructed.
  expectAll(0, {cat({str(0x0C, "\xff\xfe"), str(0x16, "\x01"), str(0x17, "junk"), str(0x18, "x"),
                     str(0x1E, "\x00\x41"), tlv(0x3E, {})}),
                cat({str(0x80, "\x00\x1F"), str(0x5F - 0x1F, "x"), str(0xC1, "")})});
}

TEST(BerTypes, RestrictedStringsAndConstructedParts) {
  // Teletex takes both graphic halves and its control functions, not NUL,
  // DEL or other controls. Constructed strings: parts of the same type, each
  // checked as primitive. A SEQUENCE takes any items.
  expectAll(0, {str(0x12, "0123 456"), str(0x13, "Az09 '()+,-./:=?"),
                str(0x14,
                    "Gr\xfc\xdf"
                    "e\x1b(B\r\n\xc2"
                    "a"),
                cat({{0x33, 0x07}, str(0x13, "ab"), str(0x13, "c")}),
                tlv(0x30, cat({str(0x04, "ab"), str(0x13, "c"), tlv(0x31, {})}))});
  expectAll(
      BER_NOT_VALIDATED,
      {str(0x13, "a*b"), str(0x13, "a@b"), str(0x13, "a&b"), str(0x13, "a_b"), str(0x13, "\xe9t"),
       str(0x13, "a\nb"), str(0x12, "12a"), str(0x14, std::string("a\0b", 3)), str(0x14, "a\x7f"),
       str(0x14, "a\x85"), cat({{0x33, 0x07}, str(0x13, "ab"), str(0x13, "*")}),
       cat({{0x24, 0x07}, str(0x04, "ab"), str(0x16, "c")}),
       cat({{0x24, 0x04}, tlv(0x24, str(0x04, ""))})});
}

TEST(BerTypes, ObjectIdentifiersDecodeTheFirstTwoArcs) {
  // 40 * X + Y in the first subidentifier: below 40 X is 0, below 80 it is
  // 1, from 80 on it is 2 (Y unbounded). A 128-bit arc of all ones.
  Pdu p(cat({hex("06 09 2A 86 48 86 F7 0D 01 01 0B 06 01 00 06 01 27 06 01 28 06 01 4F 06 01 50"),
             hex("06 02 81 34 06 14 69 83"),
             Bytes(17, 0xFF),
             {0x7F}}));
  p.comp.ValidateStructure();
  const char* want[] = {"1.2.840.113549.1.1.11",
                        "0.0",
                        "0.39",
                        "1.0",
                        "1.39",
                        "2.0",
                        "2.100",
                        "2.25.340282366920938463463374607431768211455"};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(p.comp.GetObjectIdent(i + 1), want[i]) << i;
}

TEST(BerLog, ReasonsAtTheErrorLevel) {
  // The reason for a refusal is the one record at the error level (4 by
  // default); these texts are what an operator reads.
  const std::pair<const char*, const char*> reasons[] = {
      {"04 80",
       "IsValidStructure_internal found a primitve type with indefinite length, rejecting."},
      {"05 00 1F 81 01 00", "multi-byte tag found (31) at offset 2"},
      {"03 01 05", "bit string found with a length of 1 and extra bits (5) at offset 2"},
      {"03 00", "bit string primitively encoded with a zero length found at offset 2"},
      {"03 02 08 00", "bit string found with more than 7 extra bits (8) at offset 2"},
      {"13 03 61 2A 62",
       "IsValidPrintString found invalid character (42) at offset 3, returning false"},
      {"02 00",
       "IsValidInt found integer/enum using zero bytes, returning false - offset 2, "
       "dataLen 0, identifier 2"},
      {"25 00",
       "IsValidNull found constructed null, returning false - offset 2, dataLen 0, "
       "identifier 37"},
  };
  for (auto [bytes, reason] : reasons) {
    sftest::LogCapture log(4);
    EXPECT_EQ(validation(hex(bytes)), BER_NOT_VALIDATED) << bytes;
    EXPECT_EQ(log.messages(4), std::vector<std::string>{reason}) << bytes;
  }
}

TEST(BerNavigation, ItemsCursorAndIndexes) {
  Pdu p(cat({tlv(0x30, cat({{0x02, 0x01, 0x07}, str(0x04, "ab")})),
             {0x02, 0x01, 0xFF},
             str(0x84, "xyz")}));
  EXPECT_EQ(berCode([&] { p.comp.FirstItem(); }), BER_NOT_VALIDATED);
  EXPECT_EQ(berCode([&] { p.comp.GetInteger(); }), BER_NOT_VALIDATED);
  p.comp.ValidateStructure();

  EXPECT_EQ(berCode([&] { p.comp.SetItem(0); }), INVALID_INDEX);
  EXPECT_EQ(p.comp.SetItem(3), 0x84);
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

  // The whole header of the current item in one read; item lengths.
  unsigned content;
  size_t contentLen;
  p.comp.SetItem(1);
  EXPECT_EQ(p.comp.GetItemHeader(&content, &contentLen), 0x30);
  EXPECT_EQ(content, 2u);
  EXPECT_EQ(contentLen, 7u);
  EXPECT_EQ(p.comp.GetItemLength(3), 3u);

  // A SEQUENCE with nothing in it has no items.
  Pdu empty({0x30, 0x00});
  empty.comp.ValidateStructure();
  SfBerComponent inner = empty.comp.GetSequence(1);
  EXPECT_EQ(inner.NextItem(0), 0);
  EXPECT_EQ(berCode([&] { inner.FirstItem(); }), INVALID_INDEX);
}

TEST(BerAccessors, IntegersSequencesAndStrings) {
  Pdu p(
      cat({hex("02 01 FF 02 02 00 80 02 04 80 00 00 00 02 05 00 FF FF FF FF 0A 01 02 81 02 FF 7F"),
           hex("31 02 05 00"), tlv(0x30, cat({tlv(0x31, str(0x13, "US")), {0x01, 0x01, 0x00}})),
           hex("A5 02 05 00"), cat({{0x24, 0x09}, str(0x04, "abc"), str(0x04, "de")}),
           str(0x13, "Printable"), hex("03 03 04 AB C0 23 08 03 02 00 12 03 02 03 38")}));
  p.comp.ValidateStructure();
  EXPECT_EQ(p.comp.GetInteger(1), -1);
  EXPECT_EQ(p.comp.GetInteger(2), 128);
  EXPECT_EQ(p.comp.GetInteger(3), -2147483647 - 1);
  EXPECT_EQ(berCode([&] { p.comp.GetInteger(4); }), INTEGER_OUT_OF_BOUNDS);
  EXPECT_EQ(p.comp.GetInteger(5), 2);
  EXPECT_EQ(p.comp.GetInteger(6), -129);  // an implicitly tagged integer
  EXPECT_EQ(berCode([&] { p.comp.GetInteger(7); }), INVALID_TYPE);

  // GetSet is GetSequence: a universal SET is refused by both.
  EXPECT_EQ(berCode([&] { p.comp.GetSet(7); }), INVALID_TYPE);
  EXPECT_EQ(berCode([&] { p.comp.GetSequence(7); }), INVALID_TYPE);
  EXPECT_EQ(berCode([&] { p.comp.GetSequence(1); }), INVALID_TYPE);
  SfBerComponent seq = p.comp.GetSet(8);
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
  // A trusted view over bytes never validated: accessors refuse what does
  // not fit instead of reading past it.
  sf::Buffer b, oid;
  b.append(
      "\x04\x10"
      "abc",
      5);
  oid.append("\x06\x02\x55\x84", 4);
  SfBerComponent c(&b, 0, b.size()), o(&oid, 0, oid.size()), beyond(&b, 3, 100);
  EXPECT_EQ(berCode([&] { c.GetOctetString(); }), INSUFFICENT_DATA);
  EXPECT_EQ(berCode([&] { c.NextItem(1); }), INSUFFICENT_DATA);
  EXPECT_EQ(berCode([&] { o.GetObjectIdent(); }), INVALID_TYPE);
  EXPECT_EQ(berCode([&] { beyond.GetItemIdentifier(); }), 0);
  EXPECT_EQ(berCode([&] { beyond.GetOctetString(); }), INSUFFICENT_DATA);
}
