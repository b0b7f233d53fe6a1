"""Update manifests on the local HTTPS server that are not signed by a key the shell trusts:
blocked with a dialog and nothing downloaded; the second trusted key, a rotation's, accepted."""

import os, subprocess, tempfile, unittest

import test_update
from harness import bundle_file, press, texts, titles, wait_until
from test_update import FOUND, IMAGE, KEYS, MANIFEST, OLD, RELEASE, SIGNATURE, publish

BLOCKED = ["已阻止更新", "更新清单的签名缺失或无效。"]


class SignatureTest(test_update.UpdateHost):
    def test_manifests_without_a_trusted_signature_are_blocked(self):
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
                press(dialog, "好")
                wait_until(lambda: not s.windows("dialog"), 10, "the alert to close")
                self.assertEqual(self.server.asked, [MANIFEST, SIGNATURE], "no image asked for")
        self.assertEqual(bundle_file(bundle, "APP_VERSION"), OLD)
        self.assertEqual(os.listdir(s.env["TMPDIR"]), [], "nothing downloaded")
        s.key("ctrl+q")
        s.assert_quit_cleanly(self)

    def test_manifest_signed_with_the_second_key_is_offered(self):
        s, _ = self.start("update-rotated", {**publish(f"{KEYS}/second.pem"), IMAGE: self.image})
        self.assertEqual(texts(dialog := s.dialog(timeout=30)), FOUND)  # the automatic check
        press(dialog, "稍后")
        wait_until(lambda: not s.windows("dialog"), 10, "the alert to close")
        self.assertNotIn(IMAGE, self.server.asked)
        s.key("ctrl+q")
        s.assert_quit_cleanly(self)


if __name__ == "__main__":
    unittest.main()
