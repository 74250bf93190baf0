// ber_ldap_request MESSAGE-ID BASE [ATTRIBUTE=VALUE]: writes an LDAP search
// request for cn and mail, built with SfBerComponentEncoder, to standard
// output (filter (objectClass=*) by default). test_ber_ldap.py sends it.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "sf/sflib.h"

using sfber::SfBerComponentEncoder;

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: ber_ldap_request MESSAGE-ID BASE [ATTRIBUTE=VALUE]\n");
    return 2;
  }
  try {
    SfBerComponentEncoder filter;
    std::string assertion = argc > 3 ? argv[3] : "";
    size_t eq = assertion.find('=');
    if (eq != std::string::npos) {
      SfBerComponentEncoder ava;
      ava.InsertOctetString(assertion.substr(0, eq), 0x04);
      ava.InsertOctetString(assertion.substr(eq + 1), 0x04);
      filter.InsertChunk(0xA3, ava, true);  // equalityMatch [3]
    } else {
      filter.InsertOctetString("objectClass", 0x87);  // present [7]
    }

    SfBerComponentEncoder attrs;
    attrs.InsertOctetString("mail", 0x04);
    attrs.FirstItem();  // insert in front of what is there
    attrs.InsertOctetString("cn", 0x04);

    SfBerComponentEncoder req;
    req.InsertOctetString(argv[2], 0x04);    // baseObject
    req.InsertInteger(2, 0x0A);              // scope: wholeSubtree
    req.InsertInteger(0, 0x0A);              // derefAliases: never
    req.InsertInteger(100, 0x02);            // sizeLimit
    req.InsertInteger(30, 0x02);             // timeLimit
    req.InsertChunk(0x01, "\x00", 1, true);  // typesOnly FALSE
    // The filter is a single item: copy it as it stands.
    const sf::Buffer* f = filter.getROBuffer();
    req.InsertChunk(static_cast<unsigned char>(f->data[0]), f->data + 1, f->size() - 1, false);
    req.InsertChunk(0x30, attrs, true);

    // The operation first, then the message id put in front of it.
    SfBerComponentEncoder msg;
    msg.InsertChunk(0x63, req, true);  // [APPLICATION 3] searchRequest
    msg.FirstItem();
    msg.InsertInteger(atoi(argv[1]), 0x02);

    SfBerComponentEncoder pdu;
    pdu.InsertChunk(0x30, msg, true);
    std::unique_ptr<sf::Buffer> out(pdu.getBuffer());
    fwrite(out->data, 1, out->size(), stdout);
    return 0;
  } catch (const sf::X& x) {
    fprintf(stderr, "ber_ldap_request: %s\n", x.str().c_str());
    return 1;
  }
}
