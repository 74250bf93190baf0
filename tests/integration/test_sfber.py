"""sfber on real and on broken data: every certificate of the ca-certificates
bundle validates and dumps to the items `openssl asn1parse` finds; verdicts,
exit statuses and partial dumps for broken, unreadable and piped input."""
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

from sfnet_support import BIN, SOURCE

SFBER = os.path.join(BIN, "sfber")
# offset, header length, content length, indentation (two spaces a level), form
DUMP_ITEM = re.compile(r"^ *(\d+) +(\d+) +(\d+)  ( *)\S.*?(constructed)?\)", re.M)
ASN1_ITEM = re.compile(r"^ *(\d+):d=(\d+) +hl=(\d+) l= *(\d+) (cons|prim)", re.M)


def sfber(*args, **kw):
    p = subprocess.run([SFBER, *args], capture_output=True, text=True, timeout=300, **kw)
    return p.returncode, p.stdout, p.stderr


class Sfber(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        subprocess.run([os.path.join(SOURCE, "scripts", "ber-fixtures.sh"), cls.tmp.name],
                       check=True, capture_output=True)
        certs = os.path.join(cls.tmp.name, "certs")
        cls.certs = sorted(os.path.join(certs, f) for f in os.listdir(certs))
        assert len(cls.certs) > 50

    def test_certificates_validate_and_dump_as_openssl_parses_them(self):
        status, out, _ = sfber("check", *self.certs)
        self.assertEqual((status, out.splitlines()), (0, [c + ": valid" for c in self.certs]))
        for cert in self.certs:
            theirs = subprocess.run(["openssl", "asn1parse", "-inform", "DER", "-in", cert],
                                    capture_output=True, text=True, check=True).stdout
            ours = sfber("dump", cert)[1]
            self.assertEqual(
                [(int(o), len(ind) // 2, int(h), int(n), bool(c))
                 for o, h, n, ind, c in DUMP_ITEM.findall(ours)],
                [(int(o), int(d), int(h), int(n), c == "cons")
                 for o, d, h, n, c in ASN1_ITEM.findall(theirs)], cert)

    def test_verdicts_exit_statuses_and_partial_dumps(self):
        big = max(self.certs, key=os.path.getsize)
        data = pathlib.Path(big).read_bytes()
        cut, printable, missing = (os.path.join(self.tmp.name, name)
                                   for name in ("cut.der", "printable.der", "missing.der"))
        pathlib.Path(cut).write_bytes(data[:len(data) // 2])
        pathlib.Path(printable).write_bytes(b"\x30\x05\x13\x03a*b")
        status, out, _ = sfber("check", cut, printable, big)
        self.assertEqual(status, 1)
        self.assertRegex(out, r"cut.der: invalid: INSUFFICENT_DATA at offset \d+\n")
        self.assertIn("printable.der: invalid: BER_NOT_VALIDATED at offset 2 (IsValidPrintString "
                      "found invalid character (42) at offset 5, returning false)\n", out)
        self.assertTrue(out.endswith(big + ": valid\n"))

        # An unreadable file outweighs an invalid one, in either order; the
        # limits can be set from the command line.
        for args, want in ((["check", missing, printable], 2), (["check", printable, missing], 2),
                           (["--max-length", "100", "check", big], 1),
                           (["check", "--max-depth", "3", big], 1),
                           (["--max-length", "0", "check", big], 0), (["-h"], 0),
                           (["check", "--max-depth"], 2)):
            self.assertEqual(sfber(*args)[0], want, args)
        with open(big, "rb") as f:
            self.assertEqual(sfber("check", "-", stdin=f)[:2], (0, "-: valid\n"))

        # An invalid file is still printed as far as it can be read.
        status, out, err = sfber("dump", cut)
        self.assertEqual(status, 1)
        self.assertIn("invalid: INSUFFICENT_DATA", err)
        self.assertRegex(out.splitlines()[0], r"^ +0 +4 +%d  SEQUENCE .* <truncated: %d octets "
                         r"present>$" % (len(data) - 4, len(data) // 2 - 4))
