# A raw TCP echo service: every chunk a client sends comes back to it.
#
# The reader of the port (tcpReader) wraps each chunk read from a connection
# in a message and runs its script, which queues the message on "echo". A
# worker thread (dummyWorker) takes the messages off the queue and runs
# sf_echo, which writes the message's bytes back on the connection they came
# from.
#
# ECHO_ADDR and ECHO_PORT in the environment override the address
# (default 127.0.0.1) and port (default 7007).

set sf.log.dir .
set sf.log.filename echo
# 0 keeps only events; 1 also logs every connection, 5 every read.
set sf.log.level 0
set sf.tcp.backlog 128
# Close connections idle for this many seconds (0: never).
set sf.idletimeout 300
if {[info exists env(ECHO_IDLE)]} { set sf.idletimeout $env(ECHO_IDLE) }
set sf.reader.readtimeout 5
set sf.qsize 1000

set echo_addr 127.0.0.1
set echo_port 7007
if {[info exists env(ECHO_ADDR)]} { set echo_addr $env(ECHO_ADDR) }
if {[info exists env(ECHO_PORT)]} { set echo_port $env(ECHO_PORT) }

mkQ echo
bind $echo_addr $echo_port
spinThread tcpReader $echo_addr $echo_port {enQ echo}
spinThread dummyWorker echo sf_echo
