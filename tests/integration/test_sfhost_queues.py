"""Queues, script threads, timers and the watchdog in a running sfhost."""
import glob
import os
import re
import signal
import unittest

from test_sfhost_basic import Site, read, wait_for


class QueuesTest(unittest.TestCase):
    def site(self, config, start=None):
        s = Site(config, start)
        self.addCleanup(s.close)
        return s

    def test_timer_messages_reach_a_dummy_worker(self):
        site = self.site(
            "set sf.log.dir .\nset sf.log.level 2\nmkQ jobs\n"
            "spinThread dummyWorker jobs {sf_log 1 \"worker [sfThreadId] sees: [status]\"}\n",
            start="sf_mkTmr jobs 0 200000\nsf_mkTmr jobs 0 400000\n"
                  "sf_mkTmr nowhere 0 1000\n")
        p = site.start()
        log = site.path("sf.log")
        wait_for(lambda: read(log).count("dummy worker dequeued msg") >= 2,
                 "two timer messages processed")
        p.send_signal(signal.SIGTERM)
        out, err = p.communicate(timeout=60)
        self.assertEqual(p.returncode, 0, err)
        self.assertEqual(len(re.findall(r"^queued timer \d+$", out, re.M)), 3, out)
        text = read(log)
        self.assertEqual(text.count("dummy worker dequeued msg"), 2)
        self.assertIn("getQ: queue nowhere not found", text)
        # The worker's script runs with its own thread listed by status.
        self.assertRegex(text, r"worker (\d+) sees: \{ \1 +\{dummyWorker\} \{jobs\}")
        self.assertRegex(text, r"timer \d+ has no queue, message dropped")

    def test_hung_worker_is_ended_by_the_watchdog(self):
        # The script sleeps holding the interpreter lock when the watchdog fires.
        site = self.site(
            "set sf.log.dir .\nset sf.watchdog 1\nmkQ jobs\n"
            "spinThread dummyWorker jobs {after 30000}\n",
            start="sf_mkTmr jobs 0 0\n")
        r = site.run(timeout=60)
        self.assertEqual(r.returncode, 1, r.stderr)
        dumps = glob.glob(site.path("dump_*"))
        self.assertEqual(len(dumps), 1)
        self.assertIn("Reason for dump: watchdog shutdown", read(dumps[0]))

    def test_thread_without_procedure_ends_the_process(self):
        site = self.site("set sf.log.dir .\n", start="spinThread noSuchProc a b\n")
        r = site.run(timeout=60)
        self.assertEqual(r.returncode, 3, r.stderr)
        text = read(site.path("sf.log"))
        self.assertIn("exported thread proc not found: {noSuchProc} {a} {b}", text)
        dumps = glob.glob(site.path("dump_*"))
        self.assertEqual(len(dumps), 1)
        self.assertIn("thread exiting, out of configuration", read(dumps[0]))


if __name__ == "__main__":
    unittest.main(verbosity=2)
