// SfBerComponent: the validation and accessor tables of tests/data/ber/,
// limits and depth, navigation and trusted views.
#include <gtest/gtest.h>

#include <cstdio>
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
  int validation() {
    return berCode([&] { comp.ValidateStructure(); });
  }
};

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

// An OCTET STRING of n octets; levels SEQUENCEs round a NULL. Every length
// in three octets.
Bytes octetString(int n) {
  Bytes b{0x04, 0x83, Octet(n >> 16), Octet(n >> 8), Octet(n)};
  b.resize(b.size() + n, 'a');
  return b;
}

Bytes nested(int levels) {
  Bytes b;
  for (int n = 5 * levels - 3; n > 0; n -= 5)
    b.insert(b.end(), {0x30, 0x83, Octet(n >> 16), Octet(n >> 8), Octet(n)});
  b.insert(b.end(), {0x05, 0x00});
  return b;
}

}  // namespace

TEST(BerValidation, TableOfStretches) {
  forEachRow("validation.txt", [](const std::string& want, const std::string& bytes,
                                  const std::string& reason, const std::string& row) {
    sftest::LogCapture log(4);  // the error level by default
    EXPECT_EQ(codeName(Pdu(octets(bytes)).validation()), want) << row;
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
        for (size_t i = 0; i < bits.size(); ++i) {
          char hex[4];
          std::snprintf(hex, sizeof hex, " %02X", static_cast<Octet>(bits.data[i]));
          got += hex;
        }
      }
    });
    EXPECT_EQ(code ? codeName(code) : got, want) << row;
  });
}

TEST(BerValidation, LimitsDepthAndTheBuffer) {
  // The default item limit is 65535; 0 lifts it.
  EXPECT_EQ(Pdu(octetString(65535)).validation(), 0);
  Pdu p(octetString(65536));
  EXPECT_EQ(p.validation(), LENGTH_OUT_OF_BOUNDS);
  p.comp.SetMaxLength(0);
  EXPECT_EQ(p.validation(), 0);
  p.comp.SetMaxLength(100);
  EXPECT_EQ(p.validation(), LENGTH_OUT_OF_BOUNDS);

  // Depth: the top-level stretch counts as one level; a refusal by
  // exception leaves the depth raised (a second attempt starts deeper), one
  // by rule unwinds it.
  EXPECT_EQ(Pdu(nested(1023)).validation(), 0);
  Pdu deep(nested(1024));
  EXPECT_EQ(deep.validation(), TOO_DEEP);
  EXPECT_EQ(deep.comp.GetDepth(), 1025);
  deep.comp.AssignPDU(&deep.buf, 0, deep.buf.size());
  EXPECT_EQ(deep.comp.GetDepth(), 0);
  // Deeper than any stack holds: refused by the limit alone.
  Pdu bottomless(nested(200000));
  bottomless.comp.SetMaxLength(0);
  bottomless.comp.SetMaxDepth(200001);
  EXPECT_EQ(bottomless.validation(), 0);
  EXPECT_EQ(bottomless.comp.GetDepth(), 0);
  bottomless.comp.SetMaxDepth(200000);
  EXPECT_EQ(bottomless.validation(), TOO_DEEP);
  Pdu bad(octets("30 03 30 01 00"));  // a SEQUENCE too short to hold an item
  EXPECT_EQ(bad.validation(), BER_NOT_VALIDATED);
  EXPECT_EQ(bad.comp.GetDepth(), 0);

  // A stretch longer than the buffer; one inside a larger buffer; the buffer
  // changed size since assignment.
  Pdu framed(octets("FF FF 02 01 07 FF"));
  framed.comp.AssignPDU(&framed.buf, 0, 7);
  EXPECT_EQ(framed.validation(), INVALID_LENGTH);
  framed.comp.AssignPDU(&framed.buf, 2, 3);
  framed.comp.ValidateStructure();
  EXPECT_EQ(framed.comp.GetInteger(1), 7);
  framed.buf.append("x", 1);
  EXPECT_EQ(framed.validation(), INVALID_LENGTH);

  // Sizing a PDU of which only the header has arrived.
  Pdu partial({0x30, 0x82, 0x01, 0x2C, 0x02});
  partial.comp.AssignPDU(&partial.buf, 0, 2);
  EXPECT_EQ(partial.comp.GetLengthAdditionalSize(), 2u);
  EXPECT_EQ(partial.comp.GetItemLength(1, true), 300u);
  EXPECT_EQ(partial.comp.GetLength(), 2u);  // restored after the widening
  EXPECT_EQ(berCode([&] { partial.comp.GetItemLength(1, false); }), BER_NOT_VALIDATED);
  EXPECT_EQ(Pdu({0x30, 0x05}).comp.GetLengthAdditionalSize(), 0u);
  EXPECT_EQ(berCode([&] { Pdu({0x30}).comp.GetLengthAdditionalSize(); }), INSUFFICENT_DATA);
}

