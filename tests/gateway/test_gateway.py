"""The reference gateway, run from the runtime archive the build packed, the way the shell runs it.

Needs QOR_RUNTIME_ARCHIVE (the built archive) and QOR_RUNTIME_VERSION (its version).
"""

import http.client
import json
import os
import resource
import secrets
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

    def start(self, token=True, stdout=subprocess.DEVNULL, open_files=None):
        """Starts a gateway from the unpacked runtime; returns its /healthz answer.

        token: True for a fresh secret, which call() then sends; None to start without one.
        """
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        self.token = secrets.token_hex(32) if token is True else token
        environment = {**os.environ, "PYTHONUNBUFFERED": "1"}
        environment.pop("QOR_GATEWAY_TOKEN", None)
        if self.token is not None:
            environment["QOR_GATEWAY_TOKEN"] = self.token
        limit = (lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (open_files, open_files))
                 ) if open_files else None
        self.gateways.append(subprocess.Popen(
            [self.runtime / "python/bin/python", "-m", "qor_gateway.main", "--port", str(self.port),
             "--litellm-port", str(self.port + 1), "--data-dir", self.data],
            cwd=self.runtime / "sidecar", env=environment, preexec_fn=limit,
            stdout=stdout, stderr=subprocess.PIPE, text=True))
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

    def call(self, method, path, body=None, cookie=None, headers=None):
        """One request carrying the secret (or `cookie`); (status, decoded JSON body)."""
        status, raw, _ = self.fetch(method, path, body, cookie, headers)
        return status, json.loads(raw) if raw else None

    def fetch(self, method, path, body=None, cookie=None, headers=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=5)
        if cookie is None and self.token:
            cookie = f"qor_token={self.token}"
        try:
            connection.putrequest(method, path)
            for name, value in {"Content-Type": "application/json",
                                "Content-Length": str(len(body or b"")),
                                **({"Cookie": cookie} if cookie else {}),
                                **(headers or {})}.items():
                connection.putheader(name, value)
            connection.endheaders(body)
            response = connection.getresponse()
            return response.status, response.read(), response.getheader("Content-Type")
        finally:
            connection.close()

    def threads(self):
        status = Path(f"/proc/{self.gateways[-1].pid}/status").read_text()
        return int(next(line.split()[1] for line in status.splitlines()
                        if line.startswith("Threads:")))

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

    def test_only_the_holder_of_the_secret_is_served(self):
        self.start()
        note = json.dumps({"title": "t", "body": ""}).encode()
        for cookie in ("qor_token=" + "0" * 64, "other=1", f"qor_token={self.token[:-1]}",
                       "qor_token", "=;;\"", ""):
            for method, path, body in (("GET", "/", None), ("GET", "/api/notes", None),
                                       ("POST", "/api/notes", note),
                                       ("DELETE", "/api/notes/" + "0" * 32, None),
                                       ("POST", "/healthz", None)):
                with self.subTest(cookie=cookie, method=method, path=path):
                    status, page, kind = self.fetch(method, path, body, cookie=cookie or "x=")
                    self.assertEqual((status, kind), (403, "text/html; charset=utf-8"))
                    self.assertIn("QOR Velmora".encode(), page)
        self.assertFalse((self.data / "notes").exists() and any((self.data / "notes").iterdir()))
        self.assertEqual(self.call("GET", "/healthz", cookie="x=")[0], 200)
        for cookie in (f"a=b; qor_token={self.token}", f'odd="x;y; qor_token={self.token};z'):
            with self.subTest(cookie=cookie):
                self.assertEqual(self.call("GET", "/api/notes", cookie=cookie),
                                 (200, {"notes": []}))

    def test_without_a_secret_only_the_readiness_probe_answers(self):
        status, health = self.start(token=None, stdout=subprocess.PIPE)
        self.assertEqual((status, health["version"]), (200, VERSION))
        for cookie in ("qor_token=", "qor_token=None"):
            with self.subTest(cookie=cookie):
                self.assertEqual(self.fetch("GET", "/", cookie=cookie)[0], 403)
        self.gateways[-1].send_signal(signal.SIGTERM)
        out, _ = self.gateways[-1].communicate(timeout=10)
        self.assertIn("QOR_GATEWAY_TOKEN is not set", out)

    def test_malformed_requests_get_a_clean_400(self):
        self.start()
        for headers, body, error in (
                ({"Content-Length": "\u00b2"}, b"{}", "invalid_content_length"),
                ({"Content-Length": "-1"}, b"{}", "invalid_content_length"),
                ({"Content-Length": "1e3"}, b"{}", "invalid_content_length"),
                ({}, b'{"title": "\\ud800", "body": ""}', "invalid_json"),
                ({}, b'{"title": "t", "body": "\\udfff\\ud800"}', "invalid_json")):
            with self.subTest(headers=headers, body=body):
                status, answer = self.call("POST", "/api/notes", body, headers=headers)
                self.assertEqual((status, answer["error"]), (400, error))
        self.assertEqual(self.call("GET", "/api/notes"), (200, {"notes": []}))

    def test_idle_connections_cost_no_thread_and_do_not_hold_up_others(self):
        self.start()
        idle = []
        self.addCleanup(lambda: [connection.close() for connection in idle])
        for _ in range(500):
            idle.append(socket.create_connection(("127.0.0.1", self.port)))
        idle[-1].sendall(b"GET /api/notes HTTP/1.1\r\n")  # and one that stalls mid-request
        started = time.monotonic()
        self.assertEqual(self.call("GET", "/healthz")[0], 200)
        answered = time.monotonic() - started
        threads = self.threads()
        print(f"\n500 idle connections: /healthz in {answered * 1000:.0f} ms, "
              f"{threads} gateway threads", flush=True)
        self.assertLess(answered, 1.0)
        self.assertLess(threads, 40)
        # The gateway ends connections that stay silent, or stall mid-request, by itself.
        for connection in (idle[0], idle[-1]):
            connection.settimeout(60)
            self.assertEqual(connection.recv(1), b"")

    def test_running_out_of_files_pauses_and_recovers(self):
        self.start(open_files=64)
        held = []
        self.addCleanup(lambda: [connection.close() for connection in held])
        for _ in range(100):
            held.append(socket.create_connection(("127.0.0.1", self.port)))
        usage = Path(f"/proc/{self.gateways[-1].pid}/stat")
        cpu = lambda: sum(int(field) for field in usage.read_text().rsplit(")", 1)[1].split()[11:13])
        before, started = cpu(), time.monotonic()
        with self.assertRaises(OSError):
            probe = socket.create_connection(("127.0.0.1", self.port), timeout=1)
            held.append(probe)
            probe.sendall(b"GET /healthz HTTP/1.0\r\n\r\n")
            if not probe.recv(1):
                raise ConnectionResetError
        ticks = os.sysconf("SC_CLK_TCK") * (time.monotonic() - started)
        print(f"\nout of files: {100 * (cpu() - before) / ticks:.0f} % of a core", flush=True)
        self.assertLess(cpu() - before, ticks / 2)
        for connection in held:
            connection.close()
        held.clear()
        self.assertEqual(self.call("GET", "/healthz")[0], 200)
