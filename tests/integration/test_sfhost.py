"""sfhost as an operator runs it: usage, a site served until a signal with its
script threads and timers, exit statuses of broken sites and scripts, where
it finds its site, and events posted to the system log."""
import glob
import os
import re
import shutil
import signal
import socket
import subprocess
import unittest

from sfnet_support import SFHOST, SOURCE, SiteTest, poll, read, run_until


class SfhostTest(SiteTest):
    def test_serves_until_a_signal_with_threads_and_timers(self):
        site = self.site(
            "set sf.log.dir logs\nset sf.log.level 2\nmkQ jobs\n"
            "spinThread dummyWorker jobs {sf_log 1 \"worker [sfThreadId] sees: [status]\"}\n",
            start="sf_mkTmr jobs 0 200000\nsf_mkTmr jobs 0 400000\nsf_mkTmr nowhere 0 1000\n"
                  "sf_log 1 \"start script ran\"\n", level=None)
        os.makedirs(site.path("logs"))
        log = site.path("logs/sf.log")
        p = subprocess.Popen(site.command(), cwd=site.root, env=site.env, text=True,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        poll(lambda: read(log).count("dummy worker dequeued msg") >= 2, 60, lambda: read(log))
        p.send_signal(signal.SIGTERM)
        out, err = p.communicate(timeout=60)
        self.assertEqual(p.returncode, 0, err)
        text = read(log)
        self.assertEqual(len(re.findall(r"^queued timer \d+$", out, re.M)), 3, out)
        self.assertEqual(text.count("dummy worker dequeued msg"), 2)
        # The worker's script runs with its own thread listed by status.
        self.assertRegex(text, r"worker (\d+) sees: \{ \1 +\{dummyWorker\} \{jobs\}")
        self.assertIn("getQ: queue nowhere not found", text)
        self.assertIn("SIGTERM received, shutting down", text)

        # SIGINT, records on standard error (-l) from before the log opens,
        # and named scripts instead of start.tcl.
        site.write("mine.tcl", "sf_log 1 {named script}\n")
        status, err = run_until(site.command("-l", "-d", "2", "mine.tcl"), "named script",
                                signal.SIGINT, cwd=site.root, env=site.env)
        self.assertEqual(status, 0, err)
        self.assertIn("sfrootdir=%s datdir = %s" % (site.root, site.root), err)
        self.assertIn("SIGINT received, shutting down", err)
        self.assertNotIn("start script ran", err)

    def test_broken_sites_and_scripts_end_with_their_status(self):
        site = self.site("", level=None)
        cases = [  # config.tcl, start.tcl, extra arguments, status, texts on stderr
            ("set sf.log.dir .\nset broken [oops\n", "", [], 2,
             ["sfhost: site configuration failed", "missing close-bracket", "config.tcl"]),
            # one line naming the key, the value and what is allowed
            ("set sf.log.filemax big\n", "", [], 2,
             ['sfhost: bad configuration: sf.log.filemax is "big"; allowed: a decimal integer']),
            ("set sf.qsize 0\n", "", [], 2, ['sf.qsize is "0"; allowed: a decimal integer from 1 to']),
            ("set sf.log.numfiles 010\n", "", [], 2, ['sf.log.numfiles is "010"']),
            ("set sf.log.dir /nonexistent\n", "", [], 2, ['sf.log.dir is "/nonexistent"; allowed']),
            ('set sf.http.server "a\\r\\nX: y"\n', "", [], 2, ['sf.http.server is "a\\r\\nX: y"']),
            ("bind 127.0.0.1 70000\n", "", [], 2, ['bind: port "70000" is not a number from 1 to']),
            ("", "", ["-rootdir", site.path("nowhere")], 2, ["nowhere/etc/config.tcl"]),
            ("", "error {no service configured}\n", [], 2,
             ["sfhost: start script failed", "no service configured"]),
            ("mkQ echo\n", "dummyWorker echo\n", [], 2,
             ["dummyWorker never returns: start it in a thread of its own"]),
            ("set sf.log.dir .\n", "spinThread noSuchProc a b\n", [], 3, []),
        ]
        for config, start, args, status, texts in cases:
            site.write("etc/config.tcl", config)
            site.write("etc/start.tcl", start)
            r = site.run(*args)
            self.assertEqual(r.returncode, status, r.stderr)
            for text in texts:
                self.assertIn(text, r.stderr)
        # The first case opened no log; the last left its reason and a dump.
        self.assertIn("exported thread proc not found: {noSuchProc} {a} {b}",
                      read(site.path("sf.log")))
        dumps = glob.glob(site.path("dump_*"))
        self.assertEqual(len(dumps), 1)
        self.assertIn("thread exiting, out of configuration", read(dumps[0]))

    def test_where_sfhost_finds_its_site(self):
        # (Without options, the installed package's test.) From the
        # environment, with a current directory that has vanished:
        # reported at level 0 while starting and at level 1 once the log is
        # open, and start-up goes on.
        site = self.site("", start="sf_log 1 {start script ran}\n", level=None)
        os.makedirs(site.path("gone"))
        status, err = run_until(["sh", "-c", 'cd "$1" && rmdir "$1" && exec "$2" -l -d 1', "sh",
                                 site.path("gone"), os.path.realpath(SFHOST)], "start script ran",
                                env=dict(site.env, SFROOTDIR=site.root))
        self.assertEqual(status, 0, err)
        self.assertRegex(err, r"/0 <[^>]*> \(0\) data directory not found/readable \n")
        self.assertRegex(err, r'/1 <[^>]*> \(0\) data directory not found/readable: ""\n')
        for flag in ("-h", "--help"):
            r = subprocess.run([SFHOST, flag], capture_output=True, text=True, timeout=30)
            self.assertEqual(r.returncode, 0)
            for word in ("-rootdir", "-datdir", "-d LEVEL", "-l", "SFROOTDIR", "SFDATDIR",
                         "SF_DBG", "TAVODATDIR", "Exit status"):
                self.assertIn(word, r.stdout)

    @unittest.skipUnless(os.geteuid() == 0 and shutil.which("unshare"), "needs root")
    def test_events_reach_the_system_log(self):
        # sfhost runs in a private mount namespace whose /dev/log is a
        # datagram socket bound here, so syslog(3) posts to this test.
        site = self.site("", level=None)
        dev = site.path("dev")
        os.makedirs(dev)
        shutil.copy(os.path.join(SOURCE, "etc", "sf_events.msg"), site.path("etc"))
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(sock.close)
        sock.bind(os.path.join(dev, "log"))
        sock.settimeout(60)
        namespace = ('set -e; for n in null zero urandom; do touch "$1/$n"; '
                     'mount --bind /dev/$n "$1/$n"; done; mkdir -p "$1/shm"; '
                     'mount --bind /dev/shm "$1/shm"; mount --rbind "$1" /dev; shift; exec "$@"')

        def sfhost(config, *args):
            site.write("etc/config.tcl", "package require msgcat\nsource [file join "
                       "${sf.rootdir} etc sf_events.msg]\nset sf.log.useevorsyslog 1\n" + config)
            return subprocess.run(["unshare", "--mount", "--propagation", "private", "sh", "-c",
                                   namespace, "sh", dev, *site.command(*args)], cwd=site.root,
                                  env=site.env, capture_output=True, text=True, timeout=60)

        def entry(pri, ident, text):  # "<PRI>Mmm dd hh:mm:ss IDENT[PID]: TEXT"
            self.assertRegex(sock.recv(65536).decode(), r"^<%d>[A-Z][a-z]{2} [ 0-9][0-9] "
                             r"[0-9:]{8} %s\[[0-9]+\]: %s$" % (pri, ident, re.escape(text)))

        # By default local3 (152) | warning (4) under the ident qdlsf; then
        # local0 (128) | error (3), another ident, the service name in front.
        # Texts are the unit test's; here an event and sfhost's own one arrive.
        site.write("events.tcl", "sf_event 02_sf_bind_s 1.2.3.4:80\nerror {no such service}\n")
        texts = ["[2] cannot bind listening address: 1.2.3.4:80 ",
                 "[3] script file failed, see the log for the Tcl error: events.tcl "]
        for config, pri, ident, prefix in (
                ("", 156, "qdlsf", ""),
                ("set sf.servicename proxyA\nset sf.syslog.ident sftest\n"
                 "set sf.syslog.facility 128\nset sf.syslog.prio 3\n", 131, "sftest", "proxyA: ")):
            r = sfhost(config, "events.tcl")
            self.assertEqual(r.returncode, 2, r.stderr)
            for text in texts:
                entry(pri, ident, prefix + text)
