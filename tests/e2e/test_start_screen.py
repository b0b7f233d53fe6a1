"""What the screen shows from the first frame to the page, in the desktop's light or dark style."""

import collections, os, subprocess, unittest

from harness import Session, proc_file, wait_until

PAGE = bytes((32, 120, 200))  # the test gateway's page colour
MODULE = b"libqor-velmora-web.so"


def colours(window):
    """The window's pixels as the X server holds them: per colour, how many, and the rows."""
    shot = subprocess.run(["import", "-window", window, "-depth", "8", "rgb:-"],
                          capture_output=True, check=True).stdout
    size = subprocess.run(["xdotool", "getwindowgeometry", "--shell", window],
                          capture_output=True, text=True).stdout
    width = int(dict(line.split("=") for line in size.split())["WIDTH"])
    rows = [shot[y:y + 3 * width] for y in range(0, len(shot), 3 * width)]
    return collections.Counter(shot[i:i + 3] for i in range(0, len(shot), 3)), rows


def background_and_text(window):
    """The most common colour, and how many pixels of the middle rows are of another."""
    counts, rows = colours(window)
    background = counts.most_common(1)[0][0]
    middle = rows[len(rows) * 2 // 5:len(rows) * 3 // 5]
    text = sum(row[i:i + 3] != background for row in middle for i in range(0, len(row), 3))
    return background, text


def luminance(colour):
    return (colour[0] * 299 + colour[1] * 587 + colour[2] * 114) // 1000


class StartScreenTest(unittest.TestCase):
    def start(self, name, scheme=None):
        """Starts the shell with GNOME's colour scheme set to `scheme`; returns its window once
        the web engine's module is being loaded, which holds the shell's UI thread."""
        s = Session(name, boot_delay=2.5)
        self.addCleanup(s.close)
        s.env["GSETTINGS_BACKEND"] = "keyfile"
        if scheme:
            os.makedirs(f"{s.env['XDG_CONFIG_HOME']}/glib-2.0/settings")
            with open(f"{s.env['XDG_CONFIG_HOME']}/glib-2.0/settings/keyfile", "w") as f:
                f.write(f"[org/gnome/desktop/interface]\ncolor-scheme='{scheme}'\n")
        s.launch()
        wait_until(lambda: MODULE in proc_file(s.pid, "maps"), 30, "the module")
        return s, s.window_id()

    def test_the_first_frame_shows_the_boot_text_in_the_desktops_style_until_the_page(self):
        for scheme, dark in ((None, False), ("prefer-light", False), ("prefer-dark", True)):
            with self.subTest(scheme=scheme):
                name = f"start-screen-{scheme or 'no-preference'}"
                s, window = self.start(name, scheme)
                boot, text = background_and_text(window)
                s.screenshot(name)
                self.assertGreater(text, 100, "the boot text is drawn")
                self.assertEqual(luminance(boot) < 128, dark, boot)
                self.assertNotEqual(boot, bytes(3), "an unpainted window is black")
                # Nothing of another colour comes between the boot screen and the page.
                seen = [boot]
                while seen[-1] != PAGE:  # the page's colour comes, or the wait times out
                    seen.append(wait_until(lambda: background_and_text(window)[0], 30, "a frame"))
                    self.assertIn(seen[-1], (boot, PAGE), f"frames so far: {seen}")
                    self.assertLess(len(seen), 500, "the page did not show")
                s.wait_ready()
                s.close()


if __name__ == "__main__":
    unittest.main()
