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
    """One item of a dump: offset, depth, header length, length, identifier
    text and the value's rendering (bytes), if any."""

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
        if not m:
            raise AssertionError("unexpected dump line %r" % line)
        rest = m.group(5)
        cut = rest.find(b"): ")
        desc, value = (rest[:cut + 1], rest[cut + 3:]) if cut >= 0 else (rest, None)
        items.append(Item(int(m.group(1)), len(m.group(4)) // 2, int(m.group(2)),
                          int(m.group(3)), desc.decode(), value))
    return items


def dump(path, *extra):
    status, out, err = sfber("dump", path, *extra)
    if status != 0:
        raise AssertionError("sfber dump %s failed: %s" % (path, err))
    return parse_dump(out)


def unescape(rendered):
    """The bytes behind a quoted text rendering ('...' with \\xHH escapes);
    returns (bytes, truncated)."""
    truncated = rendered.endswith(b"'...")
    body = rendered[1:-4] if truncated else rendered[1:-1]
    out = bytearray()
    i = 0
    while i < len(body):
        if body[i:i + 2] == b"\\x":
            out.append(int(body[i + 2:i + 4], 16))
            i += 4
        else:
            out.append(body[i])
            i += 1
    return bytes(out), truncated


def split_pdus(stream):
    """Splits a byte stream into its top-level definite-length items."""
    pdus, i = [], 0
    while i < len(stream):
        first = stream[i + 1]
        if first < 0x80:
            hl, n = 2, first
        else:
            k = first & 0x7F
            hl, n = 2 + k, int.from_bytes(stream[i + 2:i + 2 + k], "big")
        pdus.append(stream[i:i + hl + n])
        i += hl + n
    return pdus
