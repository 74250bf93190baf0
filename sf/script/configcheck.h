// The start-up check of the configuration keys (internal).
#pragma once

namespace sf {

// Checks every sf.* key the site has set against what the library can run
// with. The first bad one throws Xtcl whose errorCode is "SF CONFIG" and whose
// errorInfo names the key, its value and what is allowed (also logged at
// level 1). Keys left unset are not checked: their defaults are good.
void sfi_checkConfiguration();

}  // namespace sf
