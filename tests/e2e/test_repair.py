"""The runtime the bundle ships, repaired and upgraded on a small disk of its own: a deleted
interpreter is unpacked again at the next start, and an upgrade on a full disk keeps the old runtime
and says why until the disk has room for the data's backup. Runs in a mount namespace of its own
(see CMakeLists.txt), which this test's small disk lives and dies with."""

import glob, os, platform, re, subprocess, unittest

from harness import Session, bundle_file, BUNDLE, wait_until

ARCH = {"x86_64": "x64", "aarch64": "arm64"}[platform.machine()]
SHIPPED = bundle_file(BUNDLE, "QOR_RUNTIME_VERSION")
DISK_FULL = ("Sidecar startup failed: Data backup before the upgrade failed (zip 14, the disk is "
             "full); the installed runtime is kept until a backup succeeds")


class RepairTest(unittest.TestCase):
    def setUp(self):
        self.s = s = Session("repair", bundled_runtime=True)
        self.addCleanup(s.close)
        self.disk = s.env["XDG_DATA_HOME"] = f"{s.root}/small-disk"
        os.makedirs(self.disk)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16m,mode=700", "tmpfs", self.disk],
                       check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", self.disk])
        self.product = f"{self.disk}/QOR Velmora"
        self.runtime = f"{self.product}/runtime/{ARCH}"

    def pages(self):  # the reference page asks for the notes each time it runs
        return self.s.output().count('"GET /api/notes')

    def start_until_page(self):
        pages = self.pages()
        self.s.launch()
        wait_until(lambda: self.pages() > pages, 90, "the gateway's page")

    def quit(self):
        self.s.key("ctrl+q")
        self.assertEqual(self.s.app.wait(timeout=30), 0)
        wait_until(lambda: not self.s.processes(), 20, "no process of the session")

    def backups(self):
        return sorted(os.path.basename(p) for p in glob.glob(f"{self.product}/data-backups/*"))

    def installed(self):
        with open(f"{self.runtime}/QOR_RUNTIME_VERSION") as f:
            return f.read().strip()

    def test_deleted_interpreter_then_a_full_disk_upgrade(self):
        self.start_until_page()
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
        stat = os.statvfs(self.disk)
        with open(f"{self.disk}/filler", "wb") as f:
            f.write(b"\0" * (stat.f_bavail * stat.f_frsize - (1 << 20)))
        self.s.launch()
        wait_until(lambda: self.s.boot_label() == DISK_FULL, 60, "the full disk named")
        self.s.screenshot("repair-disk-full")
        self.assertEqual(self.installed(), "0.0.1")
        self.assertTrue(os.path.lexists(f"{self.runtime}/python/bin/python"))
        self.assertEqual(len(self.backups()), 1, "a partial backup is visible")
        self.quit()

        os.remove(f"{self.disk}/filler")
        self.start_until_page()  # the upgrade, now with its backup
        self.assertEqual(self.installed(), SHIPPED)
        self.assertTrue(any(re.fullmatch(r"data-0\.0\.1-\d{8}-\d{6}\.zip", name)
                            for name in self.backups()), self.backups())


if __name__ == "__main__":
    unittest.main()
