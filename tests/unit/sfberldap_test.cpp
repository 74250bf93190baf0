// Real LDAP messages (captured between ldapsearch and slapd, kept in
// tests/data/ber) read through the component API, and rebuilt byte for byte
// with the encoder.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "sf/sflib.h"
#include "support/testsupport.h"

using sfber::SfBerComponent;
using sfber::SfBerComponentEncoder;

namespace {

std::filesystem::path dataDir() {
  if (const char* src = getenv("SF_TEST_SOURCE_DIR"))
    return std::filesystem::path(src) / "tests/data/ber";
  return std::filesystem::path(__FILE__).parent_path().parent_path() / "data/ber";
}

// A captured message in a buffer, validated.
struct Message {
  sf::Buffer buf;
  SfBerComponent pdu;
  explicit Message(const char* name) {
    std::string bytes = sftest::readFile(dataDir() / name);
    if (bytes.empty()) throw std::runtime_error(std::string("missing fixture ") + name);
    buf.append(bytes.data(), bytes.size());
    pdu.AssignPDU(&buf, 0, buf.size());
    pdu.ValidateStructure();
  }
  std::string bytes() const { return std::string(buf.data, buf.size()); }
};

std::string bytesOf(const SfBerComponentEncoder& e) {
  const sf::Buffer* b = e.getROBuffer();
  return std::string(b->data, b->size());
}

int berCodeOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const sf::Xber& e) {
    return e.GetError();
  }
  return 0;
}

// LDAPMessage ::= SEQUENCE { messageID, protocolOp [APPLICATION n], ... }
void expectHeader(SfBerComponent& msg, int id, int op) {
  EXPECT_EQ(msg.GetInteger(1), id);
  EXPECT_EQ(msg.GetItemTagType(2), 0x40);
  EXPECT_EQ(msg.GetItemTag(2), op);
}

}  // namespace

TEST(BerLdap, RequestsReadAndRebuiltExactly) {
  // Bind: version, name, simple authentication [0].
  Message bind("ldap-client-1.ber");
  SfBerComponent msg = bind.pdu.GetSequence(1);
  expectHeader(msg, 1, 0);
  SfBerComponent req = msg.GetSequence(2);
  EXPECT_EQ(req.GetInteger(1), 3);
  EXPECT_EQ(req.GetOctetString(2), "cn=admin,dc=example,dc=com");
  EXPECT_EQ(req.GetItemIdentifier(3), 0x80);
  EXPECT_EQ(req.GetOctetString(3), "secret");

  SfBerComponentEncoder b;
  b.InsertInteger(req.GetInteger(1), 0x02);
  b.InsertOctetString(req.GetOctetString(2), 0x04);
  b.InsertOctetString(req.GetOctetString(3), 0x80);
  SfBerComponentEncoder bm;
  bm.InsertChunk(0x60, b, true);
  bm.FirstItem();
  bm.InsertInteger(1, 0x02);  // the id goes in front of the operation
  SfBerComponentEncoder bp;
  bp.InsertChunk(0x30, bm, true);
  EXPECT_EQ(bytesOf(bp), bind.bytes());

  // Search: base, scope, aliases, limits, typesOnly, filter, attributes.
  Message search("ldap-client-2.ber");
  msg = search.pdu.GetSequence(1);
  expectHeader(msg, 2, 3);
  req = msg.GetSequence(2);
  EXPECT_EQ(req.GetOctetString(1), "dc=example,dc=com");
  EXPECT_EQ(req.GetInteger(2), 2);
  EXPECT_EQ(req.GetInteger(6), 0);
  EXPECT_EQ(req.GetItemIdentifier(7), 0x87);
  EXPECT_EQ(req.GetOctetString(7), "objectClass");
  EXPECT_EQ(req.GetSequence(8).GetLength(), 0u);

  SfBerComponentEncoder s;
  s.InsertOctetString(req.GetOctetString(1), 0x04);
  s.InsertInteger(req.GetInteger(2), 0x0A);
  s.InsertInteger(req.GetInteger(3), 0x0A);
  s.InsertInteger(req.GetInteger(4), 0x02);
  s.InsertInteger(req.GetInteger(5), 0x02);
  s.InsertInteger(req.GetInteger(6), 0x01);
  s.InsertOctetString(req.GetOctetString(7), 0x87);
  s.InsertChunk(0x30, "", 0, true);
  SfBerComponentEncoder sm;
  sm.InsertInteger(2, 0x02);
  sm.InsertChunk(0x63, s, true);
  SfBerComponentEncoder sp;
  sp.InsertChunk(0x30, sm, true);
  EXPECT_EQ(bytesOf(sp), search.bytes());
  // Wrapping the decoded message again gives the same bytes too.
  SfBerComponentEncoder again;
  again.InsertChunk(0x30, msg, true);
  EXPECT_EQ(bytesOf(again), search.bytes());

  // Unbind: a primitive [APPLICATION 2] with no content.
  Message unbind("ldap-client-3.ber");
  msg = unbind.pdu.GetSequence(1);
  expectHeader(msg, 3, 2);
  EXPECT_EQ(msg.GetItemLength(2), 0u);
  EXPECT_EQ(berCodeOf([&] { msg.GetSequence(2); }), sf::Ber::INVALID_TYPE);
}

TEST(BerLdap, ResponsesAndAnEntryWalkedToItsValues) {
  for (const char* name : {"ldap-server-1.ber", "ldap-server-5.ber"}) {
    Message m(name);
    SfBerComponent msg = m.pdu.GetSequence(1);
    SfBerComponent result = msg.GetSequence(2);
    EXPECT_EQ(result.GetInteger(1), 0) << name;  // resultCode success
    EXPECT_EQ(result.GetOctetString(2), "") << name;
  }
  Message bindDone("ldap-server-1.ber");
  SfBerComponent msg = bindDone.pdu.GetSequence(1);
  expectHeader(msg, 1, 1);

  // SearchResultEntry: objectName, then a SEQUENCE of
  // { type, SET OF value }.
  Message entry("ldap-server-2.ber");
  msg = entry.pdu.GetSequence(1);
  expectHeader(msg, 2, 4);
  SfBerComponent e = msg.GetSequence(2);
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
