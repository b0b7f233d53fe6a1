"""An update end to end on a local HTTPS server, with the update image `make package` makes and
the manifest the release tool writes and signs for it; a tampered image refused; a disk that fills
up during the install keeps the installed version and the next start says so; manifests not signed
by a key the shell trusts blocked with nothing downloaded, the second trusted key, a rotation's,
accepted."""

import glob, hashlib, http.server, os, pathlib, shutil, signal, ssl, subprocess, tarfile, tempfile
import threading, unittest

from harness import (BUNDLE, Session, bundle_file, find_all, pid_alive, port_listening, press,
                     texts, titles, wait_until)

# The shell built to update from localhost:PORT; it trusts the authority at CA, made here, and
# manifests signed with KEYS/first.pem or KEYS/second.pem, made when the build was configured.
SHELL, CA = os.environ["QOR_E2E_UPDATE_SHELL"], os.environ["QOR_E2E_UPDATE_CA"]
KEYS, RELEASE = os.environ["QOR_E2E_UPDATE_KEYS"], os.environ["QOR_E2E_RELEASE_TOOL"]
MANIFEST, SIGNATURE = "/qor/latest.json", "/qor/latest.json.sig"
PORT, NOTES = int(os.environ["QOR_E2E_UPDATE_PORT"]), "修复"
# The packaged release, offered to an installation one version older.
NEW, OLD = bundle_file(BUNDLE, "APP_VERSION"), "0.9.0"
PACKAGE = glob.glob(f"{os.environ['QOR_E2E_PACKAGES']}/QOR-Velmora-{NEW}-linux-*.tar.gz")[0]
IMAGE = "/qor/" + os.path.basename(PACKAGE)
FOUND = [f"发现新版本 {NEW}", f"当前版本：{OLD}\n" + NOTES]
DOWNLOADING = [f"正在下载更新 {NEW}", "下载完成并校验通过后，QOR 将自动重启完成安装。"]
READY = [f"准备安装 {NEW}", "QOR 将退出并自动重启，窗口会在几秒后重新打开。"]
MISMATCH = "安装包校验和不匹配，可能已损坏或被篡改。\n期望 {}…\n实际 {}…"
BLOCKED = ["已阻止更新", "更新清单的签名缺失或无效。"]


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):  # the server's files; the image's body once the test releases it
        self.server.asked.append(self.path)
        body = self.server.files.get(self.path, b"")
        self.send_response(200 if self.path in self.server.files else 404)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if self.path == IMAGE:
            self.server.release.wait()
        self.wfile.write(body)


def digests(folder):  # every file below `folder` by its SHA-256, links by their targets
    return {str(path.relative_to(folder)): f"-> {os.readlink(path)}" if path.is_symlink() else
            hashlib.sha256(path.read_bytes()).hexdigest()
            for path in pathlib.Path(folder).rglob("*") if path.is_symlink() or path.is_file()}


def publish(key, *packages):  # the manifest and its signature, as the release tool writes them
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run([RELEASE, "--version", NEW, "--base-url", f"https://localhost:{PORT}/qor/",
                        "--notes", NOTES, "--signing-key", key, "--output",
                        f"{folder}/latest.json", PACKAGE, *packages], check=True,
                       capture_output=True)
        return {path: pathlib.Path(folder, os.path.basename(path)).read_bytes()
                for path in (MANIFEST, SIGNATURE)}


def stage(folder, version):  # a copy of the staged bundle with the update-enabled shell
    shutil.copytree(BUNDLE, bundle := os.path.join(folder, "QOR Velmora"), symlinks=True)
    shutil.copy2(SHELL, f"{bundle}/bin/qor-velmora")
    with open(f"{bundle}/share/qor-velmora/APP_VERSION", "w") as f:
        f.write(version + "\n")
    return bundle


class UpdateHost(unittest.TestCase):  # the server, and older bundles that update from it
    @classmethod
    def setUpClass(cls):
        os.makedirs(folder := os.path.dirname(CA), exist_ok=True)
        new = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
               "ec_paramgen_curve:prime256v1", "-nodes", "-days", "1", "-keyout"]
        for command in ([*new, "ca.key", "-out", CA, "-subj", "/CN=QOR e2e"],
                        [*new, "key.pem", "-out", "cert.pem", "-subj", "/CN=localhost", "-CA",
                         CA, "-CAkey", "ca.key", "-addext", "basicConstraints=CA:FALSE",
                         "-addext", "subjectAltName=DNS:localhost"]):
            subprocess.run(command, cwd=folder, check=True, capture_output=True)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(f"{folder}/cert.pem", f"{folder}/key.pem")
        cls.server = http.server.ThreadingHTTPServer(("127.0.0.1", PORT), Handler)
        cls.server.socket = context.wrap_socket(cls.server.socket, server_side=True)
        threading.Thread(target=cls.server.serve_forever, daemon=True).start()
        cls.addClassCleanup(cls.server.server_close)
        cls.addClassCleanup(cls.server.shutdown)
        with open(PACKAGE, "rb") as f:
            cls.image = f.read()
        cls.published = publish(f"{KEYS}/first.pem")

    def serve(self, files, hold=False):  # with `hold`, the image waits for `server.release`
        self.server.files, self.server.asked, self.server.release = files, [], threading.Event()
        if not hold:
            self.server.release.set()
        self.addCleanup(self.server.release.set)

    def start(self, name, files, hold=False):  # an older bundle in a folder of its own, running
        self.serve(files, hold)
        s = Session(name)
        self.addCleanup(s.close)
        s.launch(f"{(bundle := stage(f'{s.root}/apps', OLD))}/bin/qor-velmora")
        s.wait_ready()
        return s, bundle


