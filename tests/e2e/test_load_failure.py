"""A page load that fails after it was committed writes its error into the boot label."""

import time
import unittest

from harness import ShellSession, find_all, states, wait_until

PREFIX = "Sidecar UI failed to load: "


class LoadFailureTest(unittest.TestCase):
    def setUp(self):
        self.s = ShellSession(self.id().rsplit(".", 1)[-1])
        self.addCleanup(self.s.close)
        self.s.launch()
        self.s.wait_ready()

    def test_failures_before_and_after_commit(self):
        s = self.s
        label = s.boot_label()
        before = label.name

        # Refused before anything was committed: not reported anywhere.
        s.post_script("location.href = 'http://127.0.0.1:9/refused'")
        time.sleep(2)
        self.assertEqual(s.boot_label().name, before)

        # The gateway sends part of the page, then drops the connection.
        s.post_script("location.href = '/truncated'")
        wait_until(lambda: s.requests("/truncated"), 10, "the truncated page to be asked for")
        text = wait_until(lambda: s.boot_label().name if s.boot_label().name != before else None,
                          20, "the boot label to change")
        print("boot label:", text)
        self.assertTrue(text.startswith(PREFIX), text)
        self.assertGreater(len(text), len(PREFIX), "the reason follows the prefix")

        # Nothing else: no dialog, and the web view stays shown above the label.
        self.assertEqual([w.getRoleName() for w in s.windows()], ["frame"])
        webview = find_all(s.main_window(), name="WebKitWebView", max_depth=3)[0]
        self.assertIn("visible", states(webview))
        s.screenshot("load-failure")


if __name__ == "__main__":
    unittest.main()
