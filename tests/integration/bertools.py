"""Helpers for the BER tests: running sfber and reading its dump."""
import os
import re
import subprocess

BUILD = os.environ.get("SF_BUILD_DIR", "build")
SOURCE = os.environ.get("SF_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
SFBER = os.path.join(BUILD, "bin", "sfber")

# One dump line: offset, header length, length, indentation, identifier text.
DUMP_LINE = re.compile(rb"^ *(\d+) +(\d+) +(\d+)  ( *)(\S.*)$")


def sfber(*args, check=True):
    """Runs sfber; returns (exit status, stdout bytes, stderr text)."""
    proc = subprocess.run([SFBER, *args], capture_output=True, timeout=300)
    if check and proc.returncode not in (0, 1):
        raise RuntimeError("sfber %s: status %d: %s" % (args, proc.returncode, proc.stderr.decode()))
    return proc.returncode, proc.stdout, proc.stderr.decode(errors="replace")


class Item:
    """One dump item; value is the rendering (bytes) or None."""

    def __init__(self, offset, depth, hl, length, desc, value):
        self.offset, self.depth, self.hl, self.length = offset, depth, hl, length
        self.desc, self.value = desc, value

    @property
    def name(self):
        return self.desc.split(" (")[0]

    @property
    def constructed(self):
        return ", constructed)" in self.desc

    def __repr__(self):
        return "Item(%d d=%d hl=%d l=%d %s %r)" % (
            self.offset, self.depth, self.hl, self.length, self.desc, self.value)


def parse_dump(out):
    items = []
    for line in out.splitlines():
        m = DUMP_LINE.match(line)
        assert m, "unexpected dump line %r" % line
        rest = m.group(5)
        cut = rest.find(b"): ")
        desc, value = (rest[:cut + 1], rest[cut + 3:]) if cut >= 0 else (rest, None)
        items.append(Item(int(m.group(1)), len(m.group(4)) // 2, int(m.group(2)),
                          int(m.group(3)), desc.decode(), value))
    return items


def dump(path, *extra):
    status, out, err = sfber("dump", path, *extra)
    assert status == 0, "sfber dump %s failed: %s" % (path, err)
    return parse_dump(out)


def unescape(rendered):
    """(bytes, truncated) behind a quoted rendering with \\xHH escapes."""
    truncated = rendered.endswith(b"'...")
    body = rendered[1:-4] if truncated else rendered[1:-1]
    return re.sub(rb"\\x(..)", lambda m: bytes([int(m.group(1), 16)]), body, flags=re.S), truncated


def split_pdus(stream):
    """Splits a byte stream into its top-level definite-length items."""
    pdus, i = [], 0
    while i < len(stream):
        k = stream[i + 1] & 0x7F if stream[i + 1] & 0x80 else 0
        hl = 2 + k
        n = int.from_bytes(stream[i + 2:i + hl], "big") if k else stream[i + 1]
        pdus.append(stream[i:i + hl + n])
        i += hl + n
    return pdus
