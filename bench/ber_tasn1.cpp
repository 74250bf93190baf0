// The libtasn1 side of ber_bench: a structure-free walk of every item with
// asn1_get_tag_der and asn1_get_length_der.
#include <libtasn1.h>

// The same walk with libtasn1's tag and length readers; -1 on a bad item.
long tasn1Walk(const unsigned char* der, long len) {
  long items = 0;
  while (len > 0) {
    unsigned char cls;
    int tagLen;
    unsigned long tag;
    if (asn1_get_tag_der(der, static_cast<int>(len), &cls, &tagLen, &tag) != ASN1_SUCCESS)
      return -1;
    int lenLen;
    long content = asn1_get_length_der(der + tagLen, static_cast<int>(len - tagLen), &lenLen);
    if (content < 0) return -1;
    const long header = tagLen + lenLen;
    if (content > len - header) return -1;
    ++items;
    if (cls & ASN1_CLASS_STRUCTURED) {
      long inner = tasn1Walk(der + header, content);
      if (inner < 0) return -1;
      items += inner;
    }
    der += header + content;
    len -= header + content;
  }
  return items;
}
