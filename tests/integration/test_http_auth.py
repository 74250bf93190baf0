"""Client-side authentication against real peers: squid demanding Basic
(basic_ncsa_auth), squid demanding NTLM (ntlm_fake_auth) beside Basic, and a
backend that answers 401 until it gets its own credentials."""

import base64
import os
import socketserver
import subprocess
import sys
import threading
import unittest

from sfnet_support import Nginx, Site, SiteTest, Squid, curl, free_port, http_client, write

HELPERS = "/usr/lib/squid"
WEB = "Basic " + base64.b64encode(b"webuser:webpw").decode()


class Backend(socketserver.ThreadingTCPServer):
    """Answers 401 (realm "backend") to /secret until the request carries
    WEB; records every request head it gets."""
    daemon_threads = True
    allow_reuse_address = True

    def __init__(self):
        super().__init__(("127.0.0.1", 0), BackendHandler)
        self.port = self.server_address[1]
        self.heads = []
        threading.Thread(target=self.serve_forever, daemon=True).start()


class BackendHandler(socketserver.StreamRequestHandler):
    def handle(self):
        while True:
            head = b""
            while not head.endswith(b"\r\n\r\n"):
                line = self.rfile.readline()
                if not line:
                    return
                head += line
            lines = head.decode().split("\r\n")
            fields = dict((l.split(":")[0].lower(), l.split(":", 1)[1].strip())
                          for l in lines[1:] if ":" in l)
            self.rfile.read(int(fields.get("content-length", "0")))
            self.server.heads.append(head.decode())
            path = lines[0].split(" ")[1]
            if path.endswith("/secret") and fields.get("authorization") != WEB:
                self.wfile.write(b"HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic "
                                 b"realm=\"backend\"\r\nContent-Length: 2\r\n\r\nno")
            else:
                self.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\nyou win\n")


CONFIG = """
set sf.log.level 9
set sf.http.requestURL http://127.0.0.1:{backend}/tunnelled
set sf.http.authname(proxy.*) sfuser
set sf.http.authpasswd(proxy.*) sfpass
set sf.http.authname(webbackend) webuser
set sf.http.authpasswd(webbackend) webpw
set sf.http.authname(proxywrongrealm) sfuser
set sf.http.authpasswd(proxywrongrealm) notthepassword
mkQ viasquid
mkQ direct
mkQ wrong
bind 127.0.0.1 {viasquid}
bind 127.0.0.1 {direct}
bind 127.0.0.1 {wrong}
"""

START = """
spinThread httpReader 127.0.0.1 {viasquid} {{enQ viasquid}}
spinThread httpWorker viasquid 127.0.0.1 {squid}
spinThread httpReader 127.0.0.1 {direct} {{enQ direct}}
spinThread httpWorker direct 127.0.0.1 {backend} -forward
spinThread httpReader 127.0.0.1 {wrong} {{enQ wrong}}
spinThread httpWorker wrong 127.0.0.1 {wrongsquid}
"""


def basic_squid(realm):
    """squid demanding Basic in realm for sfuser/sfpass."""
    hashed = subprocess.run(["openssl", "passwd", "-apr1", "sfpass"], check=True,
                                  capture_output=True, text=True).stdout.strip()
    squid = Squid(auth="auth_param basic program %s/basic_ncsa_auth @PASSWD@\n"
                       "auth_param basic realm %s" % (HELPERS, realm), passwd="sfuser:" + hashed)
    return squid


