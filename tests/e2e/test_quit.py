"""Every way of quitting stops the gateway with SIGTERM and leaves nothing behind."""

import signal
import time
import unittest

from harness import ShellSession, wait_until


class QuitTest(unittest.TestCase):
    def start(self, boot_delay=0.0, ready=True, ignore_sigterm=False):
        self.session = ShellSession(self.id().rsplit(".", 1)[-1], boot_delay=boot_delay,
                                    ignore_sigterm=ignore_sigterm)
        self.addCleanup(self.session.close)
        self.session.launch()
        if ready:
            self.session.wait_ready()
        else:
            wait_until(self.session.gateway_pids, 30, "the gateway to start")
        self.session.main_window()
        return self.session

    def assertQuitCleanly(self, s):
        self.assertEqual(s.wait_exit(), 0)
        gateways = s.gateway_pids()
        self.assertEqual(len(gateways), 1)
        stopped = [e["pid"] for e in s.events("sigterm")]
        self.assertEqual(stopped, gateways, "the gateway was asked to stop with SIGTERM")
        s.assert_nothing_left(self)

    def test_ctrl_q(self):
        s = self.start()
        s.key("ctrl+q")
        self.assertQuitCleanly(s)

    def test_ctrl_w_closes_the_window_and_quits(self):
        s = self.start()
        s.key("ctrl+w")
        self.assertQuitCleanly(s)

    def test_window_close_button(self):
        s = self.start()
        s.close_window()
        self.assertQuitCleanly(s)

    def test_signals(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(signal=number.name):
                s = ShellSession(f"signal-{number.name}")
                try:
                    s.launch()
                    s.wait_ready()
                    s.main_window()
                    s.app.send_signal(number)
                    self.assertQuitCleanly(s)
                finally:
                    s.close()

    def test_gateway_that_ignores_sigterm_is_killed(self):
        # Only the shell's own stop waits and then kills: a gateway that
        # outlived it would show here as a leftover process.
        s = self.start(ignore_sigterm=True)
        asked = time.monotonic()
        s.key("ctrl+q")
        self.assertQuitCleanly(s)
        self.assertGreater(time.monotonic() - asked, 1.0, "the shell waited for the gateway")

    def test_quit_while_the_gateway_is_still_booting(self):
        s = self.start(boot_delay=30, ready=False)
        s.key("ctrl+q")
        self.assertQuitCleanly(s)
        self.assertEqual(s.requests("/"), [])


if __name__ == "__main__":
    unittest.main()
