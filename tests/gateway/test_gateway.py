"""The reference gateway, run from the runtime archive the build packed, the way the shell runs it.

Needs QOR_RUNTIME_ARCHIVE (the built archive) and QOR_RUNTIME_VERSION (its version).
"""

import http.client
import json
import os
import signal
import socket
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

ARCHIVE = os.environ.get("QOR_RUNTIME_ARCHIVE", "")
VERSION = os.environ.get("QOR_RUNTIME_VERSION", "")


@unittest.skipUnless(ARCHIVE and VERSION, "QOR_RUNTIME_ARCHIVE and QOR_RUNTIME_VERSION must be set")
class GatewayTest(unittest.TestCase):
    def setUp(self):
        temp = tempfile.TemporaryDirectory()
        self.addCleanup(temp.cleanup)
        self.runtime, self.data = Path(temp.name, "runtime"), Path(temp.name, "data")
        subprocess.run(["/usr/bin/unzip", "-q", ARCHIVE, "-d", str(self.runtime)], check=True)
        self.gateways = []

    def tearDown(self):
        for gateway in self.gateways:
            if gateway.poll() is None:
                gateway.kill()
                gateway.communicate()

    def start(self):
        """Starts a gateway from the unpacked runtime; returns its /healthz answer."""
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        self.gateways.append(subprocess.Popen(
            [self.runtime / "python/bin/python", "-m", "qor_gateway.main", "--port", str(self.port),
             "--litellm-port", str(self.port + 1), "--data-dir", self.data],
            cwd=self.runtime / "sidecar", env={**os.environ, "PYTHONUNBUFFERED": "1"},
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True))
        deadline = time.monotonic() + 10
        while True:
            try:
                return self.call("GET", "/healthz")
            except ConnectionRefusedError:
                self.assertIsNone(self.gateways[-1].poll(), "the gateway ended at start")
                self.assertLess(time.monotonic(), deadline, "the gateway never answered")
                time.sleep(0.05)

    def stop(self):
        """Sends SIGTERM as the shell does; the gateway must end cleanly well within 1.2 s."""
        gateway, sent = self.gateways[-1], time.monotonic()
        gateway.send_signal(signal.SIGTERM)
        _, err = gateway.communicate(timeout=10)
        self.assertEqual(gateway.returncode, 0, err)
        self.assertLess(time.monotonic() - sent, 1.0)
        self.assertNotIn("Traceback", err)

    def call(self, method, path, body=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=5)
        try:
            connection.request(method, path, body, {"Content-Type": "application/json"})
            response = connection.getresponse()
            raw = response.read()
            return response.status, json.loads(raw) if raw else None
        finally:
            connection.close()

    def test_readiness_probe_reports_the_packed_version(self):
        status, health = self.start()
        self.assertEqual((status, health["status"], health["version"]), (200, "ok", VERSION))
        self.assertEqual(health["data_dir"], str(self.data))
        self.assertTrue((self.runtime / "python/bin/python").is_symlink())

    def test_notes_persist_as_files_across_a_sigterm_restart(self):
        self.start()
        note = {"title": "购物清单", "body": "牛奶\n面包"}
        status, saved = self.call("POST", "/api/notes", json.dumps(note).encode())
        self.assertEqual((status, saved["title"], saved["body"]), (201, *note.values()))
        file = self.data / "notes" / f"{saved['id']}.json"
        self.assertEqual(json.loads(file.read_text("utf-8")), saved)
        self.stop()

        self.start()
        self.assertEqual(self.call("GET", "/api/notes"), (200, {"notes": [saved]}))
        self.assertEqual(self.call("DELETE", f"/api/notes/{saved['id']}"), (204, None))
        self.assertFalse(file.exists())
        self.stop()

    def test_bad_input_is_refused_and_writes_nothing(self):
        self.start()
        for method, path, body, error in (
                ("POST", "/api/notes", b'{"title": "t"', "invalid_json"),
                ("PUT", "/api/notes/../../outside", b'{"title": "t", "body": ""}',
                 "invalid_note_id")):
            with self.subTest(error=error):
                status, answer = self.call(method, path, body)
                self.assertEqual((status, answer["error"]), (400, error))
        written = [path for path in self.runtime.parent.rglob("*") if path.is_file()]
        self.assertEqual([path for path in written if self.runtime not in path.parents], [])
