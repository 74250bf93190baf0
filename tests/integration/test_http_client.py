"""HttpAdaptor's client role against real servers: nginx (GET, keep-alive,
POST with a length and chunked, HEAD, a chunked response, a non-200 status),
Python's http.server speaking HTTP/1.0 (a body that runs to the close), a raw
HTTP/0.9 answer, and a CONNECT tunnel through squid to nginx."""

import http.server
import os
import socket
import sys
import threading
import unittest

from sfhttp_support import Nginx, Squid, client, free_port


class OldServer(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.0"

    def do_GET(self):
        self.send_response(200)
        self.send_header("Content-Type", "text/plain")
        self.end_headers()  # no length: the body ends with the connection
        for i in range(50):
            self.wfile.write(b"line %02d of a body without length\n" % i)

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
        rc, answers, raw = client(*args)
        self.assertEqual(rc, 0, raw)
        return answers

    def test_get_keepalive_and_status(self):
        port = self.nginx.port
        self.assertEqual(self.call("127.0.0.1", port, "/hello"), [(200, b"hello from nginx\n")])
        # three requests on one connection
        self.assertEqual(self.call("-n", 3, "127.0.0.1", port, "/static/page.txt"),
                         [(200, b"static page\n")] * 3)
        answers = self.call("127.0.0.1", port, "/teapot")
        self.assertEqual(answers, [(418, b"short and stout\n")])
        status, body = self.call("127.0.0.1", port, "/nothing-here")[0]
        self.assertEqual(status, 404)
        self.assertIn(b"404 Not Found", body)

    def test_post_with_length_and_chunked(self):
        port = self.nginx.port
        if not os.path.exists("/usr/lib/nginx/modules/ngx_http_echo_module.so"):
            self.skipTest("nginx echo module not installed")
        data = "payload-" * 300
        self.assertEqual(self.call("-m", "POST", "-d", data, "127.0.0.1", port, "/echo"),
                         [(200, data.encode())])
        self.assertEqual(
            self.call("-m", "CHUNKED", "-d", data, "-n", 2, "127.0.0.1", port, "/echo"),
            [(200, data.encode())] * 2)

    def test_head_and_chunked_response(self):
        port = self.nginx.port
        # HEAD: headers only, and the connection stays usable
        self.assertEqual(self.call("-m", "HEAD", "-n", 2, "127.0.0.1", port, "/hello"),
                         [(200, b"")] * 2)
        expected = b"this body goes out chunked\n" * 40
        self.assertEqual(self.call("-n", 2, "127.0.0.1", port, "/chunked"),
                         [(200, expected)] * 2)

    def test_connect_through_squid(self):
        squid = Squid()
        try:
            answers = self.call("-p", "127.0.0.1", squid.port, "-n", 2,
                                "127.0.0.1", self.nginx.port, "/hello")
            self.assertEqual(answers, [(200, b"hello from nginx\n")] * 2)
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
            self.assertEqual(rc, 0, raw)
            expected = b"".join(b"line %02d of a body without length\n" % i for i in range(50))
            self.assertEqual(answers, [(200, expected)])
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
            self.assertEqual(rc, 0, raw)
            self.assertEqual(answers, [(200, b"<html>no status line at all</html>")])
        finally:
            t.join(5)
            listener.close()


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
