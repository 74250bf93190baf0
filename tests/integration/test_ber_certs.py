"""Every certificate of the ca-certificates bundle, as DER, validates with
sfber, walks to the same items as OpenSSL's own parser finds, and its subject
is reached by item path with the right names."""
import os
import re
import subprocess
import sys
import tempfile
import unittest

from bertools import SFBER, SOURCE, dump, sfber, unescape

ASN1_LINE = re.compile(rb"^ *(\d+):d=(\d+) +hl=(\d+) l= *(\d+) (cons|prim): (.*?) *(?::(.*))?$")
# asn1parse names the universal types in capitals, two of them otherwise.
ASN1_NAMES = {"OBJECT IDENTIFIER": b"OBJECT", "TeletexString": b"T61STRING"}
TEXT_TYPES = {"PrintableString", "UTF8String", "IA5String", "TeletexString", "UTCTime",
              "GeneralizedTime", "VisibleString", "NumericString"}
# Short names OpenSSL prints for identifiers common in certificates.
OID_NAMES = {
    b"commonName": "2.5.4.3", b"countryName": "2.5.4.6", b"localityName": "2.5.4.7",
    b"stateOrProvinceName": "2.5.4.8", b"organizationName": "2.5.4.10",
    b"organizationalUnitName": "2.5.4.11", b"serialNumber": "2.5.4.5",
    b"emailAddress": "1.2.840.113549.1.9.1", b"rsaEncryption": "1.2.840.113549.1.1.1",
    b"sha256WithRSAEncryption": "1.2.840.113549.1.1.11",
    b"sha1WithRSAEncryption": "1.2.840.113549.1.1.5", b"id-ecPublicKey": "1.2.840.10045.2.1",
    b"ecdsa-with-SHA384": "1.2.840.10045.4.3.3", b"X509v3 Basic Constraints": "2.5.29.19",
    b"X509v3 Key Usage": "2.5.29.15", b"X509v3 Subject Key Identifier": "2.5.29.14",
}


def asn1parse(path):
    out = subprocess.run(["openssl", "asn1parse", "-inform", "DER", "-in", path],
                         capture_output=True, check=True).stdout
    items = [ASN1_LINE.match(line) for line in out.splitlines()]
    assert all(items), out
    return [(int(m.group(1)), int(m.group(2)), int(m.group(3)), int(m.group(4)),
             m.group(5) == b"cons", m.group(6).strip(), m.group(7)) for m in items]


def expected_name(item):
    if item.name.startswith("[") and not item.name.startswith("[APPLICATION"):
        return b"cont [ %d ]" % int(item.name[1:-1])
    return ASN1_NAMES.get(item.name, item.name.upper().encode())


