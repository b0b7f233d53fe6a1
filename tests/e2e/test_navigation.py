"""Where clicks, frames and new-window requests go: inside, to a desktop handler, or nowhere."""

import itertools
import json
import time
import unittest

from harness import ShellSession, wait_until

ACTION = "http://127.0.0.1:8088/__qor/whatsapp?phone=%2B1%20555-010-2222&text=Hi%20there"
SETTLE = 1.5  # seconds to let a click that should do nothing show its effects


class NavigationCase(unittest.TestCase):
    whatsapp_client = True

    @classmethod
    def setUpClass(cls):
        cls.s = ShellSession(cls.__name__, whatsapp_client=cls.whatsapp_client)
        cls.s.launch()
        cls.s.wait_ready()
        cls.ids = itertools.count(1)

    @classmethod
    def tearDownClass(cls):
        cls.s.close()

    def setUp(self):
        self.handled_before = {h: len(self.s.handled(h)) for h in ("browser", "mail", "whatsapp")}
        self.requests_before = len(self.s.requests())

    def new_handled(self, handler):
        return self.s.handled(handler)[self.handled_before[handler]:]

    def new_paths(self):
        return [r["path"] for r in self.s.requests()[self.requests_before:]]

    def click(self, show_script, n):
        self.s.run_script(show_script)
        self.s.click(640, 420)
        wait_until(lambda: {"clicked": n} in self.s.reports(), 10, f"click {n} to reach the page")

    def click_link(self, href, target=None):
        n = next(self.ids)
        self.click(f"showLink({json.dumps(href)}, {json.dumps(target)}, {n})", n)
        return n

    def click_opener(self, url):
        n = next(self.ids)
        self.click(f"showOpener({json.dumps(url)}, {n})", n)
        return n

    def wait_handled(self, handler, urls):
        wait_until(lambda: self.new_handled(handler) == urls, 10, f"{handler} to get {urls}")

    def assertStayed(self, n):
        """The page that showed link n is still the one in the web view."""
        self.assertEqual(self.s.run_script("window.marker"), n)

    def assertNothingHandled(self):
        for handler in ("browser", "mail", "whatsapp"):
            self.assertEqual(self.new_handled(handler), [], handler)

    def assertOneWindow(self):
        self.assertEqual(len(self.s.windows()), 1)


