# config.tcl of the HTTP proxy example.
#
# Requests to 127.0.0.1:<proxy port> are read by an HTTP reader, queued on
# "proxy" and forwarded by HTTP workers to the backend server; each answer
# goes back to the client as the reply. The ports come from the environment:
#   SF_PROXY_PORT    where the proxy listens        (default 8080)
#   SF_BACKEND_HOST  the backend's address          (default 127.0.0.1)
#   SF_BACKEND_PORT  the backend's port             (default 8081)
#   SF_PROXY_WORKERS forwarding threads             (default 4)
# The HTTP commands exist once start-up is over, so the threads are started
# from start.tcl beside this file.

proc fromEnv {name dflt} {
  global env
  if {[info exists env($name)] && $env($name) ne ""} { return $env($name) }
  return $dflt
}

set proxy.port [fromEnv SF_PROXY_PORT 8080]
set proxy.backend.host [fromEnv SF_BACKEND_HOST 127.0.0.1]
set proxy.backend.port [fromEnv SF_BACKEND_PORT 8081]
set proxy.workers [fromEnv SF_PROXY_WORKERS 4]

set sf.log.dir ${sf.datdir}
set sf.log.filename proxy
set sf.log.level 1
set sf.tcp.backlog 128
# A connection has at most one request waiting: room for many connections.
set sf.qsize 1024
# What the proxy says it is in its replies.
set sf.http.server sf-proxy
set sf.http.contentType text/plain

mkQ proxy
bind 127.0.0.1 ${proxy.port}
