"""The runtime the bundle ships, from a bundle moved away from where it was staged, provisioned,
repaired and upgraded on a small disk of its own: a deleted interpreter is unpacked again at the
next start, and an upgrade on a full disk keeps the old runtime and says why until the disk has room
for the data's backup, which, like the data, is the user's alone whatever the umask. Runs in a mount
namespace of its own (see CMakeLists.txt), which this test's small disk lives and dies with."""

import glob, os, re, shutil, stat, subprocess, unittest

from harness import ARCH, BUNDLE, Session, bundle_file, find_all, wait_until, xprop

SHIPPED, VERSION = bundle_file(BUNDLE, "QOR_RUNTIME_VERSION"), bundle_file(BUNDLE, "APP_VERSION")
DISK_FULL = ("Sidecar startup failed: Data backup before the upgrade failed (zip 14, the disk is "
             "full); the installed runtime is kept until a backup succeeds")


class RepairTest(unittest.TestCase):
    def setUp(self):
        self.s = s = Session("repair", bundled_runtime=True)
        self.addCleanup(s.close)
        shutil.copytree(BUNDLE, bundle := f"{s.root}/移动后 apps/QOR Velmora", symlinks=True)
        self.executable = f"{bundle}/bin/qor-velmora"
        self.disk = s.env["XDG_DATA_HOME"] = f"{s.root}/small-disk"
        os.makedirs(self.disk)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16m,mode=700", "tmpfs", self.disk],
                       check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", self.disk])
        self.product = f"{self.disk}/QOR Velmora"
        self.runtime = f"{self.product}/runtime/{ARCH}"
        self.addCleanup(os.umask, os.umask(0))  # the shell's, which must not widen its files

    def start_until_page(self):
        self.s.launch(self.executable)
        self.s.wait_shipped_page()
        self.assertTrue(self.s.webview_visible())

    def quit(self):
        self.s.key("ctrl+q")
        self.s.assert_quit_cleanly(self)

    def backups(self):
        return sorted(os.path.basename(p) for p in glob.glob(f"{self.product}/data-backups/*"))

    def installed(self):
        with open(f"{self.runtime}/QOR_RUNTIME_VERSION") as f:
            return f.read().strip()

    def test_moved_bundle_then_a_deleted_interpreter_then_a_full_disk_upgrade(self):
        s = self.s
        self.start_until_page()
        # The runtime came from the moved bundle's archive; the window carries the bundle's icon,
        # and the about box its version.
        self.assertTrue(os.path.isfile(f"{self.runtime}/sidecar/qor_gateway/main.py"))
        self.assertIn("Icon (", xprop(s.window_id(), "_NET_WM_ICON"))
        s.choose("QOR Velmora", "关于 QOR Velmora")
        wait_until(lambda: [w for w in s.windows()[1:] if VERSION in
                            [label.name for label in find_all(w, role="label")]], 10,
                   f"an about box with the version {VERSION}")
        s.key("Escape", dialog=True)
        wait_until(lambda: len(s.windows()) == 1, 10, "the about box to close")
        self.quit()

        os.remove(f"{self.runtime}/python/bin/python")
        self.start_until_page()  # unpacked again, with the data backed up first
        self.assertTrue(os.path.lexists(f"{self.runtime}/python/bin/python"))
        self.assertEqual(len(self.backups()), 1)
        self.quit()

        # An older runtime installed, data that does not compress, and hardly any room left.
        with open(f"{self.runtime}/QOR_RUNTIME_VERSION", "w") as f:
            f.write("0.0.1")
        with open(f"{self.product}/data/blob", "wb") as f:
            f.write(os.urandom(6 << 20))
        disk = os.statvfs(self.disk)
        with open(f"{self.disk}/filler", "wb") as f:
            f.write(b"\0" * (disk.f_bavail * disk.f_frsize - (1 << 20)))
        s.launch(self.executable)
        wait_until(lambda: s.boot_label() == DISK_FULL, 60, "the full disk named")
        s.screenshot("repair-disk-full")
        self.assertEqual(self.installed(), "0.0.1")
        self.assertTrue(os.path.lexists(f"{self.runtime}/python/bin/python"))
        self.assertEqual(len(self.backups()), 1, "a partial backup is visible")
        self.quit()

        os.remove(f"{self.disk}/filler")
        self.start_until_page()  # the upgrade, now with its backup
        self.assertEqual(self.installed(), SHIPPED)
        backup = [name for name in self.backups()
                  if re.fullmatch(r"data-0\.0\.1-\d{8}-\d{6}\.zip", name)]
        self.assertEqual(len(backup), 1, self.backups())
        modes = {path: stat.S_IMODE(os.stat(path).st_mode) for path in (
            self.product, f"{self.product}/data", f"{self.product}/data-backups",
            f"{self.product}/data-backups/{backup[0]}", f"{self.product}/logs/qor-velmora.log")}
        self.assertEqual(list(modes.values()), [0o700, 0o700, 0o700, 0o600, 0o600], modes)


if __name__ == "__main__":
    unittest.main()
