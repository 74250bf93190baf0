"""Start-up and stop at any moment: SIGTERM while the configuration's threads
are still starting, and sf_quiesce from every kind of thread, end sfhost with
status 0 and its closing lines, never an abort. Also run in the TSan build,
where any data race makes sfhost exit with TSan's status instead."""

import os
import random
import signal
import time

from sfnet_support import SiteTest, connect, echoes

# Several threads that evaluate at once from the first moment: a reader, two
# workers, an HTTP reader; the HTTP commands are registered while they run.
CONFIG = """
set sf.log.level 0
mkQ echo
mkQ stopq
bind 127.0.0.1 @PORT@
spinThread tcpReader 127.0.0.1 @PORT@ {enQ echo}
spinThread dummyWorker echo sf_echo
spinThread dummyWorker stopq {sf_log 1 "worker stops the site"; sf_quiesce}
%s
"""

STOPPED = "sfhost: stopped"


def blocks_sigterm(pid):
    """True once sfhost's main has taken the stop signals over (before that
    the default action ends the process, as for any program)."""
    with open("/proc/%d/status" % pid) as f:
        mask = next(line for line in f if line.startswith("SigBlk:")).split()[1]
    return int(mask, 16) & (1 << (signal.SIGTERM - 1)) != 0


class StartStopTest(SiteTest):
    def assert_stopped(self, site, status, why):
        self.assertEqual(status, 0, "%s:\n%s" % (why, site.text()[-3000:]))
        self.assertIn(STOPPED, site.text())

    def test_sigterm_at_random_moments_of_start_up(self):
        rng = random.Random(os.getpid())
        for _ in range(12):
            site = self.site(CONFIG % "", level=1, ports=())
            while not blocks_sigterm(site.proc.pid):
                time.sleep(0.001)
            time.sleep(rng.uniform(0, 0.08))
            self.assert_stopped(site, site.stop(), "SIGTERM during start-up")

    def test_quiesce_from_each_kind_of_thread(self):
        cases = {
            # the configuration script itself, on the main thread
            "config": ("sf_quiesce", None),
            # a start script, on the main thread after init
            "start script": ("", "sf_quiesce\n"),
            # a script thread calling the command directly, without the lock
            "script thread": ("spinThread sf_quiesce", None),
            # a worker evaluating it while the reader is busy with a client
            "worker": ("", "sf_mkTmr stopq 1\n"),
        }
        for name, (extra, start) in cases.items():
            with self.subTest(name):
                site = self.site(CONFIG % extra, start, level=1, ports=())
                if name == "worker":
                    site.wait_listening()
                    with connect(site.port) as c:
                        try:
                            while echoes(c, b"tick"):
                                pass
                        except OSError:
                            pass  # the server went away under the client
                self.assert_stopped(site, site.proc.wait(60), "sf_quiesce from " + name)
                self.assertIn("sfhost: shut down by a script", site.text())
