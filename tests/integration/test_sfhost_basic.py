"""sfhost as a user runs it: usage text, start on a site and stop on a
signal, and clear failures for a broken site or a broken start script."""
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

BUILD = os.environ.get("SF_BUILD_DIR", "build")
SFHOST = os.path.join(BUILD, "bin", "sfhost")


def shm_names(tavodatdir):
    base = "estat" + "".join("_" if c in "/:\\" else c for c in tavodatdir)
    return [base + "_shm", base + "_mx"]


class Site:
    """A site directory with etc/config.tcl, its own statistics block name
    and a clean environment."""

    def __init__(self, config, start=None):
        self.tmp = tempfile.TemporaryDirectory(prefix="sfhost-")
        self.root = self.tmp.name
        os.makedirs(os.path.join(self.root, "etc"))
        self.write("etc/config.tcl", config)
        if start is not None:
            self.write("etc/start.tcl", start)
        self.env = {k: v for k, v in os.environ.items()
                    if not k.startswith(("SF", "TAVO", "ESTAT"))}
        self.env["SFROOTDIR"] = self.root
        self.env["SFDATDIR"] = self.root
        self.env["TAVODATDIR"] = self.root

    def write(self, rel, text):
        with open(os.path.join(self.root, rel), "w") as f:
            f.write(text)

    def path(self, rel):
        return os.path.join(self.root, rel)

    def close(self):
        for name in shm_names(self.root):
            try:
                os.unlink("/dev/shm/" + name)
            except FileNotFoundError:
                pass
        self.tmp.cleanup()

    def start(self, *args):
        return subprocess.Popen([SFHOST, *args], cwd=self.root, env=self.env,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def run(self, *args, timeout=60):
        return subprocess.run([SFHOST, *args], cwd=self.root, env=self.env,
                              capture_output=True, text=True, timeout=timeout)


def free_port():
    """A loopback port nobody listens on now, for the default site's HTTP
    service (it reads SF_HTTP_PORT)."""
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return str(s.getsockname()[1])


def wait_for(predicate, what, limit=60.0):
    deadline = time.monotonic() + limit
    while not predicate():
        if time.monotonic() > deadline:
            raise AssertionError("gave up waiting for " + what)
        time.sleep(0.05)


def read(path):
    try:
        with open(path) as f:
            return f.read()
    except FileNotFoundError:
        return ""


class SfhostTest(unittest.TestCase):
    def site(self, config, start=None):
        s = Site(config, start)
        self.addCleanup(s.close)
        return s

    def test_help_lists_options_environment_and_exit_statuses(self):
        for flag in ("-h", "--help"):
            r = subprocess.run([SFHOST, flag], capture_output=True, text=True, timeout=30)
            self.assertEqual(r.returncode, 0)
            for word in ("-rootdir", "-datdir", "-d LEVEL", "-l", "SFROOTDIR", "SFDATDIR",
                         "SF_DBG", "TAVODATDIR", "Exit status"):
                self.assertIn(word, r.stdout)

    def test_starts_runs_start_script_and_stops_on_signals(self):
        site = self.site('set sf.log.dir {%s}\nset sf.log.level 2\n' % "logs",
                         start='sf_log 1 "start script ran in [pwd]"\n')
        os.makedirs(site.path("logs"))
        # SIGTERM with the log file; SIGINT with records on standard error
        # (-l), where the start-up records written before the log opens show.
        p = site.start()
        log = site.path("logs/sf.log")
        wait_for(lambda: "start script ran" in read(log), "the start script's line")
        self.assertIsNone(p.poll(), "sfhost did not stay up")
        p.send_signal(signal.SIGTERM)
        out, err = p.communicate(timeout=60)
        self.assertEqual(p.returncode, 0, err)
        self.assertIn("SIGTERM received, shutting down", read(log))

        p = site.start("-l", "-d", "2")
        seen = []
        for line in p.stderr:
            seen.append(line)
            if "start script ran" in line:
                break
        p.send_signal(signal.SIGINT)
        out, err = p.communicate(timeout=60)
        err = "".join(seen) + err
        self.assertEqual(p.returncode, 0, err)
        self.assertIn("sfrootdir=%s datdir = %s" % (site.root, site.root), err)
        self.assertIn("SIGINT received, shutting down", err)

    def test_named_scripts_replace_start_tcl(self):
        site = self.site("set sf.log.dir .\n", start="sf_log 1 {default start}\n")
        site.write("mine.tcl", "sf_log 1 {named script}\n")
        p = site.start("-x", "mine.tcl")
        wait_for(lambda: "named script" in read(site.path("sf.log")), "the named script")
        p.send_signal(signal.SIGTERM)
        p.communicate(timeout=60)
        self.assertEqual(p.returncode, 0)
        self.assertNotIn("default start", read(site.path("sf.log")))

    def test_broken_site_gives_a_clear_message_and_status_2(self):
        site = self.site("set sf.log.dir .\nset broken [oops\n")
        r = site.run()
        self.assertEqual(r.returncode, 2)
        self.assertIn("sfhost: site configuration failed", r.stderr)
        self.assertIn("missing close-bracket", r.stderr)
        self.assertIn("config.tcl", r.stderr)
        self.assertFalse(os.path.exists(site.path("sf.log")), "log opened after a failed start")

        site.write("etc/config.tcl", "set sf.log.filemax big\n")
        r = site.run()
        self.assertEqual(r.returncode, 2)
        self.assertIn('expected integer but got "big"', r.stderr)
        self.assertIn("sf.log", r.stderr)

    def test_missing_root_and_failing_start_script(self):
        site = self.site("")
        env = dict(site.env, SFROOTDIR=site.path("nowhere"))
        r = subprocess.run([SFHOST], cwd=site.root, env=env, capture_output=True, text=True,
                           timeout=60)
        self.assertEqual(r.returncode, 2)
        self.assertIn("nowhere/etc/config.tcl", r.stderr)

        site.write("etc/start.tcl", "error {no service configured}\n")
        r = site.run()
        self.assertEqual(r.returncode, 2)
        self.assertIn("sfhost: start script failed", r.stderr)
        self.assertIn("no service configured", r.stderr)

    def test_vanished_data_directory_is_reported_and_start_up_goes_on(self):
        site = self.site("set sf.log.dir .\n", start="sf_log 1 {start script ran}\n")
        gone = os.path.join(site.root, "gone")
        os.makedirs(gone)
        env = dict(site.env)
        del env["SFDATDIR"]
        # The current directory, the last resort for the data directory, no
        # longer exists when sfhost starts.
        p = subprocess.Popen(["sh", "-c", 'cd "$1" && rmdir "$1" && exec "$2" -l -d 1',
                              "sh", gone, os.path.realpath(SFHOST)],
                             env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        seen = []
        for line in p.stderr:
            seen.append(line)
            if "start script ran" in line:
                break
        p.send_signal(signal.SIGTERM)
        out, err = p.communicate(timeout=60)
        err = "".join(seen) + err
        self.assertEqual(p.returncode, 0, err)
        # The event at level 0 while starting, and a level-1 reminder once
        # the log is open.
        self.assertRegex(err, r"/0 <[^>]*> \(0\) data directory not found/readable \n")
        self.assertRegex(err, r'/1 <[^>]*> \(0\) data directory not found/readable: ""\n')

    def test_default_site_of_the_build_tree(self):
        # No options and no environment: the root is build/ (bin/..), whose
        # etc/ holds the default config.tcl and start.tcl.
        with tempfile.TemporaryDirectory(prefix="sfhost-cwd-") as cwd:
            env = {k: v for k, v in os.environ.items()
                   if not k.startswith(("SF", "TAVO", "ESTAT"))}
            env["TAVODATDIR"] = cwd
            env["SF_HTTP_PORT"] = free_port()
            try:
                p = subprocess.Popen([SFHOST], cwd=cwd, env=env, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True)
                log = os.path.join(cwd, "sf.log")
                wait_for(lambda: "started: root" in read(log), "the default start script")
                p.send_signal(signal.SIGTERM)
                out, err = p.communicate(timeout=60)
                self.assertEqual(p.returncode, 0, err)
                self.assertIn("root %s" % os.path.realpath(BUILD), read(log))
            finally:
                for name in shm_names(cwd):
                    try:
                        os.unlink("/dev/shm/" + name)
                    except FileNotFoundError:
                        pass

    def test_installed_tree_finds_its_site_without_options(self):
        with tempfile.TemporaryDirectory(prefix="sfhost-prefix-") as prefix:
            r = subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix],
                               capture_output=True, text=True, timeout=300)
            self.assertEqual(r.returncode, 0, r.stderr)
            for rel in ("bin/sfhost", "etc/config.tcl", "etc/start.tcl", "etc/sf_events.msg"):
                self.assertTrue(os.path.exists(os.path.join(prefix, rel)), rel)
            env = {k: v for k, v in os.environ.items()
                   if not k.startswith(("SF", "TAVO", "ESTAT"))}
            env["TAVODATDIR"] = prefix
            env["SF_HTTP_PORT"] = free_port()
            try:
                p = subprocess.Popen([os.path.join(prefix, "bin", "sfhost"), "-l"], cwd=prefix,
                                     env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     text=True)
                seen = []
                for line in p.stderr:
                    seen.append(line)
                    if "started: root" in line:
                        break
                p.send_signal(signal.SIGTERM)
                out, err = p.communicate(timeout=60)
                err = "".join(seen) + err
                self.assertEqual(p.returncode, 0, err)
                self.assertIn("started: root %s," % prefix, err)
            finally:
                for name in shm_names(prefix):
                    try:
                        os.unlink("/dev/shm/" + name)
                    except FileNotFoundError:
                        pass


if __name__ == "__main__":
    unittest.main(verbosity=2)
