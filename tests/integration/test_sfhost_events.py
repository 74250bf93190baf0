"""Events reach the system log: sfhost runs in a private mount namespace
whose /dev/log is a datagram socket bound by this test, so syslog(3) posts to
the test instead of the machine's logger. Needs root (for the namespace)."""
import os
import re
import shutil
import signal
import socket
import subprocess
import unittest

from test_sfhost_basic import Site

BUILD = os.environ.get("SF_BUILD_DIR", "build")
SOURCE = os.environ.get("SF_SOURCE_DIR", ".")
SFHOST = os.path.join(BUILD, "bin", "sfhost")

# Inside the namespace: a /dev that holds the usual nodes and our socket.
NAMESPACE_SCRIPT = r"""
set -e
dev="$1"; shift
for n in null zero full random urandom tty; do
  [ -e /dev/$n ] || continue
  touch "$dev/$n"; mount --bind /dev/$n "$dev/$n"
done
mkdir -p "$dev/shm" "$dev/pts"; mount --bind /dev/shm "$dev/shm"
ln -sf /proc/self/fd "$dev/fd"
mount --rbind "$dev" /dev
exec "$@"
"""


def can_unshare():
    if os.geteuid() != 0 or not shutil.which("unshare"):
        return False
    r = subprocess.run(["unshare", "--mount", "--propagation", "private", "true"],
                       capture_output=True)
    return r.returncode == 0


@unittest.skipUnless(can_unshare(), "needs root and mount namespaces")
class EventsToSyslogTest(unittest.TestCase):
    def setUp(self):
        self.site = Site("")
        self.addCleanup(self.site.close)
        self.root, self.write, self.env = self.site.root, self.site.write, self.site.env
        self.dev = self.site.path("dev")
        os.makedirs(self.dev)
        shutil.copy(os.path.join(SOURCE, "etc", "sf_events.msg"), self.site.path("etc"))
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(os.path.join(self.dev, "log"))
        self.sock.settimeout(60)
        self.addCleanup(self.sock.close)

    def config(self, extra):
        self.write("etc/config.tcl",
                   "package require msgcat\n"
                   "source [file join ${sf.rootdir} etc sf_events.msg]\n"
                   "set sf.log.dir .\nset sf.log.useevorsyslog 1\n" + extra)

    def sfhost(self, *args):
        return subprocess.Popen(
            ["unshare", "--mount", "--propagation", "private", "sh", "-c", NAMESPACE_SCRIPT,
             "sh", self.dev, os.path.realpath(SFHOST), *args],
            cwd=self.root, env=self.env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            text=True)

    def receive(self):
        return self.sock.recv(65536).decode()

    def entry(self, pri, ident, text):
        # syslog(3): "<PRI>Mmm dd hh:mm:ss IDENT[PID]: TEXT"
        return re.compile(r"<%d>[A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} %s\[[0-9]+\]: %s$"
                          % (pri, re.escape(ident), re.escape(text)))

    def test_events_from_scripts_and_the_library_are_posted(self):
        self.config("set sf.servicename proxyA\nset sf.syslog.ident sftest\n")
        self.write("etc/start.tcl",
                   "sf_event 02_sf_bind_s 1.2.3.4:80\n"
                   "sf_event 77_sf_unknown_s x\n"
                   "sf_log 1 {events sent}\n")
        p = self.sfhost()
        try:
            # Facility 152 (local3) | priority 4 (warning) = 156.
            self.assertRegex(self.receive(), self.entry(
                156, "sftest", "proxyA: [2] cannot bind listening address: 1.2.3.4:80 "))
            self.assertRegex(self.receive(), self.entry(
                156, "sftest", "proxyA: [77] no translation for 77_sf_unknown_s { x } "))
        finally:
            p.send_signal(signal.SIGTERM)
            out, err = p.communicate(timeout=60)
        self.assertEqual(p.returncode, 0, err)

    def test_failing_script_posts_its_event_with_the_configured_priority(self):
        # local0 (128) and error (3).
        self.config("set sf.syslog.facility 128\nset sf.syslog.prio 3\n")
        self.write("broken.tcl", "error {no such service}\n")
        p = self.sfhost("broken.tcl")
        out, err = p.communicate(timeout=60)
        self.assertEqual(p.returncode, 2, err)
        self.assertIn("no such service", err)
        self.assertRegex(self.receive(), self.entry(
            131, "qdlsf", "[3] script file failed, see the log for the Tcl error: broken.tcl "))


if __name__ == "__main__":
    unittest.main(verbosity=2)
