"""The proxy path: a client -> sfhost (httpReader + httpWorker) -> nginx or a
backend that misbehaves on purpose, backend errors, and the examples/http-proxy
site run as its README says."""

import os
import socket
import subprocess
import time

from sfnet_support import (SFHOST, SOURCE, Backend, Nginx, SiteTest, clean_env, curl, free_port,
                          recv_all, remove_shm, stop, wait_port)

CONFIG = """
set sf.log.level 3
set sf.http.contentType text/plain
mkQ dead
mkQ short
mkQ odd
mkQ tunnel
set sf.http.requestURL /tunnel-in
bind 127.0.0.1 {oddport}
bind 127.0.0.1 {tunnelport}
bind 127.0.0.1 {deadport}
bind 127.0.0.1 {shortport}
"""

START = """
spinThread httpReader 127.0.0.1 {deadport} {{enQ dead}}
spinThread httpWorker dead 127.0.0.1 {nobody} -forward
spinThread httpReader 127.0.0.1 {shortport} {{enQ short}}
spinThread httpWorker short 127.0.0.1 {shortbackend} -forward
spinThread httpReader 127.0.0.1 {oddport} {{enQ odd}}
spinThread httpWorker odd 127.0.0.1 {oddbackend} -forward
spinThread httpReader 127.0.0.1 {tunnelport} {{enQ tunnel}}
spinThread httpWorker tunnel 127.0.0.1 {oddbackend}
"""

# What the odd backend sends for each path; the default answer names the
# request it saw, head and body, so a test can tell whose answer it is.
ODD_ANSWERS = {
    "/two": b"HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\none"
            b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nstray",
    "/badlength": b"HTTP/1.1 200 OK\r\nContent-Length: 3x\r\n\r\nabc",
    "/missing": b"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n",
    "/chunked": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                + b"1b\r\nthis body goes out chunked\n\r\n" * 40 + b"0\r\n\r\n",
}


def odd_answer(path, fields, request):
    if path == "/silent":
        time.sleep(60)  # then closes: the client has long gone
    return ODD_ANSWERS.get(path, b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s"
                           % (len(request), request))


def raw(port, request):
    """Sends request on its own connection; the status, head and body of the
    answer (read until the server closes)."""
    with socket.create_connection(("127.0.0.1", port), timeout=20) as s:
        s.sendall(request)
        data = recv_all(s, timeout=20)
    head, _, body = data.partition(b"\r\n\r\n")
    return int(head.split()[1]) if head else 0, head, body


def req(method, path, *fields, body=b""):
    head = "%s %s HTTP/1.1\r\nHost: h\r\nConnection: close\r\n" % (method, path)
    if body:
        head += "Content-Length: %d\r\n" % len(body)
    return (head + "".join(f + "\r\n" for f in fields) + "\r\n").encode() + body


