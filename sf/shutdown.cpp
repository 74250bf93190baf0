// Process-wide shutdown.
#include <atomic>

#include "sf/runtime.h"

namespace sf {

namespace {
std::atomic<bool> g_shuttingDown{false};
}  // namespace

bool sfi_shuttingDown() { return g_shuttingDown.load(); }

void shutdown() { g_shuttingDown.store(true); }

}  // namespace sf
