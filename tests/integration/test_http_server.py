"""The HTTP server role end to end: httpReader queues every request for
workers that echo its body (a GET's body is its URL); driven by raw sockets."""

import socket

from sfnet_support import SiteTest, free_port, recv_all

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


def answer(body, status=b"200 OK", lines=b""):
    """The exact reply carrying body; lines go between its length and Server."""
    return (b"HTTP/1.1 %s\r\nContent-Length: %d\r\n%sServer: sf-test\r\n"
            b"Content-Type: Application/Binary\r\n\r\n%s" % (status, len(body), lines, body))


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

    def test_raw_requests_and_their_answers(self):
        get = b"GET %s HTTP/1.1\r\nHost: x\r\n\r\n"
        last = b"GET %s HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"
        close = b"Connection: Close\r\n"
        big = b"z" * 100000
        cases = [  # port, requests, what the server answers until it closes
            # pipelined requests are answered in order
            (self.port, get % b"/1" + b"POST /2 HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\ntwo"
             + last % b"/3", answer(b"/1") + answer(b"two") + answer(b"/3", lines=close)),
            # enQ redefined by the script drops /drop: the reader evaluates it
            # (every port here), so the request gets no answer; the next does
            (self.filterport, get % b"/drop" + last % b"/kept", answer(b"/kept", lines=close)),
            # a queue of capacity 1 holds nothing: it is always full, which is overload
            (self.fullport, get % b"/q",
             answer(b"", b"503 Service Unavailable", close + b"Retry-After: 1\r\n")),
            # a chunked body beyond what the reader reads ahead
            (self.port, b"POST /c HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"
             b"186a0\r\n%s\r\n0\r\n\r\n" % big + last % b"/e",
             answer(big) + answer(b"/e", lines=close)),
            # HTTP/1.0 without keep-alive ends with its answer
            (self.port, b"GET /ten HTTP/1.0\r\n\r\n", answer(b"/ten", lines=close)),
            # HTTP/0.9: the body alone
            (self.port, b"GET /nine\r\n", b"/nine"),
        ]
        for port, requests, answers in cases:
            self.assertEqual(self.raw(requests, port), answers, requests[:60])
