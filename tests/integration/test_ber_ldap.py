"""LDAP messages captured between ldapsearch and a throwaway slapd validate
with sfber, with the right ids and operations; a search request built with the
BER encoder is answered by slapd."""
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
BIND_REQUEST, BIND_RESPONSE, UNBIND, SEARCH_REQUEST, SEARCH_ENTRY, SEARCH_DONE = range(6)


def pump(src, dst, keep):
    try:
        while data := src.recv(65536):
            keep.extend(data)
            dst.sendall(data)
    except OSError:
        pass
    try:
        dst.shutdown(socket.SHUT_WR)
    except OSError:
        pass


def relayed(target, run):
    """Runs run(port) for one client that goes through a loopback relay to
    target; returns the bytes of each direction (up, down)."""
    kept = (bytearray(), bytearray())
    with socket.create_server(("127.0.0.1", 0)) as listener:
        def serve():
            client, _ = listener.accept()
            with client, socket.create_connection(("127.0.0.1", target)) as server:
                pumps = [threading.Thread(target=pump, args=(client, server, kept[0])),
                         threading.Thread(target=pump, args=(server, client, kept[1]))]
                for t in pumps:
                    t.start()
                for t in pumps:
                    t.join(timeout=10)
        relay = threading.Thread(target=serve, daemon=True)
        relay.start()
        run(listener.getsockname()[1])
        relay.join(timeout=10)
    return bytes(kept[0]), bytes(kept[1])


def message(items):
    """(message id, operation tag, items of the operation) of a dumped
    LDAPMessage."""
    top = [i for i in items if i.depth == 1]
    assert top[0].name == "INTEGER" and top[1].name.startswith("[APPLICATION "), items
    inner = [i for i in items if i.depth == 2 and top[1].offset < i.offset]
    return int(top[0].value), int(top[1].name[len("[APPLICATION "):-1]), inner


class LdapPdus(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        d = cls.tmp.name
        os.mkdir(os.path.join(d, "db"))
        conf = os.path.join(d, "slapd.conf")
        with open(conf, "w") as f:
            f.write("\n".join(["include /etc/ldap/schema/%s.schema" % s
                               for s in ("core", "cosine", "inetorgperson")] + [
                "pidfile %s/slapd.pid" % d, "argsfile %s/slapd.args" % d,
                "modulepath /usr/lib/ldap", "moduleload back_mdb", "database mdb",
                'suffix "%s"' % BASE, 'rootdn "%s"' % ROOTDN, "rootpw secret",
                "directory %s/db" % d, "maxsize 10485760", ""]))
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            cls.port = s.getsockname()[1]
        cls.log = open(os.path.join(d, "slapd.log"), "w")
        cls.slapd = subprocess.Popen(
            [SLAPD, "-f", conf, "-h", "ldap://127.0.0.1:%d/" % cls.port, "-d", "0"],
            stdout=subprocess.DEVNULL, stderr=cls.log)
        try:
            end = time.time() + 15
            while True:
                try:
                    socket.create_connection(("127.0.0.1", cls.port), timeout=1).close()
                    break
                except OSError:
                    if time.time() > end:
                        raise
                    time.sleep(0.1)
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

    def checked(self, name, data):
        """Writes data, asserts sfber finds it valid, returns its dump."""
        path = self.write(name, data)
        status, out, _ = sfber("check", path)
        self.assertEqual((status, out.decode()), (0, path + ": valid\n"))
        return dump(path)

    def test_captured_ldapsearch_exchange(self):
        up, down = relayed(self.port, lambda port: subprocess.run(
            ["ldapsearch", "-x", "-H", "ldap://127.0.0.1:%d" % port, "-D", ROOTDN, "-w", "secret",
             "-b", BASE, "(objectClass=*)"], check=True, capture_output=True, timeout=60))
        # Each direction as a whole is also one valid stretch of items.
        self.checked("client.ber", up)
        self.checked("server.ber", down)
        client, server = ([message(self.checked("%s-%d.ber" % (side, n), pdu))
                           for n, pdu in enumerate(split_pdus(data), 1)]
                          for side, data in (("client", up), ("server", down)))
        self.assertEqual([(m, op) for m, op, _ in client],
                         [(1, BIND_REQUEST), (2, SEARCH_REQUEST), (3, UNBIND)])
        self.assertEqual([(m, op) for m, op, _ in server],
                         [(1, BIND_RESPONSE)] + [(2, SEARCH_ENTRY)] * 3 + [(2, SEARCH_DONE)])
        # Bind version and name, search base, entry names, result codes.
        bind = client[0][2]
        self.assertEqual((int(bind[0].value), bind[1].value), (3, b"'%s'" % ROOTDN.encode()))
        self.assertEqual(client[1][2][0].value, b"'%s'" % BASE.encode())
        self.assertEqual(sorted(m[2][0].value for m in server[1:4]),
                         sorted(b"'%s'" % dn.encode() for dn in
                                (BASE, "cn=Alice," + BASE, "cn=Bob," + BASE)))
        self.assertEqual((int(server[0][2][0].value), int(server[-1][2][0].value)), (0, 0))

        save = os.environ.get("SF_BER_SAVE_FIXTURES")
        if save:
            os.makedirs(save, exist_ok=True)
            for name in ("client-1", "client-2", "client-3", "server-1", "server-2",
                         "server-%d" % len(server)):
                shutil.copy(os.path.join(self.tmp.name, name + ".ber"),
                            os.path.join(save, "ldap-%s.ber" % name))

    def search(self, *args):
        """Sends the encoder's search request to slapd; returns the
        validated responses, up to the SearchResultDone."""
        req = subprocess.run([os.path.join(BUILD, "bin", "ber_ldap_request"), *args],
                             capture_output=True, check=True).stdout
        with socket.create_connection(("127.0.0.1", self.port), timeout=30) as s:
            s.sendall(req)
            data, pdus = b"", []
            while not pdus or message(pdus[-1])[1] != SEARCH_DONE:
                chunk = s.recv(65536)
                self.assertTrue(chunk, "slapd closed the connection")
                data += chunk
                try:
                    whole = split_pdus(data)
                except (IndexError, ValueError):
                    continue
                if sum(map(len, whole)) == len(data) and all(len(p) >= 2 for p in whole):
                    pdus = [self.checked("response-%d.ber" % n, p) for n, p in enumerate(whole)]
        return [message(p) for p in pdus]

    def test_encoder_request_accepted(self):
        # One entry, every entry, and a base that does not exist: slapd
        # answers noSuchObject (32).
        got = self.search("7", BASE, "cn=Alice")
        self.assertEqual([(m, op) for m, op, _ in got], [(7, SEARCH_ENTRY), (7, SEARCH_DONE)])
        self.assertEqual(got[0][2][0].value, b"'cn=Alice,%s'" % BASE.encode())
        self.assertEqual(int(got[-1][2][0].value), 0)
        every = self.search("300", BASE)
        self.assertEqual([(m, op) for m, op, _ in every],
                         [(300, SEARCH_ENTRY)] * 3 + [(300, SEARCH_DONE)])
        self.assertEqual(int(every[-1][2][0].value), 0)
        missing = self.search("9", "dc=nowhere,dc=test")
        self.assertEqual([(m, op) for m, op, _ in missing], [(9, SEARCH_DONE)])
        self.assertEqual(int(missing[0][2][0].value), 32)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
