// Event reporting: conditions that must reach the operator, not only the log.
//
// An event has an identifier such as "09_sf_readtimeout_s_s_d" (its leading
// number is the event number, its suffix letters the argument kinds) and an
// argument text in Tcl list form. Every event is written to the log at level
// 0; with sf.log.useevorsyslog set it is also translated through the message
// catalogue (::msgcat::mc) and posted to the system log.
#pragma once

namespace sf {

// Logs "<id> <arguments>" at level 0 with the source position and reports
// the event, with one, two or three arguments braced as the event catalogue
// expects; logandreport_v takes a ready argument text.
void logandreport(const char* id, const char* a, const char* file, int line);
void logandreport2(const char* id, const char* a, const char* b, const char* file, int line);
void logandreport3(const char* id, const char* a, const char* b, const char* c, const char* file,
                   int line);
void logandreport_v(const char* id, const char* text, const char* file, int line);

}  // namespace sf