TEST(BerNavigation, ItemsCursorAndIndexes) {
  Pdu p(octets("02 01 FF 30 07 02 01 07 04 02 \"ab\" 84 03 \"xyz\""));
  EXPECT_EQ(berCode([&] { p.comp.NextItem(1); }), BER_NOT_VALIDATED);
  EXPECT_EQ(berCode([&] { p.comp.GetInteger(); }), BER_NOT_VALIDATED);
  sf::Buffer unread;
  EXPECT_EQ(berCode([&] { p.comp.GetConstructedData(unread); }), BER_NOT_VALIDATED);
  p.comp.ValidateStructure();

  EXPECT_EQ(berCode([&] { p.comp.SetItem(0); }), INVALID_INDEX);
  EXPECT_EQ(p.comp.SetItem(3), 0x84);
  const unsigned last = p.comp.GetItemOffset();
  EXPECT_EQ(p.comp.NextItem(1), 0);  // no fourth item: cursor stays
  EXPECT_EQ(p.comp.GetItemOffset(), last);
  EXPECT_EQ(p.comp.GetItemIndex(), 3);
  EXPECT_EQ(berCode([&] { p.comp.SetItem(4); }), INVALID_INDEX);
  // Backwards restarts from the first item; constructed bit cleared.
  EXPECT_EQ(p.comp.SetItem(1), 0x02);
  EXPECT_EQ(p.comp.GetItemIdentifier(2), 0x10);
  EXPECT_EQ(p.comp.NextItem(0), 0x10);
  EXPECT_EQ(p.comp.FirstItem(), 0x02);
  EXPECT_EQ(p.comp.NextItem(2), 0x84);

  // The whole header of the current item in one read; item lengths.
  unsigned content;
  size_t contentLen;
  p.comp.SetItem(2);
  EXPECT_EQ(p.comp.GetItemHeader(&content, &contentLen), 0x30);
  EXPECT_EQ(content, 5u);
  EXPECT_EQ(contentLen, 7u);
  EXPECT_EQ(p.comp.GetItemLength(3), 3u);
}

TEST(BerAccessors, SequencesAndSets) {
  Pdu p(octets("31 02 05 00 A5 02 05 00 30 09 31 04 13 02 \"US\" 01 01 00 30 00"));
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
  SfBerComponent set(&setData, 0, setData.size());
  EXPECT_EQ(set.GetOctetString(1), "US");
  EXPECT_EQ(berCode([&] { set.GetConstructedData(setData); }), INVALID_TYPE);
  // A SEQUENCE with nothing in it has no items.
  SfBerComponent empty = p.comp.GetSequence(4);
  EXPECT_EQ(empty.NextItem(0), 0);
  EXPECT_EQ(berCode([&] { empty.FirstItem(); }), INVALID_INDEX);
}

TEST(BerAccessors, TrustedViewsStayInsideTheirData) {
  // A trusted view over bytes never validated: accessors refuse what does
  // not fit instead of reading past it.
  Pdu s(octets("04 10 \"abc\"")), oid(octets("06 02 55 84"));
  SfBerComponent c(&s.buf, 0, 5), o(&oid.buf, 0, 4), beyond(&s.buf, 3, 100);
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
