# start.tcl of the HTTP proxy example: one reader on the proxy port, whose
# validate script puts every request on the "proxy" queue, and the workers
# that forward the queue to the backend.

spinThread httpReader 127.0.0.1 ${proxy.port} {enQ proxy}
for {set i 0} {$i < ${proxy.workers}} {incr i} {
  spinThread httpWorker proxy ${proxy.backend.host} ${proxy.backend.port} -forward
}
sf_log 1 "http proxy on 127.0.0.1:${proxy.port} -> ${proxy.backend.host}:${proxy.backend.port}"
