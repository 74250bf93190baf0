"""Hand-over of a listening port between two real sfhost processes: the
parent binds and starts the child with the socket and a pipe inherited; the
child takes the port with `bind`, serves and reports start-up OK; the parent
closes its copy. Clients keep connecting throughout; none is refused."""

import os
import signal
import threading
import time

from sfnet_support import SFHOST, SiteTest, connect, poll, recv_exactly

CHILD_CONFIG = """
set sf.log.level 0
sf_receiveEnv
sf_log 0 "child got greeting $sf_env(greeting)"
mkQ echo
bind 127.0.0.1 @PORT@
spinThread tcpReader 127.0.0.1 @PORT@ {enQ echo}
spinThread dummyWorker echo sf_echo
sf_startupOk
"""

PARENT_CONFIG = """
set sf.log.level 0
set sf.tcp.backlog 512
array set sf_env {greeting hello-child mode handover}
bind 127.0.0.1 @PORT@
"""

PARENT_START = """
set pid [sf_handover {sfhost} -rootdir {childroot} -datdir {childroot} -l -d 2]
sf_log 0 "parent handed over to $pid"
"""


class HandoverTest(SiteTest):
    def test_port_moves_to_child_without_refusing_anyone(self):
        child = self.site(CHILD_CONFIG, level=None)
        parent = self.site(PARENT_CONFIG, PARENT_START.format(sfhost=SFHOST, childroot=child.root),
                           level=None, port=child.port)
        port, failures, served = parent.port, [], []
        stop = threading.Event()

        def hammer(n):
            i = 0
            while not stop.is_set():
                msg = b"c%d-%d" % (n, i)
                i += 1
                try:
                    with connect(port, timeout=60) as c:
                        c.sendall(msg)
                        got = recv_exactly(c, len(msg))
                    (served if got == msg else failures).append(got)
                except OSError as e:
                    failures.append(repr(e))

        parent.start(level=4)
        parent.wait_listening()  # it binds before it hands over
        threads = [threading.Thread(target=hammer, args=(n,)) for n in range(4)]
        for t in threads:
            t.start()
        parent.wait_log("closing unused share port")
        time.sleep(0.5)  # keep the clients going after the parent let go
        stop.set()
        for t in threads:
            t.join(120)
        self.assertEqual(failures, [])
        self.assertTrue(served)

        # The child took the socket the parent bound and serves on its own.
        child_pid = int(parent.text().split("parent handed over to ")[1].split()[0])
        self.assertEqual(parent.stop(), 0)
        with connect(port) as c:
            c.sendall(b"after the parent left")
            self.assertEqual(recv_exactly(c, 21), b"after the parent left")
        self.assertIn("child got greeting hello-child", parent.text())
        # The child now belongs to init, which reaps it once SIGTERM stops it.
        os.kill(child_pid, signal.SIGTERM)
        self.addCleanup(lambda: os.path.exists("/proc/%d" % child_pid) and
                        os.kill(child_pid, signal.SIGKILL))
        poll(lambda: not os.path.exists("/proc/%d" % child_pid), 30,
             lambda: "child did not stop on SIGTERM")
