# config.tcl: the default site configuration of the sf library.
#
# The library evaluates <root>/etc/config.tcl once at start-up, before it opens
# its log. Every setting is a global Tcl variable whose name begins with
# "sf." (the dots are part of the name, not namespaces). Each key below is
# set to the library's own default unless noted, so this file is also the
# reference of what can be configured; edit values here or override them in
# a script of your own. "Read once" keys are fixed at their first use; the
# others are read each time they are used and may be changed while running.
#
# Set by the library before this file runs, for scripts to use:
#   sf.rootdir  the root directory (-rootdir, SFROOTDIR, or bin/.. of the host)
#   sf.datdir   the data directory (-datdir, SFDATDIR, or the current directory)

# --- Event catalogue -------------------------------------------------------
# Events (failed binds, script errors, watchdog, log file trouble) are logged
# at level 0 and, with sf.log.useevorsyslog set, posted to the system log with
# the text from this catalogue.
package require msgcat
source [file join ${sf.rootdir} etc sf_events.msg]

# --- Log -------------------------------------------------------------------
# Read when the log starts, right after this file.

# Directory of the log files. The library's default is "." (the current
# directory); this site logs into its data directory instead.
set sf.log.dir ${sf.datdir}
# File name stem: <dir>/<stem>.log, rotated to <stem>-0.log (newest) ...
set sf.log.filename sf
# Size in KiB at which the log file is rotated.
set sf.log.filemax 1024
# Number of rotated files kept (<stem>-0.log ... <stem>-<n-1>.log).
set sf.log.numfiles 5
# Tcl format template of a log line; empty: the built-in layout
#   "<time> [<pid>.<tid>/<level>]; <secs>.000000 (<code>) <message> @ <file>:<line>"
# The template receives, in order: timestamp, process id, thread id, level,
# seconds, microseconds, code, message, source file, source line. It must end
# the line itself, e.g. "%2\$s %9\$s\n".
set sf.log.fmt ""
# Level: records of this level and below are written. 0 events, 1 important,
# 2 start-up, 3 errors, 4 timers, 5 readers and queues, 6 evaluations,
# 7 script commands, 8 environment, 9 connection data, 10 traces.
# The -d option wins over SF_DBG, which wins over this key.
set sf.log.level 1

# --- Event reporting -------------------------------------------------------
# 0: events go to the log only; 1: also to the system log (syslog).
set sf.log.useevorsyslog 0
# Name that prefixes each posted event text; empty: none.
set sf.servicename ""
# Read at start-up, right after this file:
# syslog priority (4 is LOG_WARNING).
set sf.syslog.prio 4
# 1: write to the system console when the system log cannot be reached.
set sf.syslog.console 0
# syslog facility code (152 is LOG_LOCAL3).
set sf.syslog.facility 152
# Program name shown with each posted event.
set sf.syslog.ident qdlsf

# --- Watchdog --------------------------------------------------------------
# Seconds a worker may spend on one message before the process is ended with
# a dump; below 1 disables the watchdog. Read at start-up and at each arming.
set sf.watchdog 300

# --- Buffers and queues ----------------------------------------------------
# Largest buffer in bytes (read once); larger requests are refused.
set sf.maxbuf 8388608
# Slots of each queue made by mkQ (it holds one message less). Read at each
# queue creation.
set sf.qsize 100

# --- Connections and ports -------------------------------------------------
# Seconds after which the reaper closes an idle connection; 0: never.
# Read once, by the reaper.
set sf.idletimeout 0
# Most client connections a reader keeps open; 0: no limit. At the limit a
# new client waits in the listen queue and an ALARM line is logged every
# sf.connWaitingAlarmSeconds seconds. Both read once, by the first reader.
set sf.maxConnections 0
set sf.connWaitingAlarmSeconds 120
# Read time-out in seconds set on accepted connections.
set sf.reader.readtimeout 5
# Read time-out in seconds. Unset, it is 60 for connections the library
# makes (read once) and 0 (none) for the receive time-out of listening
# sockets (read at each bind); setting it sets both.
# set sf.readtimeout 60
# Socket send buffer size in bytes for bound ports; -1 keeps the system's.
set sf.socksndbufsize -1
# Listen queue length, read at each bind. The library's default is 5; a busy
# server needs more.
set sf.tcp.backlog 128
# SO_LINGER seconds of listening sockets; 0 or less leaves it alone.
set sf.tcp.linger 0

# --- HTTP ------------------------------------------------------------------
# Read when an HTTP adaptor is set up.
# A generic size limit in bytes, read first: when set, it becomes the
# default of both the header and the body limit below (the key name holds a
# literal "*"). Unset, the header limit defaults to 1024 and the body limit
# to 65535; the BER codec also uses it (default 65535).
# set proxy.*.maxlength 65535
# Largest request or response header block, in bytes.
set sf.http.header.maxlength 1024
# Largest body, in bytes.
set sf.http.body.maxlength 65535
# Request URL of client requests made by the library.
set sf.http.requestURL Quindel-Tunnel
# Content-Type of bodies the library sends.
set sf.http.contentType Application/Binary
# Status of replies; its reason phrase defaults to the standard one
# ("OK" for 200) unless sf.http.statusReason is set.
set sf.http.statusResult 200
# set sf.http.statusReason OK
# User-Agent of client requests and Server of replies.
set sf.http.useragent Quindel
set sf.http.server Quindel
# Credentials for 401/407 challenges, arrays indexed by "<scope><realm>",
# "<realm>", "<scope>.*" or "*" (first non-empty wins). None by default.
# set sf.http.authname(*) user
# set sf.http.authpasswd(*) secret

# --- BER -------------------------------------------------------------------
# Read once. Deepest nesting accepted, and the log levels of decoding errors
# and of decoding detail.
set sf.ber.maxdepth 1024
set sf.ber.logerrorlevel 4
set sf.ber.loginfolevel 8

# --- Tcl -------------------------------------------------------------------
# tcl_library: Tcl's own scripts. Left alone when TCL_LIBRARY is set; else
# <root>/etc/tcl8.6 when that directory exists; else Tcl's built-in path.
