// SfBerComponent: the validation and accessor tables of tests/data/ber/,
// limits and depth, navigation and trusted views.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "sf/sflib.h"
#include "support/testsupport.h"

using sfber::SfBerComponent;
using sftest::berCode;
using Octet = unsigned char;
using Bytes = std::vector<Octet>;
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

int validation(const Bytes& bytes) {
  Pdu p(bytes);
  return berCode([&] { p.comp.ValidateStructure(); });
}

// Octets written as hex pairs and "quoted text": 13 03 "a*b".
Bytes octets(const std::string& text) {
  Bytes b;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '"') {
      size_t end = text.find('"', at + 1);
      b.insert(b.end(), text.begin() + at + 1, text.begin() + end);
      at = end;
    } else if (text[at] != ' ') {
      b.push_back(static_cast<unsigned char>(std::stoi(text.substr(at++, 2), nullptr, 16)));
    }
  }
  return b;
}

std::string hexOctet(char c) {
  const char* digits = "0123456789ABCDEF";
  const auto v = static_cast<unsigned char>(c);
  return {digits[v >> 4], digits[v & 15]};
}

// Calls fn(first word, octets, text after " => ", row) for each row of a
// table in tests/data/ber/.
template <typename Fn>
void forEachRow(const char* name, Fn fn) {
  std::ifstream table(sftest::sourceDir() / "tests/data/ber" / name);
  ASSERT_TRUE(table) << name;
  int rows = 0;
  for (std::string row; std::getline(table, row);) {
    if (row.empty() || row[0] == '#') continue;
    ++rows;
    const size_t arrow = std::min(row.find(" => "), row.size());
    const size_t space = std::min(row.find(' '), arrow);
    fn(row.substr(0, space), row.substr(space, arrow - space),
       row.substr(std::min(arrow + 4, row.size())), row);
  }
  EXPECT_GT(rows, 20) << name;
}

