# The default site's start script. sfhost evaluates it after the library has
# started (config.tcl has run, the log is open) when no script is named on its
# command line. Services that need the HTTP commands are started from here.

sf_log 1 "site [file tail ${sf.rootdir}] started: root ${sf.rootdir}, data ${sf.datdir}"

# --- A small HTTP service --------------------------------------------------
# Listens on 127.0.0.1:8080 (set SF_HTTP_PORT to change it). Every request is
# answered with 200 and its own body: a POST gets back what it sent, a GET (no
# body of its own) gets back its URL, so
#   curl http://127.0.0.1:8080/hello          prints /hello
#   curl --data-binary hi http://127.0.0.1:8080/   prints hi
# The reader puts each request on the queue "http"; two workers echo it.
set site.http.port 8080
if {[info exists env(SF_HTTP_PORT)] && $env(SF_HTTP_PORT) ne ""} {
  set site.http.port $env(SF_HTTP_PORT)
}
# A port that is taken already leaves the site up without the service.
if {[catch {bind 127.0.0.1 ${site.http.port}} problem]} {
  sf_log 1 "HTTP echo service not started: 127.0.0.1:${site.http.port}: $problem"
  set site.serves "no HTTP echo (127.0.0.1:${site.http.port}: $problem)"
} else {
  # Each connection has at most one request waiting, so the queue has room
  # for as many connections as a busy client brings (other queues keep
  # sf.qsize).
  set site.qsize [expr {[info exists sf.qsize] ? ${sf.qsize} : 100}]
  set sf.qsize 1024
  mkQ http
  set sf.qsize ${site.qsize}
  spinThread httpReader 127.0.0.1 ${site.http.port} {enQ http}
  spinThread dummyWorker http sf_echo
  spinThread dummyWorker http sf_echo
  sf_log 1 "HTTP echo service on 127.0.0.1:${site.http.port}"
  set site.serves "HTTP echo on http://127.0.0.1:${site.http.port}/"
}
# One line for whoever started the site: what it serves and where it logs.
puts stderr "${site.serves} - log in [file join ${sf.log.dir} ${sf.log.filename}.log]\
  - Ctrl-C stops"
