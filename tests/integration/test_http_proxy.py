"""The proxy path: curl -> sfhost (httpReader + httpWorker) -> nginx, backend
errors, and the examples/http-proxy site run as its README says."""

import os
import subprocess
import sys
import time
import unittest

from sfnet_support import (ECHO_MODULE, SFHOST, SOURCE, Nginx, SiteTest, clean_env, curl, free_port,
                          remove_shm, stop, wait_port)

CONFIG = """
set sf.log.level 3
set sf.http.contentType text/plain
mkQ proxy
mkQ dead
mkQ short
bind 127.0.0.1 {port}
bind 127.0.0.1 {deadport}
bind 127.0.0.1 {shortport}
"""

START = """
spinThread httpReader 127.0.0.1 {port} {{enQ proxy}}
spinThread httpWorker proxy 127.0.0.1 {backend}
spinThread httpWorker proxy 127.0.0.1 {backend}
spinThread httpReader 127.0.0.1 {deadport} {{enQ dead}}
spinThread httpWorker dead 127.0.0.1 {nobody}
spinThread httpReader 127.0.0.1 {shortport} {{enQ short}}
spinThread httpWorker short 127.0.0.1 {shortbackend}
"""


class HttpProxy(SiteTest):
    @classmethod
    def setUpClass(cls):
        cls.nginx = Nginx()
        cls.addClassCleanup(cls.nginx.close)
        # a backend that drops kept connections soon, and after two requests
        cls.short = Nginx(extra="keepalive_timeout 1s; keepalive_requests 2;")
        cls.addClassCleanup(cls.short.close)
        cls.port, cls.deadport, cls.shortport = free_port(), free_port(), free_port()
        fmt = dict(port=cls.port, deadport=cls.deadport, backend=cls.nginx.port,
                   nobody=free_port(), shortport=cls.shortport, shortbackend=cls.short.port)
        cls.site = cls.class_site(CONFIG.format(**fmt), START.format(**fmt), ports=(cls.port, cls.deadport, cls.shortport))

    def test_forwards_method_url_and_body(self):
        base = "http://127.0.0.1:%d" % self.port
        self.assertEqual(curl(base + "/static/page.txt"), (200, b"static page\n"))
        if os.path.exists(ECHO_MODULE):
            self.assertEqual(curl("--data-binary", "to the backend", base + "/echo"),
                             (200, b"to the backend"))
            big = "q" * 30000
            self.assertEqual(curl("-H", "Transfer-Encoding: chunked", "--data-binary", big,
                                  base + "/echo"), (200, big.encode()))
        # a chunked backend answer is relayed whole, with a length
        self.assertEqual(curl(base + "/chunked"), (200, b"this body goes out chunked\n" * 40))

    def test_backend_connection_is_kept_and_replaced(self):
        base = "http://127.0.0.1:%d" % self.shortport
        for _ in range(5):  # the backend closes after every second request
            self.assertEqual(curl(base + "/hello"), (200, b"hello from nginx\n"))
        time.sleep(1.5)  # and drops the kept connection while idle
        self.assertEqual(curl(base + "/hello"), (200, b"hello from nginx\n"))
        log = self.site.text()  # each backend connection served two requests
        connects = log.count("] to 127.0.0.1+%d" % self.short.port)
        self.assertTrue(3 <= connects <= 4, log[-3000:])

    def test_backend_errors_become_the_default_rejection(self):
        # nginx says 404 (only 200 is relayed); nobody listens behind deadport
        self.assertEqual(curl("http://127.0.0.1:%d/nothing-here" % self.port)[0], 500)
        self.assertEqual(curl("http://127.0.0.1:%d/hello" % self.deadport)[0], 500)
        self.assertEqual(curl("http://127.0.0.1:%d/hello" % self.port)[0], 200)


class ProxyExample(unittest.TestCase):
    def test_example_site_as_documented(self):
        nginx = Nginx()
        self.addCleanup(nginx.close)
        port, data = free_port(), os.path.join(nginx.dir, "proxydata")
        os.makedirs(data)
        self.addCleanup(remove_shm, data)
        env = clean_env(SF_PROXY_PORT=str(port), SF_BACKEND_PORT=str(nginx.port),
                        SF_PROXY_WORKERS="2", TAVODATDIR=data)
        site = subprocess.Popen([SFHOST, "-rootdir", os.path.join(SOURCE, "examples", "http-proxy"),
                                 "-datdir", data], cwd=data, env=env,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(stop, site)
        wait_port(port, site)
        self.assertEqual(curl("http://127.0.0.1:%d/hello" % port), (200, b"hello from nginx\n"))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
