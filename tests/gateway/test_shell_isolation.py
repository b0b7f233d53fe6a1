"""The supervisor (sidecar_host) with the reference gateway from the packed runtime archive, run as
the user and as a second account the test creates: the gateway serves only the user who started
it, the user's files are private, and output nobody reads never stalls the gateway.

Needs QOR_RUNTIME_ARCHIVE, QOR_RUNTIME_VERSION and SIDECAR_HOST; the second account needs root.
"""

import contextlib, fcntl, glob, http.client, json, os, platform, pwd, queue, shutil, signal
import socket, stat, subprocess, sys, tempfile, termios, threading, time, unittest
from pathlib import Path

ARCHIVE = os.environ.get("QOR_RUNTIME_ARCHIVE", "")
VERSION = os.environ.get("QOR_RUNTIME_VERSION", "")
HOST = os.environ.get("SIDECAR_HOST", "")
OTHER = "qor-test-other"
ARCH = "arm64" if platform.machine() in ("arm64", "aarch64") else "x64"
# Asks the gateway as whoever runs it: one status per (method, path, cookie), as JSON.
ASK = """import http.client, json, sys
port, calls = int(sys.argv[1]), json.loads(sys.argv[2])
statuses = []
for method, path, cookie in calls:
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
    connection.request(method, path, headers={"Cookie": cookie} if cookie else {})
    statuses.append(connection.getresponse().status)
    connection.close()
print(json.dumps(statuses))
"""


