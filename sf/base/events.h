// Event reporting: conditions that must reach the operator, not only the log.
//
// An event has an identifier such as "09_sf_readtimeout_s_s_d" (its leading
// number is the event number, its suffix letters the argument kinds) and an
// argument text in Tcl list form. Every event is written to the log at level
// 0; with sf.log.useevorsyslog set it is also translated through the message
// catalogue (::msgcat::mc) and posted to the system log.
#pragma once

namespace sf {

// Logs "<id> <arguments>" at level 0 with the source position and reports the
// event. Up to three arguments; each one given (not null) is braced: the
// first as "{ a } ", the next ones as " { b }" (hosts parse this spacing).
// With none the argument text is empty. The library's own code calls this
// through SF_EVENT.
void sfi_logAndReport(const char* file, int line, const char* id, const char* a = nullptr,
                      const char* b = nullptr, const char* c = nullptr);

// The host-facing forms of the same report, by argument count; logandreport_v
// takes a ready argument text.
void logandreport(const char* id, const char* a, const char* file, int line);
void logandreport2(const char* id, const char* a, const char* b, const char* file, int line);
void logandreport3(const char* id, const char* a, const char* b, const char* c, const char* file,
                   int line);
void logandreport_v(const char* id, const char* text, const char* file, int line);

// Reports id with a ready argument text, without the level-0 log line. A
// report asked for while another is in progress is dropped.
void sfi_reportEvent(const char* id, const char* argText);
// Reports id with one argument, braced as "{ " arg " }".
void sfi_reportEvent1(const char* id, const char* arg);

}  // namespace sf

// Reports event id with its arguments from here: SF_EVENT(id, args...).
#define SF_EVENT(...) ::sf::sfi_logAndReport(__FILE__, __LINE__, __VA_ARGS__)
