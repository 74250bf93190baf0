"""sfhost as a user runs it: usage text, start on a site and stop on a
signal, and clear failures for a broken site or a broken start script."""
import os
import signal
import subprocess
import tempfile
import time
import unittest

from sfnet_support import free_port, shm_names

BUILD = os.environ.get("SF_BUILD_DIR", "build")
SFHOST = os.path.join(BUILD, "bin", "sfhost")


def clean_env(**extra):
    env = {k: v for k, v in os.environ.items() if not k.startswith(("SF", "TAVO", "ESTAT"))}
    env.update(extra)
    return env


def remove_shm(datdir):
    for name in shm_names(datdir):
        try:
            os.unlink("/dev/shm/" + name)
        except FileNotFoundError:
            pass


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
        with open(path) as f:
            return f.read()
    except FileNotFoundError:
        return ""


def wait_for(predicate, what, limit=60.0):
    deadline = time.monotonic() + limit
    while not predicate():
        if time.monotonic() > deadline:
            raise AssertionError("gave up waiting for " + what)
        time.sleep(0.05)


class Site:
    """A site directory with etc/config.tcl (and start.tcl), named by the
    environment, with its own statistics block."""

    def __init__(self, config, start=None):
        self.tmp = tempfile.TemporaryDirectory(prefix="sfhost-")
        self.root = self.tmp.name
        os.makedirs(self.path("etc"))
        self.write("etc/config.tcl", config)
        if start is not None:
            self.write("etc/start.tcl", start)
        self.env = clean_env(SFROOTDIR=self.root, SFDATDIR=self.root, TAVODATDIR=self.root)

    def path(self, rel):
        return os.path.join(self.root, rel)

    def write(self, rel, text):
        with open(self.path(rel), "w") as f:
            f.write(text)

    def close(self):
        remove_shm(self.root)
        self.tmp.cleanup()

    def start(self, *args):
        return subprocess.Popen([SFHOST, *args], cwd=self.root, env=self.env,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def run(self, *args, env=None, timeout=60):
        return subprocess.run([SFHOST, *args], cwd=self.root, env=env or self.env,
                              capture_output=True, text=True, timeout=timeout)

    def run_until(self, marker, *args, sig=signal.SIGTERM, env=None):
        return run_until([SFHOST, *args], marker, sig, cwd=self.root, env=env or self.env)


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
        site = self.site("set sf.log.dir logs\nset sf.log.level 2\n",
                         start='sf_log 1 "start script ran in [pwd]"\n')
        os.makedirs(site.path("logs"))
        # SIGTERM with the log file.
        p = site.start()
        log = site.path("logs/sf.log")
        wait_for(lambda: "start script ran" in read(log), "the start script's line")
        self.assertIsNone(p.poll(), "sfhost did not stay up")
        p.send_signal(signal.SIGTERM)
        _, err = p.communicate(timeout=60)
        self.assertEqual(p.returncode, 0, err)
        self.assertIn("SIGTERM received, shutting down", read(log))

        # SIGINT with records on standard error (-l), where the start-up
        # records written before the log opens show.
        status, err = site.run_until("start script ran", "-l", "-d", "2", sig=signal.SIGINT)
        self.assertEqual(status, 0, err)
        self.assertIn("sfrootdir=%s datdir = %s" % (site.root, site.root), err)
        self.assertIn("SIGINT received, shutting down", err)

    def test_named_scripts_replace_start_tcl(self):
        site = self.site("", start="sf_log 1 {default start}\n")
        site.write("mine.tcl", "sf_log 1 {named script}\n")
        status, err = site.run_until("named script", "-l", "-x", "mine.tcl")
        self.assertEqual(status, 0, err)
        self.assertNotIn("default start", err)

    def test_broken_site_missing_root_and_failing_start_script_exit_2(self):
        site = self.site("set sf.log.dir .\nset broken [oops\n")
        r = site.run()
        self.assertEqual(r.returncode, 2)
        for text in ("sfhost: site configuration failed", "missing close-bracket", "config.tcl"):
            self.assertIn(text, r.stderr)
        self.assertFalse(os.path.exists(site.path("sf.log")), "log opened after a failed start")

        site.write("etc/config.tcl", "set sf.log.filemax big\n")
        r = site.run()
        self.assertEqual(r.returncode, 2)
        self.assertIn('bad configuration: sf.log.filemax is "big"', r.stderr)
        self.assertIn("sf.log", r.stderr)

        r = site.run(env=dict(site.env, SFROOTDIR=site.path("nowhere")))
        self.assertEqual(r.returncode, 2)
        self.assertIn("nowhere/etc/config.tcl", r.stderr)

        site.write("etc/config.tcl", "")
        site.write("etc/start.tcl", "error {no service configured}\n")
        r = site.run()
        self.assertEqual(r.returncode, 2)
        self.assertIn("sfhost: start script failed", r.stderr)
        self.assertIn("no service configured", r.stderr)

    def test_vanished_data_directory_is_reported_and_start_up_goes_on(self):
        site = self.site("", start="sf_log 1 {start script ran}\n")
        gone = site.path("gone")
        os.makedirs(gone)
        env = dict(site.env)
        del env["SFDATDIR"]
        # The current directory, the last resort for the data directory, no
        # longer exists when sfhost starts.
        status, err = run_until(["sh", "-c", 'cd "$1" && rmdir "$1" && exec "$2" -l -d 1',
                                 "sh", gone, os.path.realpath(SFHOST)], "start script ran",
                                env=env)
        self.assertEqual(status, 0, err)
        # The event at level 0 while starting, and a level-1 reminder once
        # the log is open.
        self.assertRegex(err, r"/0 <[^>]*> \(0\) data directory not found/readable \n")
        self.assertRegex(err, r'/1 <[^>]*> \(0\) data directory not found/readable: ""\n')

    def test_default_site_of_the_build_tree(self):
        # No options and no environment: the root is build/ (bin/..), whose
        # etc/ holds the default config.tcl and start.tcl.
        with tempfile.TemporaryDirectory(prefix="sfhost-cwd-") as cwd:
            self.addCleanup(remove_shm, cwd)
            env = clean_env(TAVODATDIR=cwd, SF_HTTP_PORT=str(free_port()))
            status, err = run_until([SFHOST, "-l"], "started: root", cwd=cwd, env=env)
            self.assertEqual(status, 0, err)
            self.assertIn("started: root %s, data %s\n" % (os.path.realpath(BUILD),
                                                            os.path.realpath(cwd)), err)


if __name__ == "__main__":
    unittest.main(verbosity=2)