// The name a table row gives a validation result.
std::string codeName(int code) {
  const std::pair<int, const char*> names[] = {{0, "ok"},
                                               {BER_NOT_VALIDATED, "NOT_VALIDATED"},
                                               {INSUFFICENT_DATA, "INSUFFICENT_DATA"},
                                               {LENGTH_OUT_OF_BOUNDS, "LENGTH_OUT_OF_BOUNDS"},
                                               {INVALID_TYPE, "INVALID_TYPE"},
                                               {INTEGER_OUT_OF_BOUNDS, "INTEGER_OUT_OF_BOUNDS"}};
  for (auto [c, name] : names)
    if (c == code) return name;
  return std::to_string(code);
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

TEST(BerValidation, TableOfStretches) {
  forEachRow("validation.txt", [](const std::string& want, const std::string& bytes,
                                  const std::string& reason, const std::string& row) {
    sftest::LogCapture log(4);  // the error level by default
    EXPECT_EQ(codeName(validation(octets(bytes))), want) << row;
    if (!reason.empty()) {
      EXPECT_EQ(log.messages(4), std::vector<std::string>{reason}) << row;
    }
  });
}

TEST(BerAccessors, TableOfValues) {
  forEachRow("values.txt", [](const std::string& accessor, const std::string& bytes,
                              const std::string& want, const std::string& row) {
    Pdu p(octets(bytes));
    std::string got;
    const int code = berCode([&] {
      if (accessor == "lengthfield") {  // the raw reader, on octets never validated
        unsigned pos = 0;
        const auto length = static_cast<long long>(p.comp.GetValueLength(&pos));
        got = std::to_string(length) + " at " + std::to_string(pos);
        return;
      }
      p.comp.ValidateStructure();
      if (accessor == "integer") got = std::to_string(p.comp.GetInteger(1));
      if (accessor == "oid") got = p.comp.GetObjectIdent(1);
      if (accessor == "string") got = p.comp.GetOctetString(1);
      if (accessor == "length") got = std::to_string(p.comp.GetItemLength(1));
      if (accessor == "bits") {
        sf::Buffer bits;
        p.comp.SetItem(1);
        got = std::to_string(p.comp.GetBitString(bits));
        for (size_t i = 0; i < bits.size(); ++i) got += " " + hexOctet(bits.data[i]);
      }
    });
    EXPECT_EQ(code ? codeName(code) : got, want) << row;
  });
}

TEST(BerValidation, LimitsDepthAndTheBuffer) {
  // The default item limit is 65535; 0 lifts it.
  EXPECT_EQ(validation(tlv(0x04, Bytes(65535, 'a'))), 0);
  Pdu p(tlv(0x04, Bytes(65536, 'a')));
  EXPECT_EQ(berCode([&] { p.comp.ValidateStructure(); }), LENGTH_OUT_OF_BOUNDS);
  p.comp.SetMaxLength(0);
  EXPECT_EQ(berCode([&] { p.comp.ValidateStructure(); }), 0);
  p.comp.SetMaxLength(100);
  EXPECT_EQ(berCode([&] { p.comp.ValidateStructure(); }), LENGTH_OUT_OF_BOUNDS);

  // Depth: the top-level stretch counts as one level; a refusal by
  // exception leaves the depth raised (a second attempt starts deeper), one
  // by rule unwinds it.
  EXPECT_EQ(validation(nested(1023)), 0);
  Pdu deep(nested(1024));
  EXPECT_EQ(berCode([&] { deep.comp.ValidateStructure(); }), TOO_DEEP);
  EXPECT_EQ(deep.comp.GetDepth(), 1025);
  deep.comp.AssignPDU(&deep.buf, 0, deep.buf.size());
  EXPECT_EQ(deep.comp.GetDepth(), 0);
  Bytes abyss;  // 200,000 SEQUENCEs round a NULL, deeper than any stack holds
  for (int n = 5 * 200000 - 3; n > 0; n -= 5)
    abyss.insert(abyss.end(), {0x30, 0x83, Octet(n >> 16), Octet(n >> 8), Octet(n)});
  Pdu bottomless(cat({abyss, {0x05, 0x00}}));  // refused by the limit alone
  bottomless.comp.SetMaxLength(0);
  bottomless.comp.SetMaxDepth(200001);
  EXPECT_EQ(berCode([&] { bottomless.comp.ValidateStructure(); }), 0);
  EXPECT_EQ(bottomless.comp.GetDepth(), 0);
  bottomless.comp.SetMaxDepth(200000);
  EXPECT_EQ(berCode([&] { bottomless.comp.ValidateStructure(); }), TOO_DEEP);
  Pdu bad(tlv(0x30, tlv(0x30, {0x01, 0x02, 0x00, 0x00})));
  EXPECT_EQ(berCode([&] { bad.comp.ValidateStructure(); }), BER_NOT_VALIDATED);
  EXPECT_EQ(bad.comp.GetDepth(), 0);

  // The buffer changed size since assignment; a stretch longer than it; a
  // stretch inside a larger buffer.
  Pdu grown({0x05, 0x00});
  grown.buf.append("x", 1);
  EXPECT_EQ(berCode([&] { grown.comp.ValidateStructure(); }), INVALID_LENGTH);
  sf::Buffer b;
  b.append("\xff\xff\x02\x01\x07\xff", 6);
  SfBerComponent c;
  c.AssignPDU(&b, 0, 7);
  EXPECT_EQ(berCode([&] { c.ValidateStructure(); }), INVALID_LENGTH);
  c.AssignPDU(&b, 2, 3);
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

TEST(BerAccessors, SequencesAndSets) {
  Pdu p(cat({octets("31 02 05 00 A5 02 05 00"),
             tlv(0x30, cat({tlv(0x31, str(0x13, "US")), {0x01, 0x01, 0x00}}))}));
  p.comp.ValidateStructure();
  // GetSet is GetSequence: a universal SET is refused by both; constructed
  // items of other classes are sequences to them.
  EXPECT_EQ(berCode([&] { p.comp.GetSet(1); }), INVALID_TYPE);
  EXPECT_EQ(berCode([&] { p.comp.GetSequence(1); }), INVALID_TYPE);
  EXPECT_EQ(p.comp.GetSequence(2).GetItemIdentifier(1), 0x05);
  SfBerComponent seq = p.comp.GetSet(3);
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
  // No PDU at all.
  SfBerComponent none;
  unsigned pos = 0;
  EXPECT_EQ(berCode([&] { none.ValidateStructure(); }), NO_BER_DEFINED);
  EXPECT_EQ(berCode([&] { none.GetValueLength(&pos); }), NO_BER_DEFINED);
  EXPECT_EQ(berCode([&] { none.GetLengthAdditionalSize(); }), NO_BER_DEFINED);
}
