"""The TCP echo service (tcpReader + queue + dummyWorker sf_echo) under
sfhost with real sockets: the connection limit, the idle time-out, hostile
peers and many connections at once."""

import resource
import socket
import threading

from sfnet_support import SiteTest, connect, echo_config, echoes, recv_exactly


class EchoTest(SiteTest):
    def test_connection_limit_keeps_a_client_waiting(self):
        s = self.site(echo_config("set sf.maxConnections 2\nset sf.connWaitingAlarmSeconds 1"),
                      level=1)
        a, b = connect(s.port), connect(s.port)
        self.assertTrue(echoes(a, b"x") and echoes(b, b"x"))
        waiting = connect(s.port)  # completes in the listen backlog
        waiting.sendall(b"third")
        waiting.settimeout(2.5)
        with self.assertRaises(socket.timeout):
            waiting.recv(10)
        s.wait_log("ALARM: Maximum 2 client connections are reached. "
                   "New client connection is waiting for 1 seconds.")
        a.close()
        waiting.settimeout(30)
        self.assertEqual(recv_exactly(waiting, 5), b"third")
        b.close()
        waiting.close()

    def test_idle_client_is_closed(self):
        s = self.site(echo_config(bindextra="-idletimeout 1"), level=1)
        with connect(s.port) as idle, connect(s.port) as busy:
            self.assertTrue(echoes(busy, b"ok"))
            self.assertEqual(idle.recv(10), b"")  # the server closed it
        s.wait_log("10_sf_idletimeout_s_s")

    def test_hostile_peers_leave_others_served(self):
        s = self.site(echo_config("set sf.maxbuf 1048576\nset sf.reader.readtimeout 2"))
        half = connect(s.port)
        half.sendall(b"half")
        half.shutdown(socket.SHUT_WR)  # half-close: the server ends the connection

        def flood():  # 100 MB sent as fast as possible, never reading
            try:
                with connect(s.port, timeout=60) as f:
                    for _ in range(1600):
                        f.sendall(b"z" * 65536)
            except OSError:
                pass  # the server gave up on it

        flooder = threading.Thread(target=flood)
        flooder.start()
        with connect(s.port) as good:
            for i in range(20):
                self.assertTrue(echoes(good, b"still served %d" % i))
        flooder.join(120)
        self.assertFalse(flooder.is_alive())
        half.settimeout(30)
        # The echo may or may not come before the close.
        self.assertIn(recv_exactly(half, 100), (b"", b"half"))
        with open("/proc/%d/status" % s.proc.pid) as f:  # memory stayed bounded
            rss_kb = int([l for l in f if l.startswith("VmHWM")][0].split()[1])
        self.assertLess(rss_kb, 200 * 1024)
        with connect(s.port) as after:
            self.assertTrue(echoes(after, b"after"))
        half.close()
        self.assertEqual(s.stop(), 0)

    def test_two_thousand_simultaneous_connections(self):
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        want = min(hard, 8192)
        resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, want), hard))
        if want < 4200:
            self.skipTest("descriptor limit %d too low for 2000 connections" % hard)
        s = self.site(echo_config("set sf.tcp.backlog 4096"))
        socks = [connect(s.port, timeout=60) for _ in range(2000)]
        # Every one is served, the newest (descriptor > 1024) too.
        for i, c in enumerate(socks):
            c.sendall(b"%d;" % i)
        for i, c in enumerate(socks):
            self.assertEqual(recv_exactly(c, len(b"%d;" % i)), b"%d;" % i)
        for c in socks:
            c.close()
        self.assertEqual(s.stop(), 0)
