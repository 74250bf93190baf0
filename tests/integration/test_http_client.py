"""HttpAdaptor's client role against nginx (CONNECT through squid is in
test_http_auth)."""

import os
import sys
import unittest

from sfnet_support import ECHO_MODULE, Nginx, http_client as client


class ClientAgainstNginx(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.nginx = Nginx()

    @classmethod
    def tearDownClass(cls):
        cls.nginx.close()

    def call(self, *args):
        """sf_httpclient OPTIONS... URL against nginx."""
        rc, answers, raw = client(*args[:-1], "127.0.0.1", self.nginx.port, args[-1])
        self.assertEqual(rc, 0, raw)
        return answers

    def test_get_keepalive_and_status(self):
        self.assertEqual(self.call("/hello"), [(200, b"hello from nginx\n")])
        # -n: requests on one connection
        self.assertEqual(self.call("-n", 3, "/static/page.txt"), [(200, b"static page\n")] * 3)
        self.assertEqual(self.call("/teapot"), [(418, b"short and stout\n")])
        status, body = self.call("/nothing-here")[0]
        self.assertEqual(status, 404)
        self.assertIn(b"404 Not Found", body)
        # HEAD: headers only, and the connection stays usable
        self.assertEqual(self.call("-m", "HEAD", "-n", 2, "/hello"), [(200, b"")] * 2)
        self.assertEqual(self.call("-n", 2, "/chunked"),
                         [(200, b"this body goes out chunked\n" * 40)] * 2)

    @unittest.skipUnless(os.path.exists(ECHO_MODULE), "nginx echo module not installed")
    def test_post_with_length_and_chunked(self):
        data = "payload-" * 300
        self.assertEqual(self.call("-m", "POST", "-d", data, "/echo"), [(200, data.encode())])
        self.assertEqual(self.call("-m", "CHUNKED", "-d", data, "-n", 2, "/echo"),
                         [(200, data.encode())] * 2)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
