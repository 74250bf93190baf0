// Real LDAP messages (captured between ldapsearch and slapd, kept in
// tests/data/ber) read through the component API, and rebuilt byte for byte
// with the encoder.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "sf/sflib.h"
#include "support/testsupport.h"

using sfber::SfBerComponent;
using sfber::SfBerComponentEncoder;

namespace {

// A captured message in a buffer, validated.
struct Message {
  sf::Buffer buf;
  SfBerComponent pdu;
  explicit Message(const char* name) {
    const char* src = getenv("SF_TEST_SOURCE_DIR");
    std::string bytes =
        sftest::readFile((src ? std::filesystem::path(src) / "tests"
                              : std::filesystem::path(__FILE__).parent_path().parent_path()) /
                         "data/ber" / name);
    if (bytes.empty()) throw std::runtime_error(std::string("missing fixture ") + name);
    buf.append(bytes.data(), bytes.size());
    pdu.AssignPDU(&buf, 0, buf.size());
    pdu.ValidateStructure();
  }
  std::string bytes() const { return std::string(buf.data, buf.size()); }
};

std::string bytesOf(const SfBerComponentEncoder& e) {
  return std::string(e.getROBuffer()->data, e.getROBuffer()->size());
}

// LDAPMessage ::= SEQUENCE { messageID, protocolOp [APPLICATION n], ... };
// returns the message.
SfBerComponent expectHeader(Message& m, int id, int op) {
  SfBerComponent msg = m.pdu.GetSequence(1);
  EXPECT_EQ(msg.GetInteger(1), id);
  EXPECT_EQ(msg.GetItemTagType(2), 0x40);
  EXPECT_EQ(msg.GetItemTag(2), op);
  return msg;
}

}  // namespace

TEST(BerLdap, RequestsReadAndRebuiltExactly) {
  // Bind: version, name, simple authentication [0].
  Message bind("ldap-client-1.ber");
  SfBerComponent req = expectHeader(bind, 1, 0).GetSequence(2);
  EXPECT_EQ(req.GetInteger(1), 3);
  EXPECT_EQ(req.GetOctetString(2), "cn=admin,dc=example,dc=com");
  EXPECT_EQ(req.GetItemIdentifier(3), 0x80);
  EXPECT_EQ(req.GetOctetString(3), "secret");

  SfBerComponentEncoder b, bm, bp;
  b.InsertInteger(req.GetInteger(1), 0x02);
  b.InsertOctetString(req.GetOctetString(2), 0x04);
  b.InsertOctetString(req.GetOctetString(3), 0x80);
  bm.InsertChunk(0x60, b, true);
  bm.FirstItem();
  bm.InsertInteger(1, 0x02);  // the id goes in front of the operation
  bp.InsertChunk(0x30, bm, true);
  EXPECT_EQ(bytesOf(bp), bind.bytes());

  // Search: base, scope, aliases, limits, typesOnly, filter, attributes.
  Message search("ldap-client-2.ber");
  req = expectHeader(search, 2, 3).GetSequence(2);
  EXPECT_EQ(req.GetOctetString(1), "dc=example,dc=com");
  EXPECT_EQ(req.GetInteger(2), 2);
  EXPECT_EQ(req.GetInteger(6), 0);
  EXPECT_EQ(req.GetItemIdentifier(7), 0x87);
  EXPECT_EQ(req.GetOctetString(7), "objectClass");
  EXPECT_EQ(req.GetSequence(8).GetLength(), 0u);

  SfBerComponentEncoder s, sm, sp;
  s.InsertOctetString(req.GetOctetString(1), 0x04);
  s.InsertInteger(req.GetInteger(2), 0x0A);
  s.InsertInteger(req.GetInteger(3), 0x0A);
  s.InsertInteger(req.GetInteger(4), 0x02);
  s.InsertInteger(req.GetInteger(5), 0x02);
  s.InsertInteger(req.GetInteger(6), 0x01);
  s.InsertOctetString(req.GetOctetString(7), 0x87);
  s.InsertChunk(0x30, "", 0, true);
  sm.InsertInteger(2, 0x02);
  sm.InsertChunk(0x63, s, true);
  sp.InsertChunk(0x30, sm, true);
  EXPECT_EQ(bytesOf(sp), search.bytes());

  // Unbind: a primitive [APPLICATION 2] with no content.
  Message unbind("ldap-client-3.ber");
  SfBerComponent msg = expectHeader(unbind, 3, 2);
  EXPECT_EQ(msg.GetItemLength(2), 0u);
  try {
    msg.GetSequence(2);
    ADD_FAILURE() << "unbind read as a sequence";
  } catch (const sf::Xber& x) {
    EXPECT_EQ(x.GetError(), sf::Ber::INVALID_TYPE);
  }
}

TEST(BerLdap, ResponsesAndAnEntryWalkedToItsValues) {
  // Bind and search done: resultCode success, empty matchedDN.
  for (auto [name, id, op] :
       {std::make_tuple("ldap-server-1.ber", 1, 1), std::make_tuple("ldap-server-5.ber", 2, 5)}) {
    Message done(name);
    SfBerComponent result = expectHeader(done, id, op).GetSequence(2);
    EXPECT_EQ(result.GetInteger(1), 0) << name;
    EXPECT_EQ(result.GetOctetString(2), "") << name;
  }
  // SearchResultEntry: objectName, then a SEQUENCE of { type, SET OF value }.
  Message entry("ldap-server-2.ber");
  SfBerComponent e = expectHeader(entry, 2, 4).GetSequence(2);
  EXPECT_EQ(e.GetOctetString(1), "dc=example,dc=com");
  SfBerComponent attrs = e.GetSequence(2);
  std::vector<std::string> seen;
  attrs.FirstItem();
  do {
    SfBerComponent attr = attrs.GetSequence();
    std::string type = attr.GetOctetString(1);
    attr.SetItem(2);
    // The values are a SET: read through its content.
    sf::Buffer setData;
    attr.GetConstructedData(setData);
    SfBerComponent values;
    values.AssignPDU(&setData, 0, setData.size());
    values.ValidateStructure();
    values.FirstItem();
    do {
      seen.push_back(type + "=" + values.GetOctetString());
    } while (values.NextItem(1) != 0);
  } while (attrs.NextItem(1) != 0);
  EXPECT_EQ(seen, (std::vector<std::string>{"objectClass=dcObject", "objectClass=organization",
                                            "o=Example", "dc=example"}));
}