class WithWhatsAppClientTest(NavigationCase):
    def test_loopback_pages_stay_inside(self):
        for url, host in [("/page/two", "127.0.0.1:8088"),
                          ("http://LOCALHOST:8088/page/three", "localhost:8088"),
                          ("http://[::1]:8088/page/four", "[::1]:8088")]:
            with self.subTest(url=url):
                path = "/page/" + url.rsplit("/", 1)[1]
                self.click_link(url)
                self.s.wait_page(path)
                self.assertEqual(self.s.requests(path)[-1]["host"], host)
                self.assertEqual(self.s.run_script("location.pathname"), path)
        self.assertNothingHandled()

    def test_other_hosts_open_in_the_browser(self):
        urls = ["https://example.com/docs?q=1", "http://127.0.0.2:8088/",
                "https://example.com/__qor/whatsapp?phone=1"]
        for url in urls:
            n = self.click_link(url)
            wait_until(lambda: url in self.new_handled("browser"), 10, f"the browser to get {url}")
            self.assertStayed(n)
        self.assertEqual(self.new_handled("browser"), urls)
        self.assertEqual(self.new_paths(), [], "nothing was asked of the gateway")
        self.assertEqual(self.new_handled("whatsapp"), [])

    def test_mail_links_open_the_mail_program_with_or_without_target(self):
        url = "mailto:support@example.com?subject=Hi"
        n = self.click_link(url)
        self.wait_handled("mail", [url])
        self.assertStayed(n)
        n = self.click_link(url, "_blank")
        self.wait_handled("mail", [url, url])
        self.assertStayed(n)
        self.assertOneWindow()

    def test_whatsapp_links_open_the_client(self):
        url = "whatsapp://send?phone=1"
        n = self.click_link(url)
        self.wait_handled("whatsapp", [url])
        self.assertStayed(n)
        self.click_link(url, "_blank")
        self.wait_handled("whatsapp", [url, url])
        self.assertEqual(self.new_handled("browser"), [])

    def test_action_link_opens_a_chat_in_the_client(self):
        expected = "whatsapp://send?phone=15550102222&text=Hi%20there"
        n = self.click_link(ACTION)
        self.wait_handled("whatsapp", [expected])
        self.assertStayed(n)
        self.click_link(ACTION, "_blank")
        self.wait_handled("whatsapp", [expected, expected])
        self.click_link("http://localhost:8088/__qor/whatsapp")
        self.wait_handled("whatsapp", [expected, expected, "whatsapp://send"])
        self.assertFalse(any(p.startswith("/__qor/") for p in self.new_paths()),
                         "action links never reach the gateway")
        self.assertEqual(self.new_handled("browser"), [])

    def test_other_action_paths_do_nothing(self):
        for target in (None, "_blank"):
            n = self.click_link("http://localhost:8088/__qor/other?x=1", target)
            time.sleep(SETTLE)
            self.assertStayed(n)
        self.assertEqual(self.new_paths(), [])
        self.assertNothingHandled()
        self.assertOneWindow()

    def test_new_window_requests(self):
        # A loopback page asked for in a new window is dropped altogether.
        n = self.click_link("/page/blank-target", "_blank")
        # ... and so is a page of any other scheme.
        n = self.click_link("data:text/html,<p>popup</p>", "_blank")
        time.sleep(SETTLE)
        self.assertStayed(n)
        self.assertEqual(self.new_paths(), [])
        self.assertNothingHandled()
        self.assertOneWindow()
        # External pages go to the browser, from a link or from script.
        self.click_link("https://example.com/new-window", "_blank")
        self.wait_handled("browser", ["https://example.com/new-window"])
        n = self.click_opener("https://example.com/popup")
        self.wait_handled("browser", ["https://example.com/new-window",
                                      "https://example.com/popup"])
        n = self.click_opener("/page/popup")
        time.sleep(SETTLE)
        self.assertStayed(n)
        self.assertEqual(self.new_paths(), [])
        self.assertOneWindow()

    def test_frames_follow_the_same_rules(self):
        n = next(self.ids)
        self.s.run_script(f"""
            window.marker = {n};
            const dataFrame = '<script>parent.postMessage("data frame", "*")</script>';
            for (const source of ['https://example.com/frame', 'data:text/html,' + dataFrame,
                                  '/page/frame']) {{
              const frame = document.createElement('iframe');
              frame.src = source;
              document.body.appendChild(frame);
            }}""")
        self.wait_handled("browser", ["https://example.com/frame"])
        wait_until(lambda: {"message": "data frame"} in self.s.reports(), 10,
                   "the data: frame to load")
        wait_until(lambda: self.s.requests("/page/frame"), 10, "the loopback frame to load")
        self.assertStayed(n)


class WithoutWhatsAppClientTest(NavigationCase):
    whatsapp_client = False

    def test_action_link_falls_back_to_the_click_to_chat_page(self):
        n = self.click_link(ACTION)
        self.wait_handled("browser", ["https://wa.me/15550102222?text=Hi%20there"])
        self.assertStayed(n)
        self.click_link("http://127.0.0.1:8088/__qor/whatsapp")
        self.wait_handled("browser", ["https://wa.me/15550102222?text=Hi%20there",
                                      "https://wa.me/"])
        self.assertEqual(self.new_paths(), [])

    def test_whatsapp_links_do_nothing(self):
        for target in (None, "_blank"):
            n = self.click_link("whatsapp://send?phone=1", target)
            time.sleep(SETTLE)
            self.assertStayed(n)
        self.assertNothingHandled()
        self.assertOneWindow()


del NavigationCase  # a base, not a test of its own

if __name__ == "__main__":
    unittest.main()
