// Event reporting inside the library: one call for the level-0 line and the
// report, and the report alone (for paths that log otherwise, or must not).
// Internal to the library; hosts use sf/base/events.h.
#pragma once

#include "sf/base/events.h"

namespace sf {

// Logs "<id> <arguments>" at level 0 with the source position and reports the
// event. Up to three arguments; each one given (not null) is braced: the
// first as "{ a } ", the next ones as " { b }" (hosts parse this spacing).
// With none the argument text is empty. The library's own code calls this
// through SF_EVENT; hosts call logandreport.
void sfi_logAndReport(const char* file, int line, const char* id, const char* a = nullptr,
                      const char* b = nullptr, const char* c = nullptr);

// Reports id with a ready argument text, without the level-0 log line. A
// report asked for while another is in progress is dropped.
void sfi_reportEvent(const char* id, const char* argText);
// Reports id with one argument, braced as "{ " arg " }".
void sfi_reportEventArg(const char* id, const char* arg);

}  // namespace sf

// Reports event id with up to three arguments from here: SF_EVENT(id, args...).
#define SF_EVENT(...) ::sf::sfi_logAndReport(__FILE__, __LINE__, __VA_ARGS__)
