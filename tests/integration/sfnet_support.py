"""Helpers for the TCP tests: an sfhost site built from a config text,
clients, and waiting for log lines. Servers listen on 127.0.0.1 only."""

import os
import signal
import socket
import subprocess
import tempfile
import time

BUILD = os.environ.get("SF_BUILD_DIR", "build")
SFHOST = os.path.join(BUILD, "bin", "sfhost")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def shm_names(tavodatdir):
    base = "estat" + "".join("_" if c in "/:\\" else c for c in tavodatdir)
    return [base + "_shm", base + "_mx"]


def poll(pred, timeout, what):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if pred():
            return
        time.sleep(0.05)
    raise AssertionError(what())


def clean_env(**extra):
    """The environment without this library's variables, plus extra."""
    env = {k: v for k, v in os.environ.items() if not k.startswith(("SF", "TAVO", "ESTAT"))}
    env.update(extra)
    return env


def run_until(cmd, marker, sig=signal.SIGTERM, **kw):
    """Starts cmd, reads its standard error up to a line holding marker and
    sends sig; returns the exit status and all of standard error."""
    p = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **kw)
    seen = []
    for line in p.stderr:
        seen.append(line)
        if marker in line:
            break
    p.send_signal(sig)
    _, err = p.communicate(timeout=60)
    return p.returncode, "".join(seen) + err


def read(path):
    try:
        with open(path, errors="replace") as f:
            return f.read()
    except FileNotFoundError:
        return ""


def can_connect(port):
    try:
        socket.create_connection(("127.0.0.1", port), timeout=1).close()
        return True
    except OSError:
        return False


class Site:
    """A throw-away site: root with etc/config.tcl (and start.tcl when
    given), its own data directory and statistics block name."""

    def __init__(self, config, start=None, port=None):
        self.tmp = tempfile.TemporaryDirectory(prefix="sfnet-")
        self.root = self.tmp.name
        self.port = port or free_port()
        os.makedirs(os.path.join(self.root, "etc"))
        self.write("etc/config.tcl", config)
        if start is not None:
            self.write("etc/start.tcl", start)
        self.env = clean_env(TAVODATDIR=self.root)
        self.proc = self._err = None
        self.log = os.path.join(self.root, "stderr.txt")

    def path(self, rel):
        return os.path.join(self.root, rel)

    def write(self, rel, text):
        with open(self.path(rel), "w") as f:
            f.write(text.replace("@PORT@", str(self.port)))

    def command(self, *args):
        return [SFHOST, "-rootdir", self.root, "-datdir", self.root, *args]

    def run(self, *args, timeout=60):
        """Runs sfhost on this site to its end."""
        return subprocess.run(self.command(*args), cwd=self.root, env=self.env,
                              capture_output=True, text=True, timeout=timeout)

    def run_until(self, marker, *args, sig=signal.SIGTERM):
        return run_until(self.command(*args), marker, sig, cwd=self.root, env=self.env)

    def start(self, level=3):
        """Starts sfhost with its log on stderr (kept in stderr.txt)."""
        self._err = open(self.log, "w")
        self.proc = subprocess.Popen(
            [SFHOST, "-rootdir", self.root, "-datdir", self.root, "-l", "-d", str(level)],
            cwd=self.root, env=self.env, stdout=subprocess.PIPE, stderr=self._err, text=True)
        return self.proc

    def wait_listening(self, timeout=30.0):
        def up():
            if self.proc.poll() is not None:
                raise RuntimeError("sfhost exited with %s:\n%s" % (self.proc.returncode, self.text()))
            return can_connect(self.port)
        poll(up, timeout, lambda: "sfhost does not listen on %d" % self.port)

    def text(self):
        return read(self.log)

    def wait_log(self, needle, timeout=30.0):
        poll(lambda: needle in self.text(), timeout,
             lambda: "log never said %r:\n%s" % (needle, self.text()[-3000:]))

    def stop(self, timeout=30.0):
        """SIGTERM, and the exit status (None if it had to be killed)."""
        if self.proc is None or self.proc.poll() is not None:
            return None if self.proc is None else self.proc.returncode
        self.proc.send_signal(signal.SIGTERM)
        try:
            return self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            return None

    def close(self):
        self.stop()
        if self._err:
            self._err.close()
        remove_shm(self.root)
        self.tmp.cleanup()


def remove_shm(tavodatdir):
    for name in shm_names(tavodatdir):
        try:
            os.unlink("/dev/shm/" + name)
        except FileNotFoundError:
            pass


ECHO_CONFIG = """
set sf.log.level 0
set sf.tcp.backlog 512
set sf.qsize 2000
{extra}
mkQ echo
bind 127.0.0.1 @PORT@ {bindextra}
spinThread tcpReader 127.0.0.1 @PORT@ {{enQ echo}}
spinThread dummyWorker echo sf_echo
"""


def echo_config(extra="", bindextra=""):
    return ECHO_CONFIG.format(extra=extra, bindextra=bindextra)


def connect(port, timeout=30.0):
    s = socket.create_connection(("127.0.0.1", port), timeout=timeout)
    s.settimeout(timeout)
    return s


def recv_exactly(s, n):
    out = b""
    while len(out) < n:
        chunk = s.recv(n - len(out))
        if not chunk:
            break
        out += chunk
    return out


def echoes(s, msg):
    s.sendall(msg)
    return recv_exactly(s, len(msg)) == msg
