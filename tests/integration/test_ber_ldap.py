"""LDAP messages captured between ldapsearch and a throwaway slapd validate
with sfber, with the right message ids and operations; a search request built
with the BER encoder is answered by slapd."""
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from bertools import BUILD, dump, sfber, split_pdus

SLAPD = shutil.which("slapd") or "/usr/sbin/slapd"
BASE = "dc=example,dc=com"
ROOTDN = "cn=admin," + BASE
ENTRIES = """dn: dc=example,dc=com
objectClass: dcObject
objectClass: organization
o: Example
dc: example

dn: cn=Alice,dc=example,dc=com
objectClass: inetOrgPerson
cn: Alice
sn: Smith
mail: alice@example.com

dn: cn=Bob,dc=example,dc=com
objectClass: inetOrgPerson
cn: Bob
sn: Jones
"""
# LDAP protocol operations by [APPLICATION n] tag.
BIND_REQUEST, BIND_RESPONSE, UNBIND, SEARCH_REQUEST, SEARCH_ENTRY, SEARCH_DONE = 0, 1, 2, 3, 4, 5


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_port(port, deadline=15.0):
    end = time.time() + deadline
    while time.time() < end:
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return
        except OSError:
            time.sleep(0.1)
    raise RuntimeError("nothing listens on %d" % port)


class Recorder:
    """A loopback relay between one client and slapd that keeps the bytes
    of each direction."""

    def __init__(self, target_port):
        self.target = target_port
        self.listener = socket.socket()
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(1)
        self.port = self.listener.getsockname()[1]
        self.upstream, self.downstream = bytearray(), bytearray()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _pump(self, src, dst, keep):
        try:
            while True:
                data = src.recv(65536)
                if not data:
                    break
                keep.extend(data)
                dst.sendall(data)
        except OSError:
            pass
        finally:
            try:
                dst.shutdown(socket.SHUT_WR)
            except OSError:
                pass

    def _run(self):
        client, _ = self.listener.accept()
        server = socket.create_connection(("127.0.0.1", self.target))
        back = threading.Thread(target=self._pump, args=(server, client, self.downstream))
        back.start()
        self._pump(client, server, self.upstream)
        back.join(timeout=10)
        client.close()
        server.close()

    def finish(self):
        self.thread.join(timeout=10)
        self.listener.close()


def message(items):
    """(message id, operation tag, items of the operation) of a dumped
    LDAPMessage."""
    top = [i for i in items if i.depth == 1]
    assert top[0].name == "INTEGER", items
    op = top[1]
    assert op.name.startswith("[APPLICATION "), items
    inner = [i for i in items if i.depth == 2 and op.offset < i.offset]
    return int(top[0].value), int(op.name[len("[APPLICATION "):-1]), inner


