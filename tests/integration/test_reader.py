"""The reader under sfhost with real sockets, where clients push it to its
limits: an unfinished HTTP header block, more clients than descriptors, and a
stop while requests are still being answered."""

import http.client
import os
import resource
import socket

from sfnet_support import BUILD, SiteTest, connect, echo_config, recv_all, recv_exactly

HTTP_CONFIG = """
set sf.log.level 1
set sf.tcp.backlog 512
set sf.reader.threads 3
set sf.reader.readtimeout 1
mkQ http
bind 127.0.0.1 @PORT@
"""

# One worker that takes its time: requests queue up behind it.
HTTP_START = """
spinThread httpReader 127.0.0.1 @PORT@ {enQ http}
spinThread dummyWorker http {after 100; sf_echo}
"""


def read_body(s):
    """The body of one response."""
    response = http.client.HTTPResponse(s)
    response.begin()
    return response.read()


class ReaderLimits(SiteTest):
    def test_unfinished_header_block_gets_408_and_stop_answers_requests_in_flight(self):
        s = self.site(HTTP_CONFIG, HTTP_START, level=1)
        with connect(s.port) as slow:
            slow.sendall(b"GET /never HTTP/1.1\r\nHost: x\r\n")
            data = recv_all(slow)
        self.assertTrue(data.startswith(b"HTTP/1.1 408 "), data)
        self.assertIn(b"\r\nConnection: Close\r\n", data)
        clients = [connect(s.port) for _ in range(21)]
        req = b"GET /%d HTTP/1.1\r\nHost: x\r\n\r\n"
        for i, c in enumerate(clients):  # accepted and served once
            c.sendall(req % i)
        for i, c in enumerate(clients):
            self.assertTrue(read_body(c).endswith(b"/%d" % i))
        idle = clients.pop()
        # Twenty more requests, two seconds of work for the one worker: most
        # are still queued or unread when the stop comes.
        for i, c in enumerate(clients):
            c.sendall(req % (100 + i))
        self.assertEqual(s.stop(), 0)
        for i, c in enumerate(clients):
            data = recv_all(c)
            self.assertTrue(data.startswith(b"HTTP/1.1 200 ") and data.endswith(b"/%d" % (100 + i)),
                            data)
            c.close()
        self.assertIn(b"\r\nConnection: Close\r\n", data)  # the last, answered while stopping
        self.assertEqual(recv_all(idle), b"")  # an idle client is closed, not left open
        idle.close()

    def test_service_recovers_after_running_out_of_descriptors(self):
        # A sanitizer checks memory through descriptors of its own, which a process out of
        # descriptors does not have: it would report errors that are not there.
        with open(os.path.join(BUILD, "CMakeCache.txt")) as f:
            if any(l.startswith("SF_SANITIZE:") and l.strip().partition("=")[2] for l in f):
                self.skipTest("sanitizers need descriptors of their own")
        s = self.site(echo_config("set sf.reader.threads 2"), level=1)
        _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.prlimit(s.proc.pid, resource.RLIMIT_NOFILE, (64, hard))
        crowd = [connect(s.port) for _ in range(100)]  # more than the server can hold
        for i, c in enumerate(crowd):
            c.sendall(b"%d;" % i)
        s.wait_log("reader: cannot accept new clients")
        # The first ones are served; once they leave, the others are too.
        answered = 0
        for i, c in enumerate(crowd):
            c.settimeout(0.5 if answered else 30)
            try:
                got = recv_exactly(c, len(b"%d;" % i))
            except socket.timeout:
                break
            self.assertEqual(got, b"%d;" % i)
            answered += 1
        self.assertGreater(answered, 0)
        self.assertLess(answered, len(crowd))
        for c in crowd[:answered]:
            c.close()
        for i, c in enumerate(crowd[answered:], answered):
            c.settimeout(60)
            self.assertEqual(recv_exactly(c, len(b"%d;" % i)), b"%d;" % i)
            c.close()
