"""The HTTP server role end to end: httpReader queues every request for
workers that echo its body (a GET's body is its URL); driven by curl and
raw sockets."""

import socket
import subprocess
import sys
import unittest

from sfnet_support import SiteTest, free_port, recv_all

CONFIG = """
set sf.log.level 3
set sf.tcp.backlog 128
set sf.http.server sf-test
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

    def raw(self, data, timeout=10):
        with socket.create_connection(("127.0.0.1", self.port)) as s:
            s.sendall(data)
            return recv_all(s, timeout)

    def curl(self, *args):
        out = subprocess.run(["curl", "-sS", "--max-time", "20", *args], capture_output=True,
                             timeout=30)
        self.assertEqual(out.returncode, 0, out.stderr)
        return out.stdout

    def test_curl_get_post_chunked_head(self):
        url = "http://127.0.0.1:%d" % self.port
        self.assertEqual(self.curl(url + "/hello?x=1"), b"/hello?x=1")
        self.assertEqual(self.curl("--data-binary", "posted body", url + "/p"), b"posted body")
        big = "z" * 20000
        self.assertEqual(self.curl("-H", "Transfer-Encoding: chunked", "--data-binary", big,
                                   url + "/c"), big.encode())
        # keep-alive across requests: curl reuses one connection for both URLs
        out = subprocess.run(["curl", "-s", "-v", url + "/one", url + "/two"],
                             capture_output=True, timeout=30)
        self.assertEqual(out.stdout, b"/one/two")
        self.assertIn(b"Re-using existing connection", out.stderr)

    def test_pipelined_requests(self):
        reqs = (b"GET /1 HTTP/1.1\r\nHost: x\r\n\r\n"
                b"POST /2 HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\ntwo"
                b"GET /3 HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
        answers = split_responses(self.raw(reqs))
        self.assertEqual(answers, [(b"HTTP/1.1 200 OK", b) for b in (b"/1", b"two", b"/3")])

    def test_validate_script_decides(self):
        # enQ redefined by the script drops /drop: the reader evaluates it
        # (every port here), so the request gets no answer; the next does
        with socket.create_connection(("127.0.0.1", self.filterport)) as s:
            s.sendall(b"GET /drop HTTP/1.1\r\nHost: x\r\n\r\n"
                      b"GET /kept HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
            answers = split_responses(recv_all(s))
        self.assertEqual([a[1] for a in answers], [b"/kept"])

    def test_full_queue_is_overload(self):
        # A queue of capacity 1 holds nothing: it is always full.
        with socket.create_connection(("127.0.0.1", self.fullport)) as s:
            s.sendall(b"GET /q HTTP/1.1\r\nHost: x\r\n\r\n")
            data = recv_all(s)
        self.assertTrue(data.startswith(b"HTTP/1.1 503 "), data)
        self.assertIn(b"\r\nRetry-After: 1\r\n", data)

    def test_old_versions(self):
        data = self.raw(b"GET /ten HTTP/1.0\r\n\r\n")  # closed after the reply
        self.assertTrue(data.startswith(b"HTTP/1.1 200 OK\r\n") and data.endswith(b"/ten"), data)
        self.assertIn(b"\r\nServer: sf-test\r\n", data)  # the configured name
        self.assertEqual(self.raw(b"GET /nine\r\n"), b"/nine")  # the body alone


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
