"""Port 8088 held by another account's program: the window says so and never shows that program's
page, whether the port was taken before the shell started or while it waited for its own gateway;
and the supervisor gives up for good instead of relaunching. Needs root for the second account."""

import json, re, subprocess, time, unittest

from account import Desktop
from harness import BUNDLE, HERE, Session, bundle_file, pid_alive, wait_until

REFUSED = "端口 8088 正被其他用户的程序占用，QOR Velmora 无法启动。"
# Longer than the supervisor's first two relaunch delays (2 s, then 4 s): a relaunch loop shows in
# it. Watching for something not to happen takes a span of time; nothing waits on it.
RELAUNCH_SPAN = 7
desktop = None


def setUpModule():
    global desktop
    desktop = Desktop()
    unittest.addModuleCleanup(desktop.close)


class PortOwnerTest(unittest.TestCase):
    def assert_nothing_relaunched(self, s, launches):
        """Over the relaunch span: the session's gateway launches stay at `launches`, none of them
        runs, and the shell stays up showing the port text."""
        end = time.monotonic() + RELAUNCH_SPAN
        while time.monotonic() < end:
            self.assertEqual(len(s.gateway_pids()), launches)
            self.assertEqual(s.processes(b"qor_gateway.main"), [])
            self.assertIsNone(s.app.poll())
            time.sleep(0.1)
        self.assertEqual(s.boot_label(), REFUSED)
        self.assertFalse(s.webview_visible())
        self.assertIn("[sidecar] port 8088 is held by another account", s.output())

    def test_a_second_accounts_window_shows_the_port_text_not_the_first_users_page(self):
        # Both sessions are made while the port is free; the first user's closes first.
        theirs = desktop.session("port-owner-second-account")
        self.addCleanup(theirs.close)
        mine = Session("port-owner-first-account")
        self.addCleanup(mine.close)
        mine.launch()
        mine.wait_ready()

        theirs.launch()
        wait_until(lambda: theirs.boot_label() == REFUSED, 60, "the port text")
        theirs.screenshot("port-owner-second-account")
        self.assert_nothing_relaunched(theirs, 0)
        # The first user's page went to the first user's window only.
        self.assertEqual([r["token"] for r in mine.requests("/")], [True])
        self.assertEqual(len(mine.gateway_pids()), 1)

    def test_a_foreign_gateway_that_comes_up_during_the_wait_is_refused(self):
        s = Session("port-owner-during-wait", boot_delay=600)  # its gateway binds much later
        self.addCleanup(s.close)
        s.launch()
        own = wait_until(s.gateway_pids, 30, "the shell's gateway")[0]
        wait_until(lambda: re.fullmatch(r"Starting QOR Velmora… [1-9]\d*s", s.boot_label()), 30,
                   "the readiness wait")

        # Another account's gateway, answering /healthz with the shipped version, takes the port.
        log = f"{desktop.folder}/run/foreign-gateway.jsonl"  # the account writes there
        foreign = subprocess.Popen(
            ["/usr/bin/python3", "-m", "qor_gateway.main", "--port", "8088"],
            cwd=f"{HERE}/test_gateway", stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env=dict(PATH="/usr/bin:/bin", LANG="C.UTF-8", PYTHONDONTWRITEBYTECODE="1",
                     QOR_E2E_LOG=log,
                     QOR_E2E_VERSION=bundle_file(BUNDLE, "QOR_RUNTIME_VERSION")),
            **desktop.as_account())
        self.addCleanup(lambda: (foreign.kill(), foreign.wait()))  # before the session's close

        wait_until(lambda: s.boot_label() == REFUSED, 60, "the port text")
        s.screenshot("port-owner-during-wait")
        # The shell's own gateway is stopped and not relaunched; the foreign one only answered
        # the readiness probes: no page was loaded from it.
        wait_until(lambda: not pid_alive(own), 30, "the shell's gateway to end")
        self.assertEqual([e["pid"] for e in s.events("sigterm")], [own])
        self.assertIsNone(foreign.poll())
        self.assert_nothing_relaunched(s, 1)
        with open(log, encoding="utf-8") as f:
            paths = {json.loads(line).get("path") for line in f}
        self.assertEqual(paths, {None, "/healthz"})  # its start, and the probes


if __name__ == "__main__":
    unittest.main()
