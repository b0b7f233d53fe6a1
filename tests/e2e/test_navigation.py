"""Where clicked links, window.open and frames go: inside, to a desktop handler, or nowhere."""

import json, unittest

from harness import HANDLERS, Session, wait_until

ACTION = "http://127.0.0.1:8088/__qor/whatsapp?phone=%2B1%20555-010-2222&text=Hi%20there"
CHAT, MAIL = "whatsapp://send?phone=15550102222&text=Hi%20there", "mailto:a@example.com?subject=Hi"
WA, OTHER = "whatsapp://send?phone=1", "http://localhost:8088/__qor/other?x=1"
WEB, FOREIGN_ACTION = "https://example.com/docs?q=1", "https://example.com/__qor/whatsapp"
# href, target ("open": window.open), where it goes: "page" (loaded in the web view, asked
# for with that Host), a handler (given that URL), or None: nowhere at all.
WITH_CLIENT = [
    ("/page/two", None, "page", "127.0.0.1:8088"),
    ("http://LOCALHOST:8088/page/three", None, "page", "localhost:8088"),
    ("http://[::1]:8088/page/four", None, "page", "[::1]:8088"),
    *[(url, None, "browser", url) for url in (WEB, "http://127.0.0.2:8088/", FOREIGN_ACTION,
                                              "http://localhost;.evil.example/")],
    (MAIL, None, "mail", MAIL), (WA, None, "whatsapp", WA), (ACTION, None, "whatsapp", CHAT),
    (OTHER, None, None, None),
    # New-window requests: the same, except that loopback pages are dropped.
    ("/page/blank", "_blank", None, None), ("/page/popup", "open", None, None),
    ("data:text/html,<p>popup</p>", "_blank", None, None),
    (WEB, "_blank", "browser", WEB), (WEB, "open", "browser", WEB),
    (MAIL, "_blank", "mail", MAIL), (WA, "_blank", "whatsapp", WA),
    (ACTION, "_blank", "whatsapp", CHAT), (OTHER, "_blank", None, None),
]
MARK = "mailto:marker@example.com"  # clicked after a link that must go nowhere
WITHOUT_CLIENT = [(ACTION, None, "browser", "https://wa.me/15550102222?text=Hi%20there"),
                  (WA, None, None, None), (WA, "_blank", None, None)]


class NavigationTest(unittest.TestCase):
    def check(self, rows, **options):
        s = Session(f"navigation-{len(rows)}", **options)
        self.addCleanup(s.close)
        s.launch()
        s.wait_ready()
        for n, (href, target, where, expected) in enumerate(rows, 1):
            with self.subTest(href=href, target=target):
                handled, paths = {h: len(s.handled(h)) for h in HANDLERS}, len(s.requests())
                s.run_script(f"showLink({json.dumps(href)}, {json.dumps(target)}, {n})")
                s.click(640, 420)
                wait_until(lambda: {"clicked": n} in s.reports(), 10, f"click {n} to land")
                if where == "page":
                    s.wait_page(path := href[href.index("/page/"):])
                    self.assertEqual(s.requests(path)[-1]["host"], expected)
                    continue
                marker = n
                if where:
                    wait_until(lambda: s.handled(where)[handled[where]:], 10, where)
                else:  # a later click, handled in turn, ends this one's chance to act
                    marker = s.run_script(f"showLink({json.dumps(MARK)}, null, {-n}).then(() => {-n})")
                    s.click(640, 420)
                    wait_until(lambda: MARK in s.handled("mail")[handled["mail"]:], 10, MARK)
                    handled["mail"] += 1  # the marker's own
                # Handlers launched before the last one have finished with it.
                wait_until(lambda: not s.processes(b"record_url.py"), 10, "the handlers to finish")
                self.assertEqual({h: s.handled(h)[handled[h]:] for h in HANDLERS},
                                 {h: [expected] if h == where else [] for h in HANDLERS})
                self.assertEqual(s.requests()[paths:], [], "nothing reached the gateway")
                self.assertEqual((s.run_script("window.marker"), len(s.windows())), (marker, 1))
        return s

    def test_with_a_whatsapp_client(self):
        s = self.check(WITH_CLIENT)
        # Frames follow the navigation rules: an external source goes to the browser.
        s.run_script("""window.marker = 'frames';
            for (const source of ['https://example.com/frame', '/page/frame', 'data:text/html,' +
                                  '<script>parent.postMessage("data frame", "*")</script>']) {
              document.body.appendChild(document.createElement('iframe')).src = source;
            }""")
        wait_until(lambda: s.handled("browser")[-1] == "https://example.com/frame", 10, "frame")
        wait_until(lambda: {"message": "data frame"} in s.reports(), 10, "the data: frame")
        wait_until(lambda: s.requests("/page/frame"), 10, "the loopback frame")
        self.assertEqual(s.run_script("window.marker"), "frames")

    def test_without_a_whatsapp_client(self):
        self.check(WITHOUT_CLIENT, whatsapp_client=False)


if __name__ == "__main__":
    unittest.main()
