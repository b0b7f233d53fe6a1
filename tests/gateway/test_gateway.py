"""The reference gateway, run the way the shell runs it: from the runtime archive the build packed.

Needs QOR_RUNTIME_ARCHIVE (the built archive) and QOR_RUNTIME_VERSION (its version).
"""

import http.client
import json
import os
import re
import signal
import socket
import subprocess
import tempfile
import time
import unittest
import zipfile
from pathlib import Path

ARCHIVE = os.environ.get("QOR_RUNTIME_ARCHIVE", "")
VERSION = os.environ.get("QOR_RUNTIME_VERSION", "")


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class GatewayProcess:
    """One gateway child started from an unpacked runtime; its output is read when it ends."""

    def __init__(self, runtime: Path, args: list[str], data_dir_env=None, port=None):
        self.port = port or free_port()
        env = {k: v for k, v in os.environ.items() if k != "QOR_DATA_DIR"}
        env["PYTHONUNBUFFERED"] = "1"
        if data_dir_env is not None:
            env["QOR_DATA_DIR"] = data_dir_env
        self.process = subprocess.Popen(
            [str(runtime / "python/bin/python"), "-m", "qor_gateway.main", "--port", str(self.port),
             "--litellm-port", str(free_port()), *args],
            cwd=runtime / "sidecar", env=env, text=True,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def wait_ready(self) -> "GatewayProcess":
        deadline = time.monotonic() + 10
        while True:
            try:
                self.request("GET", "/healthz?probe=ready")
                return self
            except ConnectionRefusedError:
                if self.process.poll() is not None or time.monotonic() > deadline:
                    raise AssertionError(f"gateway never answered: {self.stop()}") from None
                time.sleep(0.05)

    def request(self, method, path, body=None, headers=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=5)
        try:
            connection.request(method, path, body=body, headers=headers or {})
            response = connection.getresponse()
            return response.status, response.headers, response.read()
        finally:
            connection.close()

    def call(self, method, path, payload=None):
        """A JSON API call; returns the status and the decoded answer (None when empty)."""
        body = None if payload is None else json.dumps(payload).encode()
        as_json = {"Content-Type": "application/json"}
        status, headers, raw = self.request(method, path, body, as_json)
        if raw:
            self.assert_json(headers)
        return status, json.loads(raw) if raw else None

    @staticmethod
    def assert_json(headers):
        if headers.get_content_type() != "application/json":
            raise AssertionError(f"not JSON: {headers.get('Content-Type')}")

    def stop(self, signum=signal.SIGTERM):
        """Signals the gateway; returns exit code, seconds it took, standard output and error."""
        if self.process.poll() is None:
            self.process.send_signal(signum)
        sent = time.monotonic()
        out, err = self.process.communicate(timeout=10)
        return self.process.returncode, time.monotonic() - sent, out, err

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.communicate()


@unittest.skipUnless(ARCHIVE and VERSION, "QOR_RUNTIME_ARCHIVE and QOR_RUNTIME_VERSION must be set")
class GatewayTest(unittest.TestCase):
    def setUp(self):
        self.temp = tempfile.TemporaryDirectory()
        self.runtime = Path(self.temp.name, "runtime")
        self.data = Path(self.temp.name, "data")
        subprocess.run(["/usr/bin/unzip", "-q", ARCHIVE, "-d", str(self.runtime)], check=True)
        self.gateways = []

    def tearDown(self):
        for gateway in self.gateways:
            gateway.kill()
        self.temp.cleanup()

    def launch(self, *args, data_dir_env=None, port=None) -> GatewayProcess:
        gateway = GatewayProcess(self.runtime, list(args), data_dir_env, port)
        self.gateways.append(gateway)
        return gateway

    def start(self) -> GatewayProcess:
        return self.launch("--data-dir", str(self.data)).wait_ready()

    def stop(self, gateway, signum=signal.SIGTERM):
        code, seconds, out, err = gateway.stop(signum)
        self.assertEqual(code, 0, err)
        self.assertLess(seconds, 1.0)
        self.assertNotIn("Traceback", err)
        return out

    def note_files(self):
        return {path.name: path.read_bytes() for path in (self.data / "notes").iterdir()}

    def test_unpacked_interpreter_runs_as_its_own_environment(self):
        python = self.runtime / "python/bin/python"
        self.assertTrue(python.is_symlink())
        prefix = subprocess.run([str(python), "-c", "import sys; print(sys.prefix)"],
                                check=True, capture_output=True, text=True).stdout.strip()
        self.assertEqual(Path(prefix), self.runtime / "python")
        self.assertEqual((self.runtime / "QOR_RUNTIME_VERSION").read_bytes(), VERSION.encode())
        names = zipfile.ZipFile(ARCHIVE).namelist()
        self.assertIn("sidecar/qor_gateway/main.py", names)
        self.assertFalse([name for name in names if "__pycache__" in name or name.endswith(".pyc")])

    def test_readiness_probe_reports_the_runtime_version(self):
        status, health = self.start().call("GET", "/healthz")
        self.assertEqual(status, 200)
        self.assertEqual(health["version"], VERSION)
        self.assertEqual(health["status"], "ok")
        self.assertEqual(health["data_dir"], str(self.data))

        # The runtime's own version file wins: the shell may write it after unpacking.
        self.stop(self.gateways[-1])
        (self.runtime / "QOR_RUNTIME_VERSION").write_text("9.9.9-local\n")
        self.assertEqual(self.start().call("GET", "/healthz")[1]["version"], "9.9.9-local")

        # Without it the gateway falls back to the version packed into the package.
        self.stop(self.gateways[-1])
        (self.runtime / "QOR_RUNTIME_VERSION").unlink()
        self.assertEqual(self.start().call("GET", "/healthz")[1]["version"], VERSION)

    def test_data_dir_option_wins_over_the_environment(self):
        from_env = Path(self.temp.name, "env-data")
        gateway = self.launch("--data-dir", str(self.data), data_dir_env=str(from_env)).wait_ready()
        self.assertEqual(gateway.call("GET", "/healthz")[1]["data_dir"], str(self.data))
        self.assertEqual(gateway.call("POST", "/api/notes", {"title": "t", "body": ""})[0], 201)
        self.assertEqual(len(self.note_files()), 1)
        self.assertFalse(from_env.exists())
        self.stop(gateway)

        gateway = self.launch(data_dir_env=str(from_env)).wait_ready()
        self.assertEqual(gateway.call("GET", "/healthz")[1]["data_dir"], str(from_env))

    def test_page_is_a_self_contained_chinese_ui_with_shell_links(self):
        gateway = self.start()
        status, headers, raw = gateway.request("GET", "/")
        self.assertEqual(status, 200)
        self.assertEqual(headers["Content-Type"], "text/html; charset=utf-8")
        page = raw.decode("utf-8")
        self.assertIn("<title>QOR Velmora</title>", page)
        self.assertIn("笔记", page)
        self.assertIn('href="https://example.com"', page)
        self.assertIn('href="mailto:', page)
        self.assertRegex(page, r'href="/__qor/whatsapp\?phone=[^"]+&amp;text=[^"]+"')
        self.assertIsNone(re.search(r"<script[^>]*\ssrc=|<link\b|<img\b|url\(|@import", page))
        self.assertIn("default-src 'none'", headers["Content-Security-Policy"])

        status, answer = gateway.call("GET", "/no/such/page")
        self.assertEqual((status, answer["error"]), (404, "not_found"))

    def test_notes_persist_as_files_and_survive_a_restart(self):
        gateway = self.start()
        self.assertEqual(gateway.call("GET", "/api/notes"), (200, {"notes": []}))

        status, first = gateway.call("POST", "/api/notes",
                                     {"title": "  购物清单 ", "body": "牛奶\n面包"})
        self.assertEqual(status, 201)
        self.assertEqual((first["title"], first["body"]), ("购物清单", "牛奶\n面包"))
        first_file = self.data / "notes" / f"{first['id']}.json"
        self.assertEqual(json.loads(first_file.read_text("utf-8")), first)
        second = gateway.call("POST", "/api/notes", {"title": "待办", "body": ""})[1]

        status, edited = gateway.call("PUT", f"/api/notes/{first['id']}",
                                      {"title": "清单", "body": "茶"})
        self.assertEqual(status, 200)
        self.assertEqual(edited["created_at"], first["created_at"])
        self.assertGreater(edited["updated_at"], second["updated_at"])
        self.assertEqual(json.loads(first_file.read_text("utf-8")), edited)

        self.stop(gateway)
        gateway = self.start()
        self.assertEqual(gateway.call("GET", "/api/notes"), (200, {"notes": [edited, second]}))

        self.assertEqual(gateway.call("DELETE", f"/api/notes/{second['id']}"), (204, None))
        self.assertEqual(set(self.note_files()), {first_file.name})
        self.assertEqual(gateway.call("GET", "/api/notes")[1], {"notes": [edited]})
        for method, payload in (("DELETE", None), ("PUT", {"title": "x", "body": ""})):
            status, answer = gateway.call(method, f"/api/notes/{second['id']}", payload)
            self.assertEqual((status, answer["error"]), (404, "note_not_found"))
        self.assertEqual(set(self.note_files()), {first_file.name})

    def test_bad_requests_get_json_errors_and_change_nothing(self):
        gateway = self.start()
        note_id = gateway.call("POST", "/api/notes", {"title": "原稿", "body": "正文"})[1]["id"]
        before = self.note_files()
        notes, valid = "/api/notes", json.dumps({"title": "t", "body": "b"}).encode()
        long_title = json.dumps({"title": "x" * 201, "body": ""}).encode()
        cases = [  # method, path, body, headers besides the JSON content type, status, error
            ("POST", notes, b'{"title": "t"', {}, 400, "invalid_json"),
            ("POST", notes, b"\xff\xfe{}", {}, 400, "invalid_json"),
            ("POST", notes, b"[" * 200000, {}, 400, "invalid_json"),
            ("POST", notes, b'["t", "b"]', {}, 400, "invalid_note"),
            ("POST", notes, b'{"body": "b"}', {}, 400, "invalid_title"),
            ("POST", notes, b'{"title": " \\n ", "body": ""}', {}, 400, "invalid_title"),
            ("POST", notes, long_title, {}, 400, "invalid_title"),
            ("POST", notes, b'{"title": "t"}', {}, 400, "invalid_body"),
            ("POST", notes, b'{"title": "t", "body": 5}', {}, 400, "invalid_body"),
            ("POST", notes, b'{"title": "t", "body": "", "tags": []}', {}, 400, "unknown_field"),
            ("POST", notes, valid, {"Content-Type": "text/plain"}, 415, "unsupported_media_type"),
            # Refused on the headers alone, so these send no body.
            ("POST", notes, None, {"Transfer-Encoding": "chunked"}, 411, "length_required"),
            ("POST", notes, None, {"Content-Length": "262145"}, 413, "body_too_large"),
            ("PUT", f"{notes}/{note_id}", b'{"title": "", "body": "x"}', {}, 400, "invalid_title"),
            ("PUT", f"{notes}/../../outside", valid, {}, 400, "invalid_note_id"),
            ("PUT", f"{notes}/{'0' * 32}", valid, {}, 404, "note_not_found"),
            ("DELETE", f"{notes}/not-a-note", None, {}, 400, "invalid_note_id"),
            ("PATCH", notes, valid, {}, 405, "method_not_allowed"),
            ("GET", notes, None, {"Host": "attacker.example:8088"}, 403, "forbidden_host"),
        ]
        for method, path, body, headers, expected_status, expected_code in cases:
            with self.subTest(method=method, path=path, code=expected_code):
                headers = {"Content-Type": "application/json", **headers}
                status, answer_headers, raw = gateway.request(method, path, body, headers)
                self.assertEqual(status, expected_status)
                gateway.assert_json(answer_headers)
                answer = json.loads(raw)
                self.assertEqual(answer["error"], expected_code)
                self.assertTrue(answer["message"])
        self.assertEqual(self.note_files(), before)

        # The largest note the limits allow fits the request size limit, however it is escaped.
        largest = {"title": "题" * 200, "body": "\u0001" * 20000}
        self.assertEqual(gateway.call("POST", "/api/notes", largest)[0], 201)

    def test_storage_failures_are_reported_and_the_gateway_keeps_serving(self):
        gateway = self.start()
        (self.data / "notes").rmdir()
        (self.data / "notes").write_text("not a folder")
        status, answer = gateway.call("POST", "/api/notes", {"title": "t", "body": ""})
        self.assertEqual((status, answer["error"]), (500, "storage_failed"))
        self.assertEqual(gateway.call("GET", "/healthz")[0], 200)
        self.assertEqual((self.data / "notes").read_text(), "not a folder")
        self.stop(gateway)

        # A data folder that cannot be made ends the gateway at once, with the reason.
        gateway = self.launch("--data-dir", str(self.data / "notes" / "data"))
        self.assertEqual(gateway.process.wait(timeout=10), 1)
        self.assertIn("cannot use the data folder", gateway.process.stderr.read())

    def test_requests_are_logged_and_signals_end_the_gateway_cleanly(self):
        gateway = self.start()
        for path in ("/healthz?probe=one", "/api/notes?probe=two", "/missing?probe=three"):
            gateway.request("GET", path)
        lines = self.stop(gateway, signal.SIGTERM).splitlines()
        for probe, status in (("one", 200), ("two", 200), ("three", 404)):
            logged = [line for line in lines if f"probe={probe} " in line]
            self.assertEqual(len(logged), 1, lines)
            self.assertIn("GET /", logged[0])
            self.assertIn(f" {status} ", logged[0])

        self.stop(self.start(), signal.SIGINT)

    def test_busy_port_ends_the_gateway_with_a_clear_message(self):
        with socket.socket() as holder:
            holder.bind(("127.0.0.1", 0))
            holder.listen()
            port = holder.getsockname()[1]
            gateway = self.launch("--data-dir", str(self.data), port=port)
            self.assertEqual(gateway.process.wait(timeout=10), 1)
        self.assertIn(f"cannot listen on 127.0.0.1:{port}", gateway.process.stderr.read())
