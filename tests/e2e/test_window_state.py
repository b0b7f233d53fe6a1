"""The window's size and maximised state across runs, saved in the product's folder; and every way
of quitting, each stopping the gateway with SIGTERM and leaving nothing behind."""

import os, signal, stat, unittest

from harness import Session, close_window, wait_until, xdotool, xprop

FIRST_RUN = (1280, 820)


class WindowStateTest(unittest.TestCase):
    def setUp(self):
        self.s = Session("window-state")
        self.addCleanup(self.s.close)
        self.file = f"{self.s.env['XDG_DATA_HOME']}/QOR Velmora/window.ini"

    def size(self):  # the main window's size as the X server has it
        geometry = xdotool("getwindowgeometry", "--shell", self.s.window_id())
        values = dict(line.split("=") for line in geometry.split())
        return int(values["WIDTH"]), int(values["HEIGHT"])

    def run_once(self, quit_by):
        """Starts the shell until its page shows, resizes its window to 1000 × 700, quits by
        `quit_by`: the close button, a signal or keys."""
        s = self.s
        s.launch()
        s.wait_ready(pages=len(s.requests("/")) + 1)
        opened = self.size()
        xdotool("windowsize", s.window_id(), "1000", "700")  # as a person drags its corner
        wait_until(lambda: self.size() == (1000, 700), 10, "the window to be 1000 × 700")
        if quit_by == "close button":
            close_window(int(s.window_id()))
        elif isinstance(quit_by, signal.Signals):
            s.app.send_signal(quit_by)
        else:
            s.key(quit_by)
        s.assert_quit_cleanly(self)
        self.assertEqual(len(s.gateway_pids()), len(s.requests("/")), "one gateway per run")
        return opened

    def write(self, text):
        os.makedirs(os.path.dirname(self.file), exist_ok=True)
        with open(self.file, "w") as f:
            f.write(text)

    def test_size_comes_back_and_is_saved_for_the_user_only(self):
        self.assertEqual(self.run_once("ctrl+q"), FIRST_RUN)
        self.assertEqual(stat.S_IMODE(os.stat(self.file).st_mode), 0o600)
        self.write("[Window]\nwidth=900\nheight=600\nmaximized=false\n")
        self.assertEqual(self.run_once("close button"), (900, 600))
        self.assertEqual(self.run_once("ctrl+w"), (1000, 700))

    def test_what_cannot_be_restored_opens_at_the_first_run_size(self):
        for text, quit_by in (  # the screen is 1400 wide
                ("[Window]\nwidth=3000\nheight=600\nmaximized=false\n", signal.SIGTERM),
                ("[Window]\nwidth=900\n", signal.SIGINT), ("\x00garbage", signal.SIGHUP)):
            with self.subTest(text=text):
                self.write(text)
                self.assertEqual(self.run_once(quit_by), FIRST_RUN)

    def test_a_maximised_window_opens_maximised(self):
        self.write("[Window]\nwidth=900\nheight=600\nmaximized=true\n")
        s = self.s
        s.launch()
        # Without a window manager only the request shows: the window's state hints.
        state = wait_until(lambda: xprop(s.window_id(), "_NET_WM_STATE"), 10, "a window state")
        self.assertEqual(set(state.split(", ")),
                         {"_NET_WM_STATE_MAXIMIZED_HORZ", "_NET_WM_STATE_MAXIMIZED_VERT"})


if __name__ == "__main__":
    unittest.main()
