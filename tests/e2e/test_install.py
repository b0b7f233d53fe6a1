"""QOR Velmora installed the ways people get it, each starting the gateway its bundle ships: the
bundle folder moved somewhere else, and the Debian package unpacked into a root of its own."""

import glob, os, platform, re, shutil, subprocess, unittest

from harness import BUNDLE, Session, bundle_file, find_all, port_listening, states, wait_until

VERSION = bundle_file(BUNDLE, "APP_VERSION")
DEB = glob.glob(f"{os.environ['QOR_E2E_PACKAGES']}/qor-velmora_{VERSION}_*.deb")[0]
PREFIX = "/opt/qor-velmora"
ICON_SIZES = [16, 24, 32, 48, 64, 128, 256, 512]
DESKTOP_FILES = ["applications/org.qor.Velmora.desktop", "metainfo/org.qor.Velmora.metainfo.xml",
                 "icons/hicolor/scalable/apps/org.qor.Velmora.svg",
                 "icons/hicolor/symbolic/apps/org.qor.Velmora-symbolic.svg",
                 *(f"icons/hicolor/{n}x{n}/apps/org.qor.Velmora.png" for n in ICON_SIZES)]
ARCH = {"x86_64": "x64", "aarch64": "arm64"}[platform.machine()]


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class InstallTest(unittest.TestCase):
    def run_until_page(self, s, executable):
        """Starts the shell and waits until the gateway's own page shows and its script runs."""
        s.launch(executable)
        # The page's script asks for the notes as soon as it runs; the gateway logs each request,
        # and answers only the window that carries this run's secret.
        wait_until(lambda: re.search(r'"GET /api/notes HTTP/1\.[01]" 200 ', s.output()), 90,
                   "the gateway's page")
        views = find_all(s.main_window(), name="WebKitWebView", max_depth=3)
        self.assertIn("visible", states(views[0]))

    def quit(self, s):
        s.key("ctrl+q")
        self.assertEqual(s.app.wait(timeout=30), 0)
        wait_until(lambda: not s.processes(), 20, "no process of the session")
        self.assertFalse(port_listening(), "port 8088 is still served")

    def test_moved_bundle_runs_from_its_new_place(self):
        s = Session("install-moved", bundled_runtime=True)
        self.addCleanup(s.close)
        shutil.copytree(BUNDLE, staged := f"{s.root}/staged/QOR Velmora", symlinks=True)
        os.makedirs(f"{s.root}/移动后 apps")
        os.rename(staged, bundle := f"{s.root}/移动后 apps/QOR Velmora")
        self.run_until_page(s, f"{bundle}/bin/qor-velmora")
        # The runtime came from the moved bundle's archive.
        runtime = f"{s.env['XDG_DATA_HOME']}/QOR Velmora/runtime/{ARCH}"
        self.assertTrue(os.path.isfile(f"{runtime}/sidecar/qor_gateway/main.py"))
        # The window carries the bundle's icon, and the about box its version.
        self.assertIn("Icon (", output("xprop", "-id", s.window_id(), "_NET_WM_ICON"))
        s.choose("QOR Velmora", "关于 QOR Velmora")
        wait_until(lambda: [w for w in s.windows()[1:] if VERSION in
                            [label.name for label in find_all(w, role="label")]], 10,
                   f"an about box with the version {VERSION}")
        s.key("Escape", dialog=True)
        wait_until(lambda: len(s.windows()) == 1, 10, "the about box to close")
        self.quit(s)

    def test_bundle_without_its_web_engine_says_why(self):
        s = Session("install-no-web-engine")
        self.addCleanup(s.close)
        shutil.copytree(BUNDLE, bundle := f"{s.root}/QOR Velmora", symlinks=True)
        os.remove(f"{bundle}/lib/qor-velmora/libqor-velmora-web.so")
        s.launch(f"{bundle}/bin/qor-velmora")
        # The gateway is still supervised; once it is ready, the label still says why nothing shows.
        why = "^cannot load the web view: .*libqor-velmora-web.so"
        wait_until(lambda: re.match(why, s.boot_label()), 30, "the label to say why")
        wait_until(lambda: s.requests("/healthz"), 30, "the readiness probe")
        self.assertRegex(s.boot_label(), why)
        self.assertEqual(find_all(s.main_window(), name="WebKitWebView", max_depth=3), [])
        s.key("ctrl+q")
        s.assert_quit_cleanly(self)

    def test_debian_package(self):
        fields = output("dpkg-deb", "-f", DEB, "Package", "Version", "Depends").splitlines()
        self.assertEqual(fields[:2], ["Package: qor-velmora", f"Version: {VERSION}"])
        depends = {d.split(" (")[0] for d in fields[2].removeprefix("Depends: ").split(", ")}
        self.assertLessEqual({"libgtk-4-1", "libwebkitgtk-6.0-4", "libcurl4", "libssl3", "unzip",
                              "zip", "python3"}, depends)
        self.assertNotIn("tar", depends, "tar is essential")
        self.assertIn("libsoup-3.0-0 (>= 3.0.0)", fields[2].split(", "))
        # Every file and link the package installs, and where the links point; /opt is not its.
        listing = output("dpkg-deb", "-c", DEB).splitlines()
        entries = {line.split(" ./", 1)[1] for line in listing if not line.startswith("d")}
        self.assertEqual([line for line in listing if line.endswith(" ./opt/")], [])
        bundle = [f"opt/qor-velmora/{f}" for f in [
            "bin/qor-velmora", "lib/qor-velmora/libqor-velmora-web.so",
            "lib/qor-velmora/qor-exchange", "share/qor-velmora/APP_VERSION",
            "share/qor-velmora/PACKAGE_MANAGED",
            "share/qor-velmora/QOR_RUNTIME_VERSION", f"share/qor-velmora/QOR-runtime-{ARCH}.zip",
            *(f"share/{f}" for f in DESKTOP_FILES)]]
        links = [f"usr/bin/qor-velmora -> {PREFIX}/bin/qor-velmora",
                 *(f"usr/share/{f} -> {PREFIX}/share/{f}" for f in DESKTOP_FILES)]
        docs = ["usr/share/doc/qor-velmora/copyright", "usr/share/doc/qor-velmora/changelog.gz"]
        self.assertEqual(entries, {*bundle, *links, *docs})
        # The checksums dpkg verifies installed files against cover every file.
        sums = output("dpkg-deb", "--info", DEB, "md5sums").splitlines()
        self.assertEqual({line.split("  ", 1)[1] for line in sums}, {*bundle, *docs})

        s = Session("install-deb", bundled_runtime=True)
        self.addCleanup(s.close)
        output("dpkg", "-x", DEB, root := f"{s.root}/root")
        self.assertEqual(bundle_file(f"{root}{PREFIX}", "APP_VERSION"), VERSION)
        with open(f"{root}{PREFIX}/share/{DESKTOP_FILES[1]}") as f:
            self.assertIn(f'<release version="{VERSION}"', f.read())
        changelog = output("zcat", f"{root}/usr/share/doc/qor-velmora/changelog.gz")
        self.assertTrue(changelog.startswith(f"qor-velmora ({VERSION}) stable;"), changelog)
        self.run_until_page(s, f"{root}{PREFIX}/bin/qor-velmora")
        self.quit(s)


if __name__ == "__main__":
    unittest.main()
