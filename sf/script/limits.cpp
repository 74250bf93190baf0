// The configured limits of Buffer and the BER codec, handed over as values.
#include "sf/script/limits.h"

#include <mutex>

#include "sf/base/buffer.h"
#include "sf/ber/sfbercomponent.h"
#include "sf/script/interp.h"

namespace sf {

namespace {

// The BER keys' values so far; changed only under the Tcl lock (by the
// traces and by sfi_handLimits, which take it).
sfber::BerOptions g_ber;

template <int sfber::BerOptions::*field>
void setBer(int value) {
  g_ber.*field = value;
  sfber::SfBerComponent::SetProcessOptions(g_ber);
}

}  // namespace

void sfi_handLimits() {
  static std::once_flag once;
  std::call_once(once, [] {
    const sfber::BerOptions defaults;
    sfi_traceVarInt("sf.maxbuf", kDefaultBufferCeiling, setBufferCeiling);
    sfi_traceVarInt("proxy.*.maxlength", defaults.maxLength, setBer<&sfber::BerOptions::maxLength>);
    sfi_traceVarInt("sf.ber.maxdepth", defaults.maxDepth, setBer<&sfber::BerOptions::maxDepth>);
    sfi_traceVarInt("sf.ber.logerrorlevel", defaults.logErrorLevel,
                    setBer<&sfber::BerOptions::logErrorLevel>);
    sfi_traceVarInt("sf.ber.loginfolevel", defaults.logInfoLevel,
                    setBer<&sfber::BerOptions::logInfoLevel>);
  });
}

}  // namespace sf