class CertificateCorpus(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        script = os.path.join(SOURCE, "scripts", "ber-fixtures.sh")
        count = subprocess.run([script, cls.tmp.name], capture_output=True, text=True, check=True)
        cls.dir = os.path.join(cls.tmp.name, "certs")
        cls.files = sorted(os.path.join(cls.dir, f) for f in os.listdir(cls.dir))
        assert len(cls.files) == int(count.stdout.strip()) and len(cls.files) > 50, count.stdout

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def test_every_certificate_validates(self):
        status, out, _ = sfber("check", *self.files)
        self.assertEqual(out.decode().splitlines(), [f + ": valid" for f in self.files])
        self.assertEqual(status, 0)

    def test_walk_matches_openssl(self):
        """Every item sfber walks to is the item OpenSSL's parser finds, with
        the same value for integers, names and strings."""
        compared = 0
        for path in self.files:
            ours, theirs = dump(path), asn1parse(path)
            self.assertEqual(len(ours), len(theirs), path)
            for item, (off, depth, hl, length, cons, name, value) in zip(ours, theirs):
                where = "%s at %d" % (os.path.basename(path), off)
                self.assertEqual((item.offset, item.depth, item.hl, item.length, item.constructed),
                                 (off, depth, hl, length, cons), where)
                self.assertEqual(expected_name(item), name.split(b"  ")[0].strip(), where)
                if item.name == "INTEGER" and length <= 4:
                    self.assertEqual(int(item.value), int(value.decode(), 16), where)
                elif item.name == "OBJECT IDENTIFIER" and value in OID_NAMES:
                    self.assertEqual(item.value.decode(), OID_NAMES[value], where)
                elif item.name in TEXT_TYPES:
                    text, truncated = unescape(item.value)
                    if truncated:
                        self.assertTrue(value.startswith(text), where)
                    else:
                        self.assertEqual(text, value, where)
                compared += 1
        self.assertGreater(compared, 1000)

    def test_subject_reached_by_path(self):
        for path in self.files:
            full = dump(path)
            tbs = [i for i in full if i.depth == 2]
            # tbsCertificate: [0] version, serial, signature, issuer,
            # validity, subject.
            index = 6 if tbs[0].name == "[0]" else 5
            subject = dump(path, "1.1.%d" % index)
            want = tbs[index - 1]
            self.assertEqual((subject[0].offset, subject[0].name), (want.offset, "SEQUENCE"), path)
            end = want.offset + want.hl + want.length
            inside = [i for i in full if want.offset <= i.offset < end]
            self.assertEqual([(i.offset, i.depth - 2, i.desc, i.value) for i in inside],
                             [(i.offset, i.depth, i.desc, i.value) for i in subject], path)
            # A name is a SEQUENCE of SETs of (identifier, value) pairs.
            sets = [i for i in subject if i.depth == 1]
            self.assertTrue(sets and all(i.name == "SET" for i in sets), path)
            oids = [i.value.decode() for i in subject if i.name == "OBJECT IDENTIFIER"]
            self.assertTrue(oids and all(re.match(r"^[012](\.\d+)+$", o) for o in oids), path)

    def test_limits_and_errors_reported(self):
        """The options override the limits; refusals name error and offset."""
        big = max(self.files, key=os.path.getsize)
        size = os.path.getsize(big)
        status, out, _ = sfber("--max-length", "100", "check", big)
        self.assertEqual(status, 1)
        self.assertRegex(out.decode(), r": invalid: LENGTH_OUT_OF_BOUNDS at offset 0\n$")
        status, out, _ = sfber("check", "--max-depth", "3", big)
        self.assertIn("invalid: TOO_DEEP", out.decode())
        status, out, _ = sfber("check", "--max-length", "0", big)
        self.assertEqual((status, out.decode().strip()), (0, big + ": valid"))

        with open(big, "rb") as f:
            data = f.read()
        cases = {"cut.der": data[:size // 2], "trailing.der": data + b"\x05",
                 "printable.der": b"\x30\x05\x13\x03a*b",
                 "indefinite.der": b"\x30\x80\x05\x00\x00\x00",
                 "primitive-indefinite.der": b"\x04\x80\x00\x00", "tag.der": b"\x30\x03\x1f\x01\x00"}
        for name, content in cases.items():
            with open(os.path.join(self.tmp.name, name), "wb") as f:
                f.write(content)
        status, out, _ = sfber("check", *[os.path.join(self.tmp.name, n) for n in cases], big)
        self.assertEqual(status, 1)
        verdict = {os.path.basename(k): v for k, v in
                   (l.split(": ", 1) for l in out.decode().splitlines())}
        self.assertTrue(verdict["cut.der"].startswith("invalid: INSUFFICENT_DATA"))
        self.assertTrue(verdict["trailing.der"].startswith("invalid: INSUFFICENT_DATA"))
        self.assertEqual(
            verdict["printable.der"],
            "invalid: BER_NOT_VALIDATED at offset 2 "
            "(IsValidPrintString found invalid character (42) at offset 5, returning false)")
        # The end-of-contents item ends an indefinite construction.
        self.assertEqual(verdict["indefinite.der"], "invalid: BER_NOT_VALIDATED at offset 4")
        self.assertIn("primitve type with indefinite length", verdict["primitive-indefinite.der"])
        self.assertEqual(verdict["tag.der"], "invalid: BER_NOT_VALIDATED at offset 2 "
                                             "(multi-byte tag found (31) at offset 2)")
        self.assertEqual(verdict[os.path.basename(big)], "valid")
        status, _, err = sfber("check", "/nonexistent/file.der", check=False)
        self.assertEqual(status, 2)
        self.assertIn("No such file", err)
        # An invalid file is still printed as far as it can be read.
        status, out, err = sfber("dump", os.path.join(self.tmp.name, "cut.der"))
        self.assertEqual(status, 1)
        self.assertIn("invalid: INSUFFICENT_DATA", err)
        lines = out.decode().splitlines()
        self.assertRegex(lines[0], r"^ +0 +4 +%d  SEQUENCE .* <truncated: %d octets present>$"
                         % (size - 4, size // 2 - 4))
        self.assertGreater(len(lines), 5)
        # '-' reads standard input.
        with open(big, "rb") as f:
            piped = subprocess.run([SFBER, "check", "-"], stdin=f, capture_output=True)
        self.assertEqual((piped.returncode, piped.stdout), (0, b"-: valid\n"))
        status, out, _ = sfber("-h")
        self.assertEqual((status, b"usage: sfber" in out), (0, True))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