class BasicAuth(SiteTest):
    @classmethod
    def setUpClass(cls):
        cls.backend = Backend()
        cls.addClassCleanup(cls.backend.shutdown)
        cls.squid = basic_squid("sfrealm")
        cls.addClassCleanup(cls.squid.close)
        cls.wrongsquid = basic_squid("wrongrealm")
        cls.addClassCleanup(cls.wrongsquid.close)
        cls.ports = dict(viasquid=free_port(), direct=free_port(), wrong=free_port())
        fmt = dict(cls.ports, backend=cls.backend.port, squid=cls.squid.port,
                   wrongsquid=cls.wrongsquid.port)
        cls.site = cls.class_site(CONFIG.format(**fmt), START.format(**fmt),
                                  level=9, ports=tuple(cls.ports.values()))

    def url(self, name, path):
        return "http://127.0.0.1:%d%s" % (self.ports[name], path)

    def test_basic_answers_and_failures(self):
        # through squid (407, then Proxy-Authorization), again and again
        for _ in range(3):
            self.assertEqual(curl("--data-binary", "x", self.url("viasquid", "/any")),
                             (200, b"you win\n"))
        # the backend's own 401 gets Authorization
        self.assertEqual(curl(self.url("direct", "/secret")), (200, b"you win\n"))
        heads = "".join(self.backend.heads)
        self.assertIn("POST /tunnelled HTTP/1.1\r\n", heads)
        self.assertIn("\r\nAuthorization: " + WEB + "\r\n", heads)
        self.assertNotIn("Proxy-Authorization", heads)
        # a wrong password is tried once and ends in the rejection
        self.assertEqual(curl("--data-binary", "x", self.url("wrong", "/any")), (500, b""))
        self.assertEqual(curl("--data-binary", "x", self.url("viasquid", "/any")),
                         (200, b"you win\n"))
        log = self.site.text()
        self.assertIn("HTTP - sending with basic auth for sfuser:wrongrealm", log)
        self.assertIn("HTTP - Server answered with status 407", log)
        for secret in ("sfpass", "webpw", "notthepassword",
                       base64.b64encode(b"sfuser:sfpass").decode()):
            self.assertNotIn(secret, log)

    def test_connect_answers_407(self):
        nginx = Nginx()
        self.addCleanup(nginx.close)
        args = ("-p", "127.0.0.1", self.squid.port, "127.0.0.1", nginx.port, "/hello")
        rc, answers, raw = http_client("-a", "sfuser", "sfpass", "-n", 2, *args)
        self.assertEqual((rc, answers), (0, [(200, b"hello from nginx\n")] * 2), raw)
        rc, answers, raw = http_client("-a", "sfuser", "wrong", *args)
        self.assertEqual((rc, raw[:6]), (1, b"error "), raw)


class NtlmAuth(unittest.TestCase):
    def test_ntlm_is_preferred_to_basic(self):
        backend = Backend()
        self.addCleanup(backend.shutdown)
        hashed = subprocess.run(["openssl", "passwd", "-apr1", "sfpass"], check=True,
                                capture_output=True, text=True).stdout.strip()
        squid = Squid(auth="auth_param ntlm program %s/ntlm_fake_auth\n"
                           "auth_param basic program %s/basic_ncsa_auth @PASSWD@\n"
                           "auth_param basic realm sfrealm" % (HELPERS, HELPERS),
                      passwd="sfuser:" + hashed)
        self.addCleanup(squid.close)
        port = free_port()
        fmt = dict(backend=backend.port, viasquid=port, direct=free_port(), wrong=free_port())
        site = Site(CONFIG.format(**fmt),
                    "spinThread httpReader 127.0.0.1 %d {enQ viasquid}\n"
                    "spinThread httpWorker viasquid 127.0.0.1 %d\n" % (port, squid.port))
        self.addCleanup(site.close)
        write(site.path("ntlm-users"), "SFDOM:sfntlm:ntlmpw\n")
        site.env.update(NTLM_USER_FILE=site.path("ntlm-users"), NTLMUSER="sfntlm")
        site.start(9)
        site.wait_listening(port)
        status = curl("--data-binary", "x", "http://127.0.0.1:%d/" % port)
        log = site.text()
        # NTLM is answered although Basic would do; squid 5.7's fake helper
        # then sends a challenge whose target-name offset is garbage, which
        # the mechanism refuses: the attempt ends with the rejection and its
        # reason in the log. A helper that sends a valid challenge gets the
        # whole handshake.
        self.assertIn("sending phase 0 with auth token", log)
        self.assertNotIn("sending with basic auth", log)
        self.assertNotIn("ntlmpw", log)
        if "Invalid token was supplied" in log:
            self.assertEqual(status, (500, b""))
        else:
            self.assertEqual(status, (200, b"you win\n"), log[-3000:])
            self.assertIn("sending phase 1 with auth token", log)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
