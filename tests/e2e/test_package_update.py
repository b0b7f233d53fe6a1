"""Updates of an installation the system's package manager owns, as the Debian package lays it out
(a root-owned folder, the bundle marked package-managed), run by an ordinary account: without a
package in the manifest the offer points to the package manager, once per version, and nothing is
downloaded; with one, the verified package goes to the privileged runner and the new version
starts. Needs root for the second account."""

import contextlib, glob, hashlib, os, shutil, signal, socket, struct, subprocess, tempfile
import threading, unittest

from account import Desktop
from harness import bundle_file, press, texts, titles, wait_until
from test_update import (FOUND, IMAGE, KEYS, MANIFEST, NEW, OLD, SIGNATURE, UpdateHost, digests,
                         publish, stage)

DEB = glob.glob(f"{os.environ['QOR_E2E_PACKAGES']}/qor-velmora_{NEW}_*.deb")[0]
DEB_PATH = "/qor/" + os.path.basename(DEB)
RUNNER = os.environ["QOR_E2E_PRIVILEGED_RUNNER"]
PACKAGE_MANAGER = [FOUND[0], f"当前版本：{OLD}\n此安装由系统的软件包管理器更新，请通过它安装 {NEW}。"]
TOLD = f"{NEW} is left to the system's package manager, as told before"
INSTALLED = [f"已安装 {NEW}", "QOR 将退出并自动重启，窗口会在几秒后重新打开。"]
desktop = None


def setUpModule():
    global desktop
    desktop = Desktop()
    unittest.addModuleCleanup(desktop.close)


