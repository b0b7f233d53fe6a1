"""QOR Velmora as the Debian package installs it, unpacked into a root of its own and starting the
gateway it ships; and a bundle that lost its web engine. (A moved bundle: test_repair.)"""

import glob, os, re, shutil, subprocess, unittest

from harness import ARCH, BUNDLE, Session, bundle_file, find_all, wait_until

VERSION = bundle_file(BUNDLE, "APP_VERSION")
DEB = glob.glob(f"{os.environ['QOR_E2E_PACKAGES']}/qor-velmora_{VERSION}_*.deb")[0]
PREFIX = "/opt/qor-velmora"
ICON_SIZES = [16, 24, 32, 48, 64, 128, 256, 512]
DESKTOP_FILES = ["applications/org.qor.Velmora.desktop", "metainfo/org.qor.Velmora.metainfo.xml",
                 "icons/hicolor/scalable/apps/org.qor.Velmora.svg",
                 "icons/hicolor/symbolic/apps/org.qor.Velmora-symbolic.svg",
                 *(f"icons/hicolor/{n}x{n}/apps/org.qor.Velmora.png" for n in ICON_SIZES)]


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class InstallTest(unittest.TestCase):
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
        s.launch(f"{root}{PREFIX}/bin/qor-velmora")
        s.wait_shipped_page()
        self.assertTrue(s.webview_visible())
        s.key("ctrl+q")
        s.assert_quit_cleanly(self)


if __name__ == "__main__":
    unittest.main()