class UpdateTest(UpdateHost):
    def test_a_tampered_image_is_refused_then_the_update_installs_and_relaunches(self):
        s, bundle = self.start("update", {}, hold=True)
        # The automatic check asks 3 s after launch; its failure shows nothing.
        wait_until(lambda: MANIFEST in self.server.asked, 15, "the automatic check")
        tampered = bytearray(self.image)
        tampered[len(tampered) // 2] ^= 0xFF
        self.server.files = {**self.published, IMAGE: bytes(tampered)}
        s.choose("QOR Velmora", "检查更新…")
        self.assertEqual(titles(dialog := s.dialog()), ["稍后", "立即更新"])
        self.assertEqual(texts(dialog), FOUND)
        s.screenshot("update-found")
        press(dialog, "立即更新")
        progress = s.dialog(DOWNLOADING[0])
        self.assertEqual((texts(progress), titles(progress)), (DOWNLOADING, ["取消"]))
        bar = find_all(progress, role="progress bar")[0].queryComponent().getExtents(1)
        self.assertEqual((bar.width, bar.height), (260, 14))
        self.server.release.set()
        dialog = s.dialog("已阻止更新", 60)
        digests = (hashlib.sha256(x).hexdigest()[:16] for x in (self.image, tampered))
        self.assertEqual(texts(dialog)[1:], [MISMATCH.format(*digests)])
        s.screenshot("update-blocked")
        s.answer(dialog, "好")
        # Still the old version, still running, with the same gateway.
        self.assertEqual(bundle_file(bundle, "APP_VERSION"), OLD)
        self.assertEqual((s.app.poll(), len(s.gateway_pids()), port_listening()), (None, 1, True))
        self.assertEqual(os.listdir(s.env["TMPDIR"]), [], "no image, no staging folder")

        self.server.files[IMAGE] = self.image
        s.choose("QOR Velmora", "检查更新…")
        press(s.dialog(FOUND[0]), "立即更新")
        self.assertEqual(texts(dialog := s.dialog(READY[0], 60)), READY)
        press(dialog, "立即重启")
        # The old shell quits the normal way, which stops its gateway; the script then
        # replaces the bundle and starts it again, with a gateway of its own.
        self.assertEqual(s.app.wait(timeout=30), 0)
        self.assertFalse(pid_alive(old := s.gateway_pids()[0]))
        self.assertEqual([e["pid"] for e in s.events("sigterm")], [old])
        s.follow_relaunch()
        s.wait_ready(pages=2)
        self.assertEqual(os.readlink(f"/proc/{s.pid}/exe"), f"{bundle}/bin/qor-velmora")
        self.assertEqual(bundle_file(bundle, "APP_VERSION"), NEW)
        self.assertEqual([f for f in os.listdir(s.env["TMPDIR"]) if "-install-" not in f], [])
        s.main_window()  # the new window, whose quitting stops the new gateway
        os.kill(s.pid, signal.SIGTERM)
        s.assert_quit_cleanly(self)

    def test_a_disk_that_fills_up_during_the_install_keeps_the_installed_version(self):
        self.serve({**self.published, IMAGE: self.image}, hold=True)
        s = Session("update-full-disk")
        # The bundle on a small disk of its own, with room for the update's copy at first.
        apps = f"{s.root}/apps"
        os.makedirs(apps)
        needed = sum(os.path.getsize(f"{p}/{n}") for p, _, ns in os.walk(BUNDLE) for n in ns)
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={2 * needed + (96 << 20)}", "tmpfs",
                        apps], check=True)
        self.addCleanup(lambda: (s.close(), subprocess.run(["umount", "-l", apps])))
        bundle = stage(apps, OLD)
        before = digests(bundle)
        s.launch(f"{bundle}/bin/qor-velmora")
        s.wait_ready()
        press(s.dialog(FOUND[0], 30), "立即更新")
        s.dialog(DOWNLOADING[0])
        # Something else fills the disk while the image downloads: half the new bundle is left.
        with tarfile.open(PACKAGE) as image:
            incoming = sum(entry.size for entry in image.getmembers())
        disk = os.statvfs(apps)
        subprocess.run(["fallocate", "-l", str(disk.f_bavail * disk.f_frsize - incoming // 2),
                        f"{apps}/other"], check=True)
        self.server.release.set()
        press(s.dialog(READY[0], 60), "立即重启")
        self.assertEqual(s.app.wait(timeout=30), 0)
        # The same version starts again, and tells why once.
        s.follow_relaunch()
        log = f"{s.env['XDG_DATA_HOME']}/QOR Velmora/update.log"
        dialog = s.dialog("更新失败", 60)
        self.assertEqual(texts(dialog), ["更新失败", f"无法安装更新 {NEW}，已保留当前版本 {OLD}。"
                                                   f"\n详细原因见 {log}。"])
        self.assertEqual(titles(dialog), ["好"])
        s.screenshot("update-failed")
        press(dialog, "好")
        self.assertEqual(digests(bundle), before, "the installed version, byte for byte")
        self.assertEqual(sorted(os.listdir(apps)), ["QOR Velmora", "other"])
        with open(log) as f:
            self.assertRegex(f.read(), r"\ncopy FAILED: cannot copy the new version next to .*"
                                       r"\n\[.*\] relaunched\n$")
        self.assertEqual(os.listdir(s.env["TMPDIR"])[0][:12], "qor-install-")
        self.assertEqual(len(os.listdir(s.env["TMPDIR"])), 1, "no image, no staging folder")
        # Its automatic check asks again but offers nothing; the menu still offers the update.
        shell_log = f"{s.env['XDG_DATA_HOME']}/QOR Velmora/logs/qor-velmora.log"
        wait_until(lambda: f"not offering {NEW} again" in open(shell_log).read(), 30,
                   "the automatic check to pass over the version")
        s.choose("QOR Velmora", "检查更新…")
        self.assertEqual(texts(dialog := s.dialog(FOUND[0])), FOUND)
        self.assertEqual(len(s.windows("dialog")), 1, "the automatic check offered it too")
        press(dialog, "稍后")
        os.kill(s.pid, signal.SIGTERM)
        s.assert_quit_cleanly(self)



class SignatureTest(UpdateHost):
    def test_only_manifests_with_a_trusted_signature_are_offered(self):
        good = self.published
        with tempfile.TemporaryDirectory() as folder:  # a key pair nobody trusts
            subprocess.run([RELEASE, "keygen", "--private-key", f"{folder}/key.pem",
                            "--public-key", f"{folder}/key.pub"], check=True, capture_output=True)
            untrusted = publish(f"{folder}/key.pem")
        at = good[MANIFEST].index(b"localhost")
        changed = good[MANIFEST][:at] + b"L" + good[MANIFEST][at + 1:]
        cases = {
            "no signature": {MANIFEST: good[MANIFEST]},
            "untrusted key": untrusted,
            "one byte of the manifest changed": {MANIFEST: changed, SIGNATURE: good[SIGNATURE]},
            "truncated signature": {MANIFEST: good[MANIFEST],
                                    SIGNATURE: good[SIGNATURE][:len(good[SIGNATURE]) // 2]},
        }
        s, bundle = self.start("update-unsigned", {**cases["no signature"], IMAGE: self.image})
        # The automatic check shows nothing and leaves one line for the diagnostics.
        line = "[updater] update blocked: the manifest has no signature\n"
        wait_until(lambda: line in s.output(), 30, "the diagnostic line")
        self.assertEqual((s.output().count("[updater]"), s.windows("dialog")), (1, []))
        with open(f"{s.env['XDG_DATA_HOME']}/QOR Velmora/logs/qor-velmora.log") as log:
            self.assertIn(line, log.read(), "the application's log keeps it too")
        for name, files in cases.items():
            with self.subTest(name):
                self.server.files, self.server.asked = {**files, IMAGE: self.image}, []
                s.choose("QOR Velmora", "检查更新…")
                dialog = s.dialog(BLOCKED[0])
                self.assertEqual((texts(dialog), titles(dialog)), (BLOCKED, ["好"]))
                if name == "untrusted key":
                    s.screenshot("update-unsigned")
                s.answer(dialog, "好")
                self.assertEqual(self.server.asked, [MANIFEST, SIGNATURE], "no image asked for")
        self.assertEqual(bundle_file(bundle, "APP_VERSION"), OLD)
        self.assertEqual(os.listdir(s.env["TMPDIR"]), [], "nothing downloaded")
        # Signed with the second trusted key, a rotation's: offered.
        self.server.files = {**publish(f"{KEYS}/second.pem"), IMAGE: self.image}
        s.choose("QOR Velmora", "检查更新…")
        self.assertEqual(texts(dialog := s.dialog(FOUND[0])), FOUND)
        s.answer(dialog, "稍后")
        self.assertNotIn(IMAGE, self.server.asked)
        s.key("ctrl+q")
        s.assert_quit_cleanly(self)


if __name__ == "__main__":
    unittest.main()
