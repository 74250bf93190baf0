"""Client-side authentication against real peers: squid demanding Basic
(basic_ncsa_auth), an NTLM proxy (ntlm_peer.py) that offers Basic too, and a
backend that answers 401 until it gets its own credentials."""

import base64
import os
import shutil
import subprocess
import tempfile
import unittest

from sfnet_support import (Backend, Site, SiteTest, Squid, curl, free_port, read, stop, wait_port,
                           write)

HELPERS = "/usr/lib/squid"
HERE = os.path.dirname(os.path.abspath(__file__))
WEB = "Basic " + base64.b64encode(b"webuser:webpw").decode()


def backend_answer(path, fields, request):
    """401 (realm "backend") until the request carries WEB."""
    if fields.get("authorization") != WEB:
        return (b"HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"backend\"\r\n"
                b"Content-Length: 2\r\n\r\nno")
    return b"HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\nyou win\n"


CONFIG = """
set sf.log.level 9
set sf.http.requestURL http://127.0.0.1:{backend}/tunnelled
set sf.http.authname(proxy.*) sfuser
set sf.http.authpasswd(proxy.*) sfpass
set sf.http.authname(webbackend) webuser
set sf.http.authpasswd(webbackend) webpw
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
"""


class BasicAuth(SiteTest):
    @classmethod
    def setUpClass(cls):
        cls.backend = Backend(backend_answer)
        cls.addClassCleanup(cls.backend.shutdown)
        hashed = subprocess.run(["openssl", "passwd", "-apr1", "sfpass"], check=True,
                                capture_output=True, text=True).stdout.strip()
        cls.squid = Squid(auth="auth_param basic program %s/basic_ncsa_auth @PASSWD@\n"
                               "auth_param basic realm sfrealm" % HELPERS, passwd="sfuser:" + hashed)
        cls.addClassCleanup(cls.squid.close)
        cls.ports = dict(viasquid=free_port(), direct=free_port())
        fmt = dict(cls.ports, backend=cls.backend.port, squid=cls.squid.port, wrong=free_port())
        cls.site = cls.class_site(CONFIG.format(**fmt), START.format(**fmt),
                                  level=9, ports=tuple(cls.ports.values()))

    def url(self, name, path):
        return "http://127.0.0.1:%d%s" % (self.ports[name], path)

    def test_basic_answers_and_failures(self):
        # through squid (407, then 401 from the backend: both answers go), again
        # and again
        for _ in range(3):
            self.assertEqual(curl("--data-binary", "x", self.url("viasquid", "/any")),
                             (200, b"you win\n"))
        # the backend's own 401 gets Authorization
        self.assertEqual(curl(self.url("direct", "/secret")), (200, b"you win\n"))
        heads = "".join(self.backend.heads)
        self.assertIn("POST /tunnelled HTTP/1.1\r\n", heads)
        self.assertIn("\r\nAuthorization: " + WEB + "\r\n", heads)
        self.assertNotIn("Proxy-Authorization", heads)
        log = self.site.text()
        for secret in ("sfpass", "webpw",
                       base64.b64encode(b"sfuser:sfpass").decode()):
            self.assertNotIn(secret, log)


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
