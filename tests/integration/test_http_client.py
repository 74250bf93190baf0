"""HttpAdaptor's client role against nginx, squid (CONNECT), Python's
http.server speaking HTTP/1.0 and a raw HTTP/0.9 answer."""

import http.server
import os
import socket
import sys
import threading
import unittest

from sfnet_support import ECHO_MODULE, Nginx, Squid, free_port, http_client as client

OLD_BODY = b"".join(b"line %02d of a body without length\n" % i for i in range(50))


class OldServer(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.0"

    def do_GET(self):
        self.send_response(200)
        self.send_header("Content-Type", "text/plain")
        self.end_headers()  # no length: the body ends with the connection
        self.wfile.write(OLD_BODY)

    def log_message(self, *args):
        pass


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

    def test_connect_through_squid(self):
        squid = Squid()
        try:
            self.assertEqual(self.call("-p", "127.0.0.1", squid.port, "-n", 2, "/hello"),
                             [(200, b"hello from nginx\n")] * 2)
            # a tunnel to a port where nobody listens is refused by the proxy
            rc, answers, raw = client("-p", "127.0.0.1", squid.port,
                                      "127.0.0.1", free_port(), "/hello")
            self.assertEqual(rc, 1)
            self.assertIn(b"error", raw)
        finally:
            squid.close()


class ClientAgainstOtherServers(unittest.TestCase):
    def test_http10_body_until_close(self):
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), OldServer)
        t = threading.Thread(target=server.serve_forever, daemon=True)
        t.start()
        try:
            rc, answers, raw = client("127.0.0.1", server.server_address[1], "/")
            self.assertEqual((rc, answers), (0, [(200, OLD_BODY)]), raw)
        finally:
            server.shutdown()
            server.server_close()

    def test_http09_answer(self):
        listener = socket.socket()
        listener.bind(("127.0.0.1", 0))
        listener.listen(1)

        def serve():
            conn, _ = listener.accept()
            conn.recv(4096)
            conn.sendall(b"<html>no status line at all</html>")
            conn.close()

        t = threading.Thread(target=serve, daemon=True)
        t.start()
        try:
            rc, answers, raw = client("127.0.0.1", listener.getsockname()[1], "/")
            self.assertEqual((rc, answers), (0, [(200, b"<html>no status line at all</html>")]), raw)
        finally:
            t.join(5)
            listener.close()


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
