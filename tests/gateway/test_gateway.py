"""The reference gateway, run from the runtime archive the build packed, the way the shell runs it,
and under the supervisor (sidecar_host) with its standard error unread.

Needs QOR_RUNTIME_ARCHIVE (the built archive), QOR_RUNTIME_VERSION (its version) and SIDECAR_HOST.
"""

import fcntl, http.client, json, os, platform, resource, secrets, shutil, signal, socket
import subprocess, sys, tempfile, termios, time, unittest
from pathlib import Path

ARCHIVE = os.environ.get("QOR_RUNTIME_ARCHIVE", "")
VERSION = os.environ.get("QOR_RUNTIME_VERSION", "")
HOST = os.environ.get("SIDECAR_HOST", "")
ARCH = "arm64" if platform.machine() in ("arm64", "aarch64") else "x64"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def fetch(port, method, path, body=None, headers=None, timeout=5):
    """One request; (status, body, content type)."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=timeout)
    try:
        connection.putrequest(method, path)
        for name, value in {"Content-Type": "application/json",
                            "Content-Length": str(len(body or b"")), **(headers or {})}.items():
            connection.putheader(name, value)
        connection.endheaders(body)
        response = connection.getresponse()
        return response.status, response.read(), response.getheader("Content-Type")
    finally:
        connection.close()


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
        self.port = free_port()
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
        """Sends SIGTERM as the shell does; the gateway must end cleanly."""
        gateway = self.gateways[-1]
        gateway.send_signal(signal.SIGTERM)
        _, err = gateway.communicate(timeout=60)
        self.assertEqual(gateway.returncode, 0, err)
        self.assertNotIn("Traceback", err)

    def call(self, method, path, body=None, cookie=None, headers=None):
        """One request carrying the secret (or `cookie`); (status, decoded JSON body)."""
        status, raw, _ = self.fetch(method, path, body, cookie, headers)
        return status, json.loads(raw) if raw else None

    def fetch(self, method, path, body=None, cookie=None, headers=None):
        if cookie is None and self.token:
            cookie = f"qor_token={self.token}"
        return fetch(self.port, method, path, body,
                     {**({"Cookie": cookie} if cookie else {}), **(headers or {})})

    def threads(self):
        status = Path(f"/proc/{self.gateways[-1].pid}/status").read_text()
        return int(next(line.split()[1] for line in status.splitlines()
                        if line.startswith("Threads:")))

    def test_notes_persist_as_files_across_a_sigterm_restart(self):
        status, health = self.start()  # the readiness probe reports the packed version
        self.assertEqual((status, health["status"], health["version"]), (200, "ok", VERSION))
        self.assertEqual(health["data_dir"], str(self.data))
        self.assertTrue((self.runtime / "python/bin/python").is_symlink())
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

    def test_bad_input_gets_a_clean_400_and_writes_nothing(self):
        self.start()
        for method, path, headers, body, error in (
                ("POST", "/api/notes", {}, b'{"title": "t"', "invalid_json"),
                ("PUT", "/api/notes/../../outside", {}, b'{"title": "t", "body": ""}',
                 "invalid_note_id"),
                ("POST", "/api/notes", {"Content-Length": "\u00b2"}, b"{}",
                 "invalid_content_length"),
                ("POST", "/api/notes", {"Content-Length": "-1"}, b"{}", "invalid_content_length"),
                ("POST", "/api/notes", {"Content-Length": "1e3"}, b"{}", "invalid_content_length"),
                ("POST", "/api/notes", {}, b'{"title": "\\ud800", "body": ""}', "invalid_json"),
                ("POST", "/api/notes", {}, b'{"title": "t", "body": "\\udfff\\ud800"}',
                 "invalid_json")):
            with self.subTest(path=path, headers=headers, body=body):
                status, answer = self.call(method, path, body, headers=headers)
                self.assertEqual((status, answer["error"]), (400, error))
        self.assertEqual(self.call("GET", "/api/notes"), (200, {"notes": []}))
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

    def test_idle_connections_cost_no_thread_and_do_not_hold_up_others(self):
        self.start()
        idle = []
        self.addCleanup(lambda: [connection.close() for connection in idle])
        for _ in range(500):
            idle.append(socket.create_connection(("127.0.0.1", self.port)))
        idle[-1].sendall(b"GET /api/notes HTTP/1.1\r\n")  # and one that stalls mid-request
        self.assertEqual(fetch(self.port, "GET", "/healthz", timeout=60)[0], 200)
        # It was answered while every idle connection was still open: none was waited out.
        for connection in idle:
            connection.setblocking(False)
            with self.assertRaises(BlockingIOError):
                connection.recv(1)
        self.assertLess(self.threads(), 40)
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


@unittest.skipUnless(ARCHIVE and VERSION and HOST,
                     "QOR_RUNTIME_ARCHIVE, QOR_RUNTIME_VERSION and SIDECAR_HOST must be set")
class SupervisedGatewayTest(unittest.TestCase):
    def test_output_nobody_reads_never_stalls_the_gateway(self):
        root = Path(self.enterContext(tempfile.TemporaryDirectory()))
        resources, port = root / "resources", free_port()
        resources.mkdir()
        shutil.copy(ARCHIVE, resources / f"QOR-runtime-{ARCH}.zip")
        (resources / "QOR_RUNTIME_VERSION").write_text(VERSION)
        unread, stderr = os.pipe()
        self.addCleanup(os.close, unread)
        host = subprocess.Popen([HOST, str(root / "support"), str(resources), str(port),
                                 str(port + 1)], stdout=subprocess.PIPE, stderr=stderr, text=True,
                                start_new_session=True)
        os.close(stderr)
        self.addCleanup(lambda: (os.killpg(host.pid, signal.SIGTERM), host.communicate()))
        self.assertIn(f"ready: http://127.0.0.1:{port}/\n", iter(host.stdout.readline, ""))

        requests = 10000
        for _ in range(requests):
            self.assertEqual(fetch(port, "GET", "/healthz?stress")[0], 200)
        waiting = int.from_bytes(fcntl.ioctl(unread, termios.FIONREAD, b"\0\0\0\0"),
                                 sys.byteorder)
        # Chunks fill the pipe's pages only partly, but well past the half.
        self.assertGreater(waiting, fcntl.fcntl(unread, fcntl.F_GETPIPE_SZ) // 2,
                           "the pipe never filled")
        logs = root / "support" / "QOR Velmora" / "logs"
        lines = lambda: sum(path.read_text(errors="replace").count("GET /healthz?stress ")
                            for path in logs.glob("qor-velmora.log*"))
        deadline = time.monotonic() + 60
        while lines() < requests and time.monotonic() < deadline:
            time.sleep(0.05)
        self.assertEqual(lines(), requests)
