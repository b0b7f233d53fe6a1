"""Start-up: boot screen, stale gateway sweep, readiness, the page shown; second launch."""

import os
import re
import subprocess
import unittest

from harness import (PAGE_RGB, ShellSession, find_all, pixel, port_listening, states,
                     wait_until)

BOOT_TEXT = "Starting QOR Velmora…"


class StartupTest(unittest.TestCase):
    def setUp(self):
        self.session = ShellSession(self.id().rsplit(".", 1)[-1], boot_delay=2.5)
        self.addCleanup(self.session.close)

    def test_boot_screen_then_gateway_page(self):
        s = self.session
        # A stale gateway that ignores SIGTERM holds the port: the sweep takes
        # about two seconds, during which the boot screen shows its first text.
        data_dir = os.path.join(s.env["XDG_DATA_HOME"], "QOR Velmora", "data")
        stale = s.start_extra(["/usr/bin/python3", os.path.join(os.path.dirname(__file__),
                               "stale_gateway.py"), "8088", "qor_gateway.main",
                               "--data-dir", data_dir])
        wait_until(port_listening, 10, "the stale gateway to listen")
        s.launch()

        frame = s.main_window()
        self.assertEqual(frame.name, "QOR Velmora")
        size = frame.queryComponent().getExtents(1)
        self.assertEqual((size.width, size.height), (1280, 820))
        label = s.boot_label()
        self.assertEqual(label.name, BOOT_TEXT)
        boot_shot = s.screenshot("startup-boot-screen")
        self.assertNotEqual(pixel(boot_shot, 640, 420), PAGE_RGB)
        menus = [m.name for m in find_all(frame, role="menu item", max_depth=3)]
        self.assertEqual(menus, ["QOR Velmora", "编辑", "窗口"])
        webview = find_all(frame, name="WebKitWebView", max_depth=3)
        self.assertFalse(webview and "visible" in states(webview[0]),
                         "the web view is hidden while booting")

        # The sweep kills the stale gateway; ours then boots slowly, and the
        # label counts the seconds it waits.
        wait_until(lambda: stale.poll() is not None, 15, "the stale gateway to be killed")
        self.assertEqual(stale.returncode, -9, "SIGTERM is ignored, so it ends by SIGKILL")
        progress = re.compile(re.escape(BOOT_TEXT) + r" \d+s")
        wait_until(lambda: progress.fullmatch(s.boot_label().name), 20,
                   "a progress text in the boot label")
        s.wait_ready()

        # /healthz answered before the page was asked for, once, past any cache.
        paths = [r["path"] for r in s.requests()]
        self.assertEqual(paths[0], "/healthz")
        self.assertLess(paths.index("/healthz"), paths.index("/"))
        self.assertEqual(len(s.requests("/")), 1)
        self.assertEqual(s.requests("/")[0]["cache_control"], "no-cache")
        self.assertEqual(len(s.events("start")), 1)

        # The web view is shown and covers the boot screen.
        webview = find_all(frame, name="WebKitWebView", max_depth=3)
        wait_until(lambda: "visible" in states(webview[0]), 10, "the web view to be shown")
        wait_until(lambda: pixel(s.screenshot("startup-gateway-page"), 640, 420) == PAGE_RGB,
                   10, "the page to cover the window")
        self.assertEqual(s.run_script("document.title"), "QOR e2e /")

    def test_second_launch_presents_the_running_window(self):
        s = self.session
        s.launch()
        s.wait_ready()
        window = s.window_id()
        gateway = s.gateway_pids()

        # While the window is on screen a second launch changes nothing.
        second = s.launch_second()
        self.assertEqual(second.returncode, 0)
        self.assertIsNone(s.app.poll())

        # Unmapped from outside, as a window manager does when it minimises;
        # a second launch maps the same window again.
        subprocess.run(["xdotool", "windowunmap", "--sync", window], check=True)
        self.assertNotIn(window, visible_windows())
        second = s.launch_second()
        self.assertEqual(second.returncode, 0)
        wait_until(lambda: window in visible_windows(), 10, "the same window to come back")

        # No second gateway was launched and the first one kept running.
        self.assertEqual(s.gateway_pids(), gateway)
        self.assertEqual(len(s.requests("/")), 1)
        self.assertIsNone(s.app.poll())


def visible_windows():
    """The X windows titled "QOR Velmora" that are mapped."""
    return subprocess.run(["xdotool", "search", "--onlyvisible", "--name", "^QOR Velmora$"],
                          capture_output=True, text=True).stdout.split()


if __name__ == "__main__":
    unittest.main()