def wait_until(predicate, timeout, what):
    deadline = time.monotonic() + timeout
    while not (value := predicate()):
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out after {timeout}s waiting for {what}")
        time.sleep(0.05)
    return value


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def gateways_of(uid):
    """Pids of reference gateways run by the account `uid`."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):
            if os.stat(f"/proc/{pid}").st_uid == uid and \
                    b"qor_gateway.main" in Path(f"/proc/{pid}/cmdline").read_bytes():
                found.append(int(pid))
    return found


class Host:
    """One sidecar_host in a session of its own; its printed lines arrive in `lines`."""

    def __init__(self, test, support, port, user=None, stderr=subprocess.DEVNULL):
        command = [HOST, str(support), str(test.resources), str(port), str(port + 1)]
        if user:
            command = ["/usr/sbin/runuser", "-u", user, "--", *command]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=stderr, text=True,
                                        start_new_session=True, preexec_fn=lambda: os.umask(0))
        self.lines, self.seen = queue.Queue(), []
        threading.Thread(target=lambda: [self.lines.put(line.rstrip("\n"))
                                         for line in self.process.stdout], daemon=True).start()
        test.addCleanup(self.stop)

    def wait_for(self, expected, timeout=60):
        deadline = time.monotonic() + timeout
        while expected not in self.seen:
            self.seen.append(self.lines.get(timeout=max(0.01, deadline - time.monotonic())))
        return self.seen

    def gateway(self):
        """The pid of the gateway this host runs."""
        children = " ".join(path.read_text() for path in
                            Path(f"/proc/{self.process.pid}/task").glob("*/children"))
        return next(int(pid) for pid in children.split()
                    if b"qor_gateway.main" in Path(f"/proc/{pid}/cmdline").read_bytes())

    def stop(self):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, signal.SIGTERM)
        self.process.wait(timeout=30)
        self.process.stdout.close()


@unittest.skipUnless(ARCHIVE and VERSION and HOST,
                     "QOR_RUNTIME_ARCHIVE, QOR_RUNTIME_VERSION and SIDECAR_HOST must be set")
class ShellIsolationTest(unittest.TestCase):
    def setUp(self):
        temp = tempfile.mkdtemp(prefix="qor-isolation-")
        self.addCleanup(shutil.rmtree, temp, ignore_errors=True)
        self.root = Path(temp)
        os.chmod(self.root, 0o755)  # the second account reaches the resources and its own folder
        self.resources = self.root / "resources"
        self.resources.mkdir(mode=0o755)
        shutil.copy(ARCHIVE, self.resources / f"QOR-runtime-{ARCH}.zip")
        (self.resources / "QOR_RUNTIME_VERSION").write_text(VERSION)
        for entry in self.resources.iterdir():
            entry.chmod(0o644)
        self.port = free_port()

    def product(self, support):
        return support / "QOR Velmora"

    def start_own(self, **options):
        """The user's supervisor, on an installation of an older runtime with some data."""
        support = self.root / "support"
        runtime = self.product(support) / "runtime" / ARCH
        runtime.mkdir(parents=True)
        (runtime / "QOR_RUNTIME_VERSION").write_text("0.0.1-old")
        (runtime / ".runtime-ok").touch()
        (self.product(support) / "data").mkdir()
        (self.product(support) / "data" / "diary.txt").write_text("private")
        host = Host(self, support, self.port, **options)
        host.wait_for(f"ready: http://127.0.0.1:{self.port}/")
        return host, support

    def ask(self, calls, user=None):
        command = [sys.executable, "-c", ASK, str(self.port), json.dumps(calls)]
        if user:
            command = ["/usr/sbin/runuser", "-u", user, "--", *command]
        return json.loads(subprocess.run(command, check=True, capture_output=True,
                                         text=True, timeout=60).stdout)

    @unittest.skipUnless(os.geteuid() == 0 and shutil.which("useradd"), "needs root and useradd")
    def test_a_second_account_gets_neither_the_gateway_nor_the_files(self):
        try:
            other = pwd.getpwnam(OTHER)
        except KeyError:
            subprocess.run(["useradd", "--system", "--no-create-home", "--shell",
                            "/usr/sbin/nologin", OTHER], check=True)
            other = pwd.getpwnam(OTHER)
        host, support = self.start_own()
        product = self.product(support)

        gateway = host.gateway()
        environment = dict(entry.split(b"=", 1) for entry in
                           Path(f"/proc/{gateway}/environ").read_bytes().split(b"\0") if entry)
        token = environment[b"QOR_GATEWAY_TOKEN"].decode()
        self.assertRegex(token, r"^[0-9a-f]{64}$")
        cookie = f"qor_token={token}"
        self.assertEqual(self.ask([("GET", "/api/notes", cookie), ("GET", "/", cookie)]),
                         [200, 200])

        calls = [("GET", "/api/notes", None), ("DELETE", "/api/notes/" + "0" * 32, None),
                 ("GET", "/", "qor_token=" + "0" * 64), ("GET", "/healthz", None)]
        self.assertEqual(self.ask(calls, user=OTHER), [403, 403, 403, 200])

        # The backup of the older runtime's data, and the log: the user's alone.
        backups = glob.glob(str(product / "data-backups" / "data-0.0.1-old-*.zip"))
        self.assertEqual(len(backups), 1)
        modes = {path: stat.S_IMODE(os.stat(path).st_mode) for path in
                 (product, product / "data", product / "data-backups", backups[0],
                  product / "logs" / "qor-velmora.log")}
        self.assertEqual(list(modes.values()), [0o700, 0o700, 0o700, 0o600, 0o600], modes)
        for path in (backups[0], product / "data-backups", product / "logs" / "qor-velmora.log"):
            with self.subTest(path=path):
                reader = subprocess.run(["/usr/sbin/runuser", "-u", OTHER, "--", "/bin/cat",
                                         str(path)], capture_output=True, timeout=30)
                self.assertNotEqual(reader.returncode, 0)
                self.assertIn(b"Permission denied", reader.stderr)

        # The second account's own shell finds the port taken by the user's gateway.
        support = self.root / "other-support"
        support.mkdir()
        os.chown(support, other.pw_uid, other.pw_gid)
        theirs = Host(self, support, self.port, user=OTHER)
        refusal = f"status: 端口 {self.port} 正被其他用户的程序占用，QOR Velmora 无法启动。"
        seen = theirs.wait_for(refusal)
        self.assertFalse([line for line in seen if line.startswith("ready: ")], seen)
        self.assertEqual(gateways_of(other.pw_uid), [], "the second account started a gateway")
        log = (self.product(support) / "logs" / "qor-velmora.log")
        self.assertIn(f"[sidecar] port {self.port} is held by another account",
                      subprocess.run(["/usr/sbin/runuser", "-u", OTHER, "--", "/bin/cat", str(log)],
                                     capture_output=True, text=True, check=True).stdout)

    def test_output_nobody_reads_never_stalls_the_gateway(self):
        unread, stderr = os.pipe()
        self.addCleanup(os.close, unread)
        host, support = self.start_own(stderr=stderr)
        os.close(stderr)
        requests, started = 10000, time.monotonic()
        for _ in range(requests):
            connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=10)
            connection.request("GET", "/healthz?stress")
            self.assertEqual(connection.getresponse().status, 200)
            connection.close()
        elapsed = time.monotonic() - started
        waiting = int.from_bytes(fcntl.ioctl(unread, termios.FIONREAD, b"\0\0\0\0"),
                                 sys.byteorder)
        capacity = fcntl.fcntl(unread, fcntl.F_GETPIPE_SZ)
        print(f"\n{requests} requests with standard error unread: {elapsed:.1f} s, "
              f"{waiting} of {capacity} bytes waiting in the pipe", flush=True)
        # Chunks fill the pipe's pages only partly, but well past the half.
        self.assertGreater(waiting, capacity // 2, "the pipe never filled")

        logs = self.product(support) / "logs"
        lines = lambda: sum(path.read_text(errors="replace").count("GET /healthz?stress ")
                            for path in logs.glob("qor-velmora.log*"))
        wait_until(lambda: lines() >= requests, 60, "the requests' lines in the log")
        self.assertEqual(lines(), requests)


if __name__ == "__main__":
    unittest.main()