class PrivilegedRunner:
    """Stands in for the privileged runner. The script at RUNNER, run by the shell as the account,
    hands its arguments to this process, which runs as root as the real runner's program would:
    it records who asked for what and installs the package it was given over `system` (it unpacks
    it there, as the package installer does, without the system's package database)."""

    def __init__(self, system):
        self.system, self.asked = system, []
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.bind(address := f"{desktop.folder}/runner")
        os.chown(address, desktop.user.pw_uid, desktop.user.pw_gid)
        self.socket.listen()
        with open(RUNNER, "w") as f:
            f.write("#!/usr/bin/python3\nimport socket, sys\n"
                    "with socket.socket(socket.AF_UNIX) as s:\n"
                    f"    s.connect({address!r})\n"
                    "    s.sendall('\\0'.join(sys.argv[1:]).encode())\n"
                    "    s.shutdown(socket.SHUT_WR)\n"
                    "    sys.exit(int(s.makefile().read() or 1))\n")
        os.chmod(RUNNER, 0o755)
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        with contextlib.suppress(OSError):  # accept() fails once the socket is closed: the end
            while True:
                connection, _ = self.socket.accept()
                with connection:
                    uid = struct.unpack("3i", connection.getsockopt(
                        socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i")))[1]
                    arguments = connection.makefile("rb").read().decode().split("\0")
                    with open(arguments[-1], "rb") as f:
                        self.asked.append((uid, arguments, hashlib.sha256(f.read()).hexdigest()))
                    status = subprocess.run(["dpkg-deb", "-x", arguments[-1], self.system]) \
                        .returncode if arguments[:3] == ["/usr/bin/apt-get", "install", "-y"] else 1
                    connection.sendall(str(status).encode())

    def close(self):
        self.socket.close()
        os.remove(RUNNER)


class PackageUpdateTest(UpdateHost):
    def start(self, name, files):
        """The older release installed as the package lays it out, in a root-owned folder, and
        running as the account."""
        self.serve(files)
        system = tempfile.mkdtemp(prefix="qor-e2e-system-")
        os.chmod(system, 0o755)
        self.addCleanup(shutil.rmtree, system)
        os.mkdir(f"{system}/opt")
        os.rename(stage(f"{system}/opt", OLD), bundle := f"{system}/opt/qor-velmora")
        with open(f"{bundle}/share/qor-velmora/PACKAGE_MANAGED", "w") as f:
            f.write("deb\n")
        s = desktop.session(name)
        self.addCleanup(s.close)
        s.launch(f"{bundle}/bin/qor-velmora")
        s.wait_ready()
        return s, system, bundle

    def test_without_a_package_the_offer_points_to_the_package_manager_once(self):
        s, _, bundle = self.start("package-update-none", self.published)
        before = digests(bundle)
        # The automatic check tells, and nothing is downloaded.
        dialog = s.dialog(FOUND[0], 30)
        self.assertEqual((texts(dialog), titles(dialog)), (PACKAGE_MANAGER, ["好"]))
        s.screenshot("package-update-none")
        s.answer(dialog, "好")
        os.kill(s.pid, signal.SIGTERM)
        s.assert_quit_cleanly(self)

        # The next start's automatic check keeps quiet about the version told; the menu still tells.
        s.launch(f"{bundle}/bin/qor-velmora")
        s.wait_ready(pages=2)
        wait_until(lambda: TOLD in s.output(), 30, "the second automatic check")
        self.assertEqual(s.windows("dialog"), [])
        s.choose("QOR Velmora", "检查更新…")
        self.assertEqual(texts(dialog := s.dialog(FOUND[0])), PACKAGE_MANAGER)
        press(dialog, "好")
        self.assertEqual(set(self.server.asked), {MANIFEST, SIGNATURE})
        self.assertEqual(s.output().count(TOLD), 1)
        self.assertEqual(digests(bundle), before)
        self.assertEqual(os.listdir(s.env["TMPDIR"]), [])
        os.kill(s.pid, signal.SIGTERM)
        s.assert_quit_cleanly(self)

    def test_with_a_package_the_privileged_runner_installs_it_and_the_new_version_starts(self):
        with open(DEB, "rb") as f:
            package = f.read()
        files = {**publish(f"{KEYS}/first.pem", DEB), IMAGE: self.image, DEB_PATH: package}
        s, system, bundle = self.start("package-update", files)
        runner = PrivilegedRunner(system)
        self.addCleanup(runner.close)
        self.assertEqual((texts(dialog := s.dialog(FOUND[0], 30)), titles(dialog)),
                         (FOUND, ["稍后", "立即更新"]))
        press(dialog, "立即更新")
        self.assertEqual(texts(dialog := s.dialog(INSTALLED[0], 60)), INSTALLED)
        s.screenshot("package-update-installed")
        press(dialog, "立即重启")
        self.assertEqual(s.app.wait(timeout=30), 0)

        # The runner got the verified package, as the account, once; the image was not fetched.
        [(uid, arguments, digest)] = runner.asked
        self.assertEqual((uid, arguments[:3], digest),
                         (desktop.user.pw_uid, ["/usr/bin/apt-get", "install", "-y"],
                          hashlib.sha256(package).hexdigest()))
        self.assertRegex(arguments[3], rf"^{s.env['TMPDIR']}/qor-update-[0-9a-f-]{{36}}\.deb$")
        self.assertIn(DEB_PATH, self.server.asked)
        self.assertNotIn(IMAGE, self.server.asked)

        # The new version starts, as the account, from the same place.
        s.follow_relaunch()
        s.wait_ready(pages=2)
        self.assertEqual(os.readlink(f"/proc/{s.pid}/exe"), f"{bundle}/bin/qor-velmora")
        self.assertEqual(os.stat(f"/proc/{s.pid}").st_uid, desktop.user.pw_uid)
        self.assertEqual(bundle_file(bundle, "APP_VERSION"), NEW)
        left = os.listdir(s.env["TMPDIR"])
        self.assertEqual([name[:12] for name in left], ["qor-install-"], "the package is removed")
        with open(f"{s.env['XDG_DATA_HOME']}/QOR Velmora/update.log") as f:
            self.assertRegex(f.read(), rf"\] {bundle} updated by the system's package manager\n"
                                       r"\[.*\] relaunched\n$")
        s.main_window()  # the new window, whose quitting stops the new gateway
        os.kill(s.pid, signal.SIGTERM)
        s.assert_quit_cleanly(self)


if __name__ == "__main__":
    unittest.main()