class LdapPdus(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        d = cls.tmp.name
        os.mkdir(os.path.join(d, "db"))
        conf = os.path.join(d, "slapd.conf")
        with open(conf, "w") as f:
            f.write("\n".join([
                "include /etc/ldap/schema/core.schema",
                "include /etc/ldap/schema/cosine.schema",
                "include /etc/ldap/schema/inetorgperson.schema",
                "pidfile %s/slapd.pid" % d,
                "argsfile %s/slapd.args" % d,
                "modulepath /usr/lib/ldap",
                "moduleload back_mdb",
                "database mdb",
                'suffix "%s"' % BASE,
                'rootdn "%s"' % ROOTDN,
                "rootpw secret",
                "directory %s/db" % d,
                "maxsize 10485760",
                ""]))
        cls.port = free_port()
        cls.log = open(os.path.join(d, "slapd.log"), "w")
        cls.slapd = subprocess.Popen(
            [SLAPD, "-f", conf, "-h", "ldap://127.0.0.1:%d/" % cls.port, "-d", "0"],
            stdout=subprocess.DEVNULL, stderr=cls.log)
        try:
            wait_port(cls.port)
            subprocess.run(["ldapadd", "-x", "-H", "ldap://127.0.0.1:%d" % cls.port, "-D", ROOTDN,
                            "-w", "secret"], input=ENTRIES.encode(), check=True,
                           capture_output=True, timeout=60)
        except Exception:
            cls.tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.slapd.terminate()
        try:
            cls.slapd.wait(timeout=10)
        except subprocess.TimeoutExpired:
            cls.slapd.kill()
            cls.slapd.wait()
        cls.log.close()
        cls.tmp.cleanup()

    def write(self, name, data):
        path = os.path.join(self.tmp.name, name)
        with open(path, "wb") as f:
            f.write(data)
        return path

    def test_captured_ldapsearch_exchange(self):
        rec = Recorder(self.port)
        subprocess.run(["ldapsearch", "-x", "-H", "ldap://127.0.0.1:%d" % rec.port, "-D", ROOTDN,
                        "-w", "secret", "-b", BASE, "(objectClass=*)"],
                       check=True, capture_output=True, timeout=60)
        rec.finish()
        client, server = split_pdus(bytes(rec.upstream)), split_pdus(bytes(rec.downstream))
        files = {}
        for side, pdus in (("client", client), ("server", server)):
            for n, pdu in enumerate(pdus, 1):
                files["%s-%d.ber" % (side, n)] = self.write("%s-%d.ber" % (side, n), pdu)
        # Each direction as a whole is also one valid stretch of items.
        files["client.ber"] = self.write("client.ber", bytes(rec.upstream))
        files["server.ber"] = self.write("server.ber", bytes(rec.downstream))

        status, out, _ = sfber("check", *files.values())
        self.assertEqual(status, 0, out.decode())
        self.assertEqual(out.decode().count(": valid\n"), len(files))

        got_client = [message(dump(files["client-%d.ber" % n])) for n in range(1, len(client) + 1)]
        got_server = [message(dump(files["server-%d.ber" % n])) for n in range(1, len(server) + 1)]
        self.assertEqual([(m, op) for m, op, _ in got_client],
                         [(1, BIND_REQUEST), (2, SEARCH_REQUEST), (3, UNBIND)])
        self.assertEqual([(m, op) for m, op, _ in got_server],
                         [(1, BIND_RESPONSE)] + [(2, SEARCH_ENTRY)] * 3 + [(2, SEARCH_DONE)])

        # Field values: bind version and name, search base, entry names,
        # result codes.
        bind = got_client[0][2]
        self.assertEqual((int(bind[0].value), bind[1].value), (3, b"'%s'" % ROOTDN.encode()))
        self.assertEqual(got_client[1][2][0].value, b"'%s'" % BASE.encode())
        self.assertEqual(int(got_server[0][2][0].value), 0)
        self.assertEqual(sorted(m[2][0].value for m in got_server[1:4]),
                         sorted(b"'%s'" % dn.encode() for dn in
                                (BASE, "cn=Alice," + BASE, "cn=Bob," + BASE)))
        self.assertEqual(int(got_server[-1][2][0].value), 0)

        save = os.environ.get("SF_BER_SAVE_FIXTURES")
        if save:
            os.makedirs(save, exist_ok=True)
            for name in ("client-1.ber", "client-2.ber", "client-3.ber", "server-1.ber",
                         "server-2.ber", "server-%d.ber" % len(server)):
                shutil.copy(files[name], os.path.join(save, "ldap-" + name))

    def search(self, *args):
        """Sends the encoder's search request to slapd; returns the
        validated, dumped responses."""
        req = subprocess.run([os.path.join(BUILD, "bin", "ber_ldap_request"), *args],
                             capture_output=True, check=True).stdout
        with socket.create_connection(("127.0.0.1", self.port), timeout=30) as s:
            s.sendall(req)
            data = b""
            pdus = []
            while not pdus or message(pdus[-1])[1] != SEARCH_DONE:
                chunk = s.recv(65536)
                self.assertTrue(chunk, "slapd closed the connection")
                data += chunk
                try:
                    whole = split_pdus(data)
                except (IndexError, ValueError):
                    continue
                if sum(len(p) for p in whole) != len(data) or \
                        any(len(p) < 2 for p in whole):
                    continue
                pdus = []
                for n, pdu in enumerate(whole):
                    path = self.write("response-%d.ber" % n, pdu)
                    status, out, _ = sfber("check", path)
                    self.assertEqual(status, 0, out.decode())
                    pdus.append(dump(path))
        return [message(p) for p in pdus]

    def test_encoder_request_accepted(self):
        got = self.search("7", BASE, "cn=Alice")
        self.assertEqual([(m, op) for m, op, _ in got], [(7, SEARCH_ENTRY), (7, SEARCH_DONE)])
        entry = got[0][2]
        self.assertEqual(entry[0].value, b"'cn=Alice,%s'" % BASE.encode())
        done = got[-1][2]
        self.assertEqual(int(done[0].value), 0)  # success

        every = self.search("300", BASE)
        self.assertEqual([(m, op) for m, op, _ in every],
                         [(300, SEARCH_ENTRY)] * 3 + [(300, SEARCH_DONE)])
        self.assertEqual(int(every[-1][2][0].value), 0)

        # A base that does not exist: slapd answers noSuchObject (32).
        missing = self.search("9", "dc=nowhere,dc=test")
        self.assertEqual([(m, op) for m, op, _ in missing], [(9, SEARCH_DONE)])
        self.assertEqual(int(missing[0][2][0].value), 32)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
