"""Client-side authentication against real peers: squid demanding Basic
(basic_ncsa_auth), an NTLM proxy (ntlm_peer.py) that offers Basic too, and a
backend that answers 401 until it gets its own credentials."""

import base64
import os
import shutil
import socketserver
import subprocess
import sys
import tempfile
import threading
import unittest

from sfnet_support import (Nginx, Site, SiteTest, Squid, curl, free_port, http_client, read, stop,
                           wait_port, write)

HELPERS = "/usr/lib/squid"
HERE = os.path.dirname(os.path.abspath(__file__))
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
    def peer(self, password):
        """ntlm_peer.py knowing sfntlm by password; its port and events file."""
        d = tempfile.mkdtemp(prefix="sf-ntlm-")
        self.addCleanup(shutil.rmtree, d, ignore_errors=True)
        write(os.path.join(d, "users"), "SFDOM:sfntlm:%s\n" % password)
        port, events = free_port(), os.path.join(d, "events")
        proc = subprocess.Popen(["/usr/bin/python3", os.path.join(HERE, "ntlm_peer.py"),
                                 str(port), events], env=dict(os.environ, NTLM_USER_FILE=d + "/users"))
        self.addCleanup(stop, proc)
        wait_port(port, proc)
        return port, lambda: read(events).split("\n")[:-1]

    def test_ntlm_handshake_on_one_connection(self):
        good, good_events = self.peer("ntlmpw")
        bad, bad_events = self.peer("otherpw")
        fmt = dict(backend=good, viasquid=free_port(), direct=free_port(), wrong=free_port())
        site = Site(CONFIG.format(**fmt),
                    "spinThread httpReader 127.0.0.1 {viasquid} {{enQ viasquid}}\n"
                    "spinThread httpWorker viasquid 127.0.0.1 {backend}\n"
                    "spinThread httpReader 127.0.0.1 {wrong} {{enQ wrong}}\n"
                    "spinThread httpWorker wrong 127.0.0.1 {bad}\n".format(bad=bad, **fmt))
        self.addCleanup(site.close)
        write(site.path("ntlm-users"), "SFDOM:sfntlm:ntlmpw\n")
        site.env.update(NTLM_USER_FILE=site.path("ntlm-users"), NTLMUSER="sfntlm")
        site.start(9)
        site.wait_listening(fmt["viasquid"], fmt["wrong"])
        # NTLM is answered although Basic credentials would fit; both phases
        # run on one connection, which then stays authenticated.
        for _ in range(2):
            self.assertEqual(curl("--data-binary", "x", "http://127.0.0.1:%d/" % fmt["viasquid"]),
                             (200, b"hello SFDOM\\sfntlm\n"), good_events())
        self.assertEqual(good_events(), ["1 offered", "1 challenged", "1 accepted", "1 kept"])
        # a refused answer is not tried again: the client gets the rejection
        self.assertEqual(curl("--data-binary", "x", "http://127.0.0.1:%d/" % fmt["wrong"]),
                         (500, b""))
        self.assertEqual(bad_events(), ["1 offered", "1 challenged", "1 refused"])
        log = site.text()
        self.assertIn("HTTP - Server answered with status 407", log)
        self.assertNotIn("sending with basic auth", log)
        self.assertNotIn("ntlmpw", log)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
