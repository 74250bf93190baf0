// The library's own script commands. Each module that owns a command defines
// its procedure; commandtable.cpp registers them all, in their fixed order.
#pragma once

namespace sf {

// Registers every library command with exportProc, in table order. Called by
// initTcl once the interpreter exists.
void sfi_registerCommands();

// Runtime commands (runtimecommands.cpp).
int sfi_cmdDump(int argc, const char** argv);
int sfi_cmdEvent(int argc, const char** argv);
int sfi_cmdLog(int argc, const char** argv);

}  // namespace sf