class HttpProxy(SiteTest):
    @classmethod
    def setUpClass(cls):
        # a backend that drops kept connections soon, and after two requests
        cls.short = Nginx(extra="keepalive_timeout 1s; keepalive_requests 2;")
        cls.addClassCleanup(cls.short.close)
        cls.odd = Backend(odd_answer)
        cls.addClassCleanup(cls.odd.shutdown)
        cls.deadport, cls.shortport = free_port(), free_port()
        cls.oddport, cls.tunnelport = free_port(), free_port()
        fmt = dict(deadport=cls.deadport, nobody=free_port(), shortport=cls.shortport,
                   shortbackend=cls.short.port, oddport=cls.oddport, tunnelport=cls.tunnelport,
                   oddbackend=cls.odd.port)
        cls.site = cls.class_site(CONFIG.format(**fmt), START.format(**fmt),
                                  ports=(cls.deadport, cls.shortport, cls.oddport, cls.tunnelport))

    def test_forwarding_integrity(self):
        spoof = ("HttpRequestURL: /admin/secret", "HttpRequestMethod: POST", "Keep-Alive: 5",
                 "X-Forwarded-For: 10.9.9.9", "X-Keep: yes", "Connection: x-HOP", "X-Hop: 1")
        get_len = len(raw(self.oddport, req("GET", "/len", *spoof))[2])
        odd, tunnel = self.oddport, self.tunnelport
        cases = [  # port, request, status, what the answer's body holds
            (odd, req("GET", "/public", *spoof), 200,
             [b"GET /public HTTP/1.1\r\n", b"X-Forwarded-For: 10.9.9.9, 127.0.0.1\r\n",
              b"X-Keep: yes\r\n"]),
            (odd, req("POST", "/submit", "Content-Type: text/x", body=b"payload"), 200,
             [b"POST /submit HTTP/1.1\r\n", b"Content-Type: text/x\r\n", b"\r\n\r\npayload"]),
            # a chunked answer is relayed whole, with a length
            (odd, req("GET", "/chunked"), 200, [b"this body goes out chunked\n" * 40]),
            (odd, req("GET", "/two"), 502, []),
            (odd, req("GET", "/badlength"), 502, []),
            # backend errors are the default rejection: a 404, nobody behind deadport
            (odd, req("GET", "/missing"), 500, []),
            (self.deadport, req("GET", "/hello"), 500, []),
            (tunnel, req("POST", "/ignored", body=b"data!"), 200,
             [b"POST /tunnel-in HTTP/1.1\r\n", b"Content-Type: text/plain\r\n",
              b"\r\n\r\ndata!"]),
            (tunnel, req("GET", "/asked"), 200, [b"POST /tunnel-in HTTP/1.1\r\n", b"\r\n\r\n/asked"]),
        ]
        for i, (port, request, status, holds) in enumerate(cases):
            with self.subTest(request=request[:40]):
                got, _, body = raw(port, request)
                self.assertEqual(got, status, body)
                for text in holds:
                    self.assertIn(text, body)
                for hop in (b"Keep-Alive: 5", b"X-Hop"):
                    self.assertNotIn(hop, body)
                # the next client on the same worker gets its own answer
                after = raw(odd, req("GET", "/after-%d" % i))[2]
                self.assertTrue(after.startswith(b"GET /after-%d " % i), after)
        # HEAD: the headers a GET would get, and no body
        status, head, body = raw(odd, req("HEAD", "/len", *spoof))
        self.assertEqual((status, body), (200, b""))
        self.assertIn(b"\r\nContent-Length: %d\r\n" % get_len, head)
        # a silent backend holds up no other exchange of the worker, and a
        # client that leaves meanwhile ends its own exchange long before the
        # backend's read time-out (60 s)
        with socket.create_connection(("127.0.0.1", odd)) as gone:
            gone.sendall(req("GET", "/silent"))
            self.assertTrue(raw(odd, req("GET", "/later"))[2].startswith(b"GET /later "))
        self.site.wait_log("client went away before 127.0.0.1+%d answered" % self.odd.port)

    def test_backend_connection_is_kept_and_replaced(self):
        base = "http://127.0.0.1:%d" % self.shortport
        for _ in range(5):  # the backend closes after every second request
            self.assertEqual(curl(base + "/hello"), (200, b"hello from nginx\n"))
        time.sleep(1.5)  # and drops the kept connection while idle
        self.assertEqual(curl(base + "/hello"), (200, b"hello from nginx\n"))
        log = self.site.text()  # each backend connection served two requests
        connects = log.count("] to 127.0.0.1+%d" % self.short.port)
        self.assertTrue(3 <= connects <= 4, log[-3000:])

    def test_example_site_as_documented(self):
        port, data = free_port(), self.site.path("proxydata")
        os.makedirs(data)
        self.addCleanup(remove_shm, data)
        env = clean_env(SF_PROXY_PORT=str(port), SF_BACKEND_PORT=str(self.short.port),
                        SF_PROXY_WORKERS="2", TAVODATDIR=data)
        site = subprocess.Popen([SFHOST, "-rootdir", os.path.join(SOURCE, "examples", "http-proxy"),
                                 "-datdir", data], cwd=data, env=env,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(stop, site)
        wait_port(port, site)
        self.assertEqual(curl("http://127.0.0.1:%d/hello" % port), (200, b"hello from nginx\n"))

