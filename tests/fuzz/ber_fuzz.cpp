// libFuzzer target for the BER codec: arbitrary bytes go through validation;
// when they pass, every item is walked with every accessor, and the items
// are wrapped with the encoder and read back.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "sf/sflib.h"

using sfber::SfBerComponent;
using sfber::SfBerComponentEncoder;

namespace {

void discard(std::uint32_t, std::uint32_t, std::uint32_t, const char*, std::uint32_t, std::uint32_t,
             const char*, int, const char*, int) {}

void require(bool ok) {
  if (!ok) abort();
}

template <class F>
void tolerate(F f) {
  try {
    f();
  } catch (const sf::Xber&) {
  }
}

void walk(SfBerComponent& comp) {
  if (comp.GetLength() == 0) return;
  comp.FirstItem();
  do {
    unsigned content;
    size_t len;
    const int ident = comp.GetItemHeader(&content, &len);
    require(comp.GetItemIdentifier() == (ident & ~0x20));
    require(content + len <= comp.GetStart() + comp.GetLength());
    tolerate([&] { comp.GetItemLength(); });
    tolerate([&] { comp.GetInteger(); });
    tolerate([&] { comp.GetOctetString(); });
    tolerate([&] { comp.GetObjectIdent(); });
    sf::Buffer out;
    tolerate([&] { comp.GetBitString(out); });
    tolerate([&] { comp.GetConstructedData(out); });
    if (ident & 0x20) {
      // Into the content: by GetSequence, else as a view over the content.
      try {
        SfBerComponent seq = comp.GetSequence();
        walk(seq);
      } catch (const sf::Xber& x) {
        require(x.GetError() == sf::Ber::INVALID_TYPE);
        SfBerComponent inner(comp.GetPDU(), content, len);
        inner.CopySettings(comp);
        walk(inner);
      }
    }
  } while (comp.NextItem(1) != 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  sf::setlog(discard);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  // Half the inputs with every log line formatted, half with logging off.
  sf::g_logLevel.store(size & 1 ? 10 : -1);
  sf::Buffer buf;
  if (size) buf.append(data, size);
  SfBerComponent comp;
  comp.AssignPDU(&buf, 0, size);
  // The header readers used to size a PDU work on anything.
  tolerate([&] { comp.GetLengthAdditionalSize(); });
  tolerate([&] { comp.GetItemLength(1, true); });
  try {
    comp.ValidateStructure();
  } catch (const sf::Xber&) {
    return 0;
  }
  walk(comp);

  // Wrap the items under a SEQUENCE; the result is valid (unless one level
  // more is too deep) and holds the same items.
  SfBerComponentEncoder enc;
  enc.InsertChunk(0x30, comp, true);
  try {
    enc.ValidateStructure();
  } catch (const sf::Xber& x) {
    require(x.GetError() == sf::Ber::TOO_DEEP);
    return 0;
  }
  SfBerComponent wrapped = enc.GetSequence(1);
  comp.FirstItem();
  wrapped.FirstItem();
  for (bool more = true; more;) {
    require(comp.GetItemIdentifier() == wrapped.GetItemIdentifier());
    require(comp.GetItemLength() == wrapped.GetItemLength());
    more = comp.NextItem(1) != 0;
    require(more == (wrapped.NextItem(1) != 0));
  }
  return 0;
}
