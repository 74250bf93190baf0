"""Client-side authentication against real peers: squid demanding Basic
(basic_ncsa_auth), NTLM proxies (ntlm_peer.py) that offer Basic too, and a
backend that answers 401 until it gets its own credentials."""

import base64
import os
import shutil
import subprocess
import tempfile

from sfnet_support import Backend, SiteTest, Squid, curl, free_port, read, stop, wait_port, write

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
mkQ ntlm
mkQ wrong
bind 127.0.0.1 {viasquid}
bind 127.0.0.1 {direct}
bind 127.0.0.1 {ntlm}
bind 127.0.0.1 {wrong}
"""

START = """
spinThread httpReader 127.0.0.1 {viasquid} {{enQ viasquid}}
spinThread httpWorker viasquid 127.0.0.1 {squid}
spinThread httpReader 127.0.0.1 {direct} {{enQ direct}}
spinThread httpWorker direct 127.0.0.1 {backend} -forward
spinThread httpReader 127.0.0.1 {ntlm} {{enQ ntlm}}
spinThread httpWorker ntlm 127.0.0.1 {good}
spinThread httpReader 127.0.0.1 {wrong} {{enQ wrong}}
spinThread httpWorker wrong 127.0.0.1 {bad}
"""


class HttpAuth(SiteTest):
    @classmethod
    def ntlm_peer(cls, password):
        """ntlm_peer.py knowing sfntlm by password; its port and events file."""
        users, events = os.path.join(cls.dir, password), os.path.join(cls.dir, password + ".events")
        write(users, "SFDOM:sfntlm:%s\n" % password)
        port = free_port()
        proc = subprocess.Popen(["/usr/bin/python3", os.path.join(HERE, "ntlm_peer.py"),
                                 str(port), events], env=dict(os.environ, NTLM_USER_FILE=users))
        cls.addClassCleanup(stop, proc)
        wait_port(port, proc)
        return port, events

    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="sf-auth-")
        cls.addClassCleanup(shutil.rmtree, cls.dir, ignore_errors=True)
        cls.backend = Backend(backend_answer)
        cls.addClassCleanup(cls.backend.shutdown)
        hashed = subprocess.run(["openssl", "passwd", "-apr1", "sfpass"], check=True,
                                capture_output=True, text=True).stdout.strip()
        cls.squid = Squid(auth="auth_param basic program /usr/lib/squid/basic_ncsa_auth @PASSWD@\n"
                               "auth_param basic realm sfrealm", passwd="sfuser:" + hashed)
        cls.addClassCleanup(cls.squid.close)
        good, cls.good = cls.ntlm_peer("ntlmpw")
        bad, cls.bad = cls.ntlm_peer("otherpw")
        cls.ports = dict(viasquid=free_port(), direct=free_port(), ntlm=free_port(),
                         wrong=free_port())
        fmt = dict(cls.ports, backend=cls.backend.port, squid=cls.squid.port, good=good, bad=bad)
        cls.site = cls.class_site(CONFIG.format(**fmt), START.format(**fmt), level=None)
        # this side's NTLM credentials
        write(cls.site.path("ntlm-users"), "SFDOM:sfntlm:ntlmpw\n")
        cls.site.env.update(NTLM_USER_FILE=cls.site.path("ntlm-users"), NTLMUSER="sfntlm")
        cls.site.started(9, tuple(cls.ports.values()))

    def post(self, name):
        return curl("--data-binary", "x", "http://127.0.0.1:%d/" % self.ports[name])

    def test_basic_and_ntlm_answers_and_failures(self):
        # through squid (407, then 401 from the backend: both answers go), again
        # and again
        for _ in range(3):
            self.assertEqual(self.post("viasquid"), (200, b"you win\n"))
        # the backend's own 401 gets Authorization
        self.assertEqual(curl("http://127.0.0.1:%d/secret" % self.ports["direct"]),
                         (200, b"you win\n"))
        heads = "".join(self.backend.heads)
        self.assertIn("POST /tunnelled HTTP/1.1\r\n", heads)
        self.assertIn("\r\nAuthorization: " + WEB + "\r\n", heads)
        self.assertNotIn("Proxy-Authorization", heads)
        # NTLM is answered although Basic credentials would fit; both phases
        # run on one connection, which then stays authenticated.
        for _ in range(2):
            self.assertEqual(self.post("ntlm"), (200, b"hello SFDOM\\sfntlm\n"), read(self.good))
        self.assertEqual(read(self.good), "1 offered\n1 challenged\n1 accepted\n1 kept\n")
        # a refused answer is not tried again, nor Basic instead: the client
        # gets the rejection
        self.assertEqual(self.post("wrong"), (500, b""))
        self.assertEqual(read(self.bad), "1 offered\n1 challenged\n1 refused\n")
        log = self.site.text()
        self.assertIn("HTTP - Server answered with status 407", log)
        for secret in ("sfpass", "webpw", "ntlmpw", base64.b64encode(b"sfuser:sfpass").decode()):
            self.assertNotIn(secret, log)
