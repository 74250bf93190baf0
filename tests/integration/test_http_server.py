"""The HTTP server role end to end: httpReader queues every request for
workers that echo its body (a GET's body is its URL); driven by curl and
raw sockets."""

import os
import socket
import unittest

from sfnet_support import Nginx, SiteTest, curl, free_port, recv_all

CONFIG = """
set sf.log.level 3
set sf.tcp.backlog 128
set sf.http.server sf-test
set sf.http.body.maxlength 300000
mkQ http
set sf.qsize 1
mkQ stuck
bind 127.0.0.1 {port}
bind 127.0.0.1 {filterport}
bind 127.0.0.1 {fullport}
"""

START = """
spinThread httpReader 127.0.0.1 {port} {{enQ http}}
spinThread dummyWorker http sf_echo
spinThread dummyWorker http sf_echo
rename enQ sf_enQ
proc enQ {{q}} {{ if {{[httpHeader HttpRequestURL] ne "/drop"}} {{ sf_enQ $q }} }}
spinThread httpReader 127.0.0.1 {filterport} {{enQ http}}
spinThread httpReader 127.0.0.1 {fullport} {{enQ stuck}}
"""


def split_responses(data):
    """[(status line, body)] from a stream of Content-Length framed responses."""
    out = []
    while data:
        head, _, rest = data.partition(b"\r\n\r\n")
        lines = head.split(b"\r\n")
        n = next((int(v) for k, _, v in (l.partition(b":") for l in lines[1:])
                  if k.lower() == b"content-length"), 0)
        out.append((lines[0], rest[:n]))
        data = rest[n:]
    return out


class HttpServer(SiteTest):
    @classmethod
    def setUpClass(cls):
        ports = cls.port, cls.filterport, cls.fullport = free_port(), free_port(), free_port()
        fmt = dict(port=cls.port, filterport=cls.filterport, fullport=cls.fullport)
        cls.class_site(CONFIG.format(**fmt), START.format(**fmt), ports=ports)

    def raw(self, data, port=None):
        """What the server answers to data until it closes the connection."""
        with socket.create_connection(("127.0.0.1", port or self.port)) as s:
            s.sendall(data)
            return recv_all(s, 10)

    def test_chunked_body_beyond_what_the_reader_reads_ahead(self):
        big = "z" * 100000
        self.assertEqual(curl("-H", "Transfer-Encoding: chunked", "--data-binary", big,
                              "http://127.0.0.1:%d/c" % self.port), (200, big.encode()))

    def test_raw_requests_and_their_answers(self):
        get = b"GET %s HTTP/1.1\r\nHost: x\r\n\r\n"
        last = b"GET %s HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"
        ok = b"HTTP/1.1 200 OK"
        cases = [  # port, requests, [(status line, body)] of the answers until the close
            # pipelined requests are answered in order
            (self.port, get % b"/1" + b"POST /2 HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\ntwo"
             + last % b"/3", [(ok, b"/1"), (ok, b"two"), (ok, b"/3")]),
            # enQ redefined by the script drops /drop: the reader evaluates it
            # (every port here), so the request gets no answer; the next does
            (self.filterport, get % b"/drop" + last % b"/kept", [(ok, b"/kept")]),
            # a queue of capacity 1 holds nothing: it is always full, which is overload
            (self.fullport, get % b"/q", [(b"HTTP/1.1 503 Service Unavailable", b"")]),
            # HTTP/1.0 without keep-alive ends with its answer
            (self.port, b"GET /ten HTTP/1.0\r\n\r\n", [(ok, b"/ten")]),
        ]
        for port, requests, answers in cases:
            self.assertEqual(split_responses(self.raw(requests, port)), answers, requests)
        self.assertIn(b"\r\nServer: sf-test\r\n", self.raw(last % b"/s"))  # the configured name
        self.assertEqual(self.raw(b"GET /nine\r\n"), b"/nine")  # HTTP/0.9: the body alone


class NginxAsReference(unittest.TestCase):
    """The parser's table of requests and their statuses, against nginx: a
    request that nginx refuses is never served by sf."""

    def test_nothing_nginx_refuses_is_served(self):
        nginx = Nginx('location / { return 200 "ok"; }')
        self.addCleanup(nginx.close)
        table = os.path.join(os.path.dirname(__file__), "..", "data", "http", "requests.txt")
        for line in open(table, encoding="latin-1"):
            if not line.strip() or line.startswith("#"):
                continue
            status, _, text = line.rstrip("\n").partition(" ")
            request = text.encode("latin-1").decode("unicode_escape").encode("latin-1")
            with socket.create_connection(("127.0.0.1", nginx.port)) as s:
                s.sendall(request)
                s.shutdown(socket.SHUT_WR)
                served = recv_all(s, 10).startswith((b"HTTP/1.1 2", b"HTTP/1.0 2"))
            self.assertTrue(served or status != "200", text)
