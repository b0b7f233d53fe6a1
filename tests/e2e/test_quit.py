"""Every way of quitting stops the gateway with SIGTERM and leaves nothing behind."""

import signal, unittest

from harness import Session, close_window


class QuitTest(unittest.TestCase):
    def test_every_way_of_quitting(self):
        for way in ("ctrl+q", "ctrl+w", "close button", signal.SIGTERM, signal.SIGINT,
                    signal.SIGHUP):
            with self.subTest(way=way):
                s = Session(f"quit-{way}")
                self.addCleanup(s.close)
                s.launch()
                s.wait_ready()
                if way == "close button":
                    close_window(int(s.window_id()))
                else:
                    s.app.send_signal(way) if isinstance(way, signal.Signals) else s.key(way)
                s.assert_quit_cleanly(self)
                self.assertEqual(len(s.gateway_pids()), 1)
                s.close()


if __name__ == "__main__":
    unittest.main()
