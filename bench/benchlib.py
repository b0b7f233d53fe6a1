"""What every benchmark here shares: summaries and the table, process trees read from /proc,
the beacon gateway, a private home per run, a virtual display with its D-Bus session, and the
staged bundle."""

import contextlib, ctypes, json, os, shutil, signal, socket, socketserver, statistics, subprocess
import tempfile, time, urllib.request
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

HERE = os.path.dirname(os.path.abspath(__file__))
GATEWAY_DIR = os.path.join(HERE, "gateway")  # holds the bench's qor_gateway package
MARKER = "QOR_BENCH_RUN"  # in the environment of everything a run starts


# Summaries and the table.

def decimals(values):  # enough for about three significant figures
    largest = max(abs(v) for v in values)
    return 3 if largest < 1 else 2 if largest < 10 else 1 if largest < 100 else 0


def summary(values, places=2):  # "median (min–max)"
    return (f"{statistics.median(values):.{places}f} "
            f"({min(values):.{places}f}–{max(values):.{places}f})")


def table(rows):
    """One markdown table; rows are {figure, unit, ours, reference_name, reference, target}."""
    lines = ["| figure | unit | ours: median (min–max) | reference | reference: median (min–max)"
             " | ratio | target |", "|---|---|---|---|---|---|---|"]
    for row in rows:
        ours, ref = row["ours"], row.get("reference")
        shown = decimals(ours)
        ratio = f"{statistics.median(ours) / statistics.median(ref):.2f}" if ref else "–"
        lines.append(f"| {row['figure']} | {row['unit']} | {summary(ours, shown)} | "
                     f"{row.get('reference_name') or '–'} | "
                     f"{summary(ref, shown) if ref else '–'} | {ratio} | {row['target']} |")
    return "\n".join(lines)


# Process trees.

def _stat_fields(pid):  # the fields after the command name, from state on
    with open(f"/proc/{pid}/stat") as f:
        return f.read().rsplit(")", 1)[1].split()


def process_tree(root):
    """`root` and all its descendants that are alive, found through their parents."""
    children = {}
    for pid in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError, IndexError):
            fields = _stat_fields(pid)
            if fields[0] != "Z":
                children.setdefault(int(fields[1]), []).append(int(pid))
    tree, pending = [], [root]
    while pending:
        pid = pending.pop()
        tree.append(pid)
        pending += children.get(pid, [])
    return tree


def pss_mib(pids):
    total = 0
    for pid in pids:
        with contextlib.suppress(OSError), open(f"/proc/{pid}/smaps_rollup") as f:
            total += sum(int(line.split()[1]) for line in f if line.startswith("Pss:"))
    return total / 1024


def cpu_seconds(pids):  # {pid: user + system time so far}
    ticks, times = os.sysconf("SC_CLK_TCK"), {}
    for pid in pids:
        with contextlib.suppress(OSError):
            fields = _stat_fields(pid)
            times[pid] = (int(fields[11]) + int(fields[12])) / ticks
    return times


def end_run_processes(run_id, sessions):
    """SIGKILLs whatever a run left and waits until none is left: the processes that carry its
    marker, and those in the sessions it started (chromium overwrites its environment)."""
    needle = f"{MARKER}={run_id}".encode()

    def of_run(pid):
        with contextlib.suppress(OSError, IndexError), open(f"/proc/{pid}/environ", "rb") as f:
            fields = _stat_fields(pid)
            return fields[0] != "Z" and (int(fields[3]) in sessions or
                                         needle in f.read().split(b"\0"))

    ended = set()
    for _ in range(100):
        if not (pids := [int(pid) for pid in filter(str.isdigit, os.listdir("/proc"))
                         if of_run(pid)]):
            for pid in ended - sessions:  # orphans come to us (adopt_orphans), so reap them
                with contextlib.suppress(ChildProcessError):
                    os.waitpid(pid, 0)
            return
        for pid in pids:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        ended.update(pids)
        time.sleep(0.05)
    raise RuntimeError(f"processes of run {run_id} survive SIGKILL: {pids}")


def adopt_orphans():
    """Makes this process the one orphans below it are handed to, so none is left a zombie."""
    PR_SET_CHILD_SUBREAPER = 36
    if ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1) != 0:
        raise OSError(ctypes.get_errno(), "prctl(PR_SET_CHILD_SUBREAPER)")


# The beacon gateway: ready at once, serves a page the size of a real UI whose script reports
# that it runs, and logs when that report arrives.

def page(items=120):  # about 16 KB
    rows = "\n".join(f'<li class="note"><h3>Note {i}</h3><p>Meeting notes, follow-ups and '
                     f'the next steps for item {i}.</p><time>2026-01-{i % 28 + 1:02d}</time></li>'
                     for i in range(items))
    return f"""<!doctype html><html><head><meta charset="utf-8"><title>QOR bench</title><style>
body {{ margin: 0; font: 14px sans-serif; display: grid; grid-template-columns: 240px 1fr; }}
nav {{ background: #223; color: #eee; height: 100vh; padding: 16px; }}
.note {{ list-style: none; border-bottom: 1px solid #ddd; padding: 8px 16px; }}
.note h3 {{ margin: 0 0 4px; font-size: 15px; }} .note time {{ color: #888; }}
</style></head><body><nav><h2>QOR Velmora</h2></nav><main><ul>
{rows}
</ul></main><script>navigator.sendBeacon("/beacon", String(performance.now()));</script>
</body></html>""".encode()


def serve_gateway(port, version, log_path):
    """Answers /healthz with `version` and `/` with the page; appends {"beacon": time} to
    `log_path` when the page's beacon arrives. Serves until killed."""
    body = page()

    class Handler(BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def log_message(self, *args): pass

        def do_GET(self):
            if self.path == "/healthz":
                self.reply(json.dumps({"version": version}).encode(), "application/json")
            elif self.path == "/":
                self.reply(body, "text/html; charset=utf-8")
            else:
                self.reply(b"", "text/plain", 404)

        def do_POST(self):
            arrived = time.time()
            self.rfile.read(int(self.headers["Content-Length"] or 0))
            if self.path == "/beacon":
                with open(log_path, "a") as f:
                    f.write(json.dumps({"beacon": arrived}) + "\n")
            self.reply(b"", "text/plain", 204)

        def reply(self, content, kind, status=200):
            self.send_response(status)
            self.send_header("Content-Type", kind)
            self.send_header("Content-Length", str(len(content)))
            self.send_header("Cache-Control", "no-store")
            self.end_headers()
            self.wfile.write(content)

    class Server(ThreadingHTTPServer):
        daemon_threads = True

        def server_bind(self):  # no host name look-up
            socketserver.TCPServer.server_bind(self)
            self.server_name, self.server_port = "localhost", self.server_address[1]

    Server(("127.0.0.1", port), Handler).serve_forever()


def beacons(log_path):
    with contextlib.suppress(FileNotFoundError), open(log_path) as f:
        return [json.loads(line)["beacon"] for line in f.read().split("\n")[:-1]]
    return []


def wait_until(predicate, timeout, what, pause=0.005):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if value := predicate():
            return value
        time.sleep(pause)
    raise TimeoutError(f"no {what} within {timeout} s")


def healthz_answers(port):
    with contextlib.suppress(OSError):
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        with opener.open(f"http://127.0.0.1:{port}/healthz", timeout=1) as response:
            return response.status == 200
    return False


def port_free(port):
    with socket.socket() as s:
        return s.connect_ex(("127.0.0.1", port)) != 0


# Runs: a private home each, the virtual display, the bundle.

class Run:
    """One run's private home and log. What it starts gets the run's marker in its environment
    and a session of its own, so `close` can end everything the run started, however deep."""

    def __init__(self, **extra_env):
        self.root = tempfile.mkdtemp(prefix="qor-bench-")
        self.id, self.log, home = os.path.basename(self.root), f"{self.root}/beacons.jsonl", \
            f"{self.root}/home"
        self.env = {k: v for k, v in os.environ.items() if not k.startswith(("QOR_", "XDG_"))}
        self.env.update(
            HOME=home, XDG_DATA_HOME=f"{home}/.local/share", XDG_CONFIG_HOME=f"{home}/.config",
            XDG_CACHE_HOME=f"{home}/.cache", XDG_RUNTIME_DIR=f"{self.root}/run",
            XDG_DATA_DIRS="/usr/local/share:/usr/share", TMPDIR=f"{self.root}/tmp",
            LANG="C.UTF-8", PYTHONDONTWRITEBYTECODE="1", QOR_BENCH_LOG=self.log,
            **{MARKER: self.id}, **extra_env)
        self.started = []  # each leads a session of its own
        for folder in ("run", "tmp", "home/.config"):
            os.makedirs(f"{self.root}/{folder}", mode=0o700)

    def start(self, command, **options):  # options override the run's environment and folder
        process = subprocess.Popen(command, **{"env": self.env, "cwd": self.root, **options},
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL, start_new_session=True)
        self.started.append(process)
        return process

    def start_gateway(self, port, version):
        return self.start(["/usr/bin/python3", "-m", "qor_gateway.main", "--port", str(port),
                           "--litellm-port", str(port + 1), "--data-dir", self.root],
                          cwd=GATEWAY_DIR, env=dict(self.env, QOR_BENCH_VERSION=version))

    def beacon(self, timeout=60, after=0):
        """The time the page's script reported, the first time after `after` reports."""
        return wait_until(lambda: beacons(self.log)[after:], timeout, "beacon from the page")[0]

    def close(self):
        end_run_processes(self.id, {process.pid for process in self.started})
        for process in self.started:
            process.wait()
        shutil.rmtree(self.root, ignore_errors=True)


@contextlib.contextmanager
def virtual_display():
    """An Xvfb display and a D-Bus session of their own, set in os.environ while inside."""
    read_end, write_end = os.pipe()
    xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write_end), "-screen", "0", "1400x900x24",
                             "-nolisten", "tcp"], pass_fds=[write_end], stderr=subprocess.DEVNULL)
    os.close(write_end)
    dbus = None
    try:
        with os.fdopen(read_end) as f:
            display = f.readline().strip()
        if not display:
            raise RuntimeError("Xvfb did not start")
        dbus = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--print-address"],
                                stderr=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, text=True)
        saved = {k: os.environ.get(k) for k in ("DISPLAY", "WAYLAND_DISPLAY",
                                                "DBUS_SESSION_BUS_ADDRESS")}
        os.environ.pop("WAYLAND_DISPLAY", None)
        os.environ.update(DISPLAY=f":{display}",
                          DBUS_SESSION_BUS_ADDRESS=dbus.stdout.readline().strip())
        try:
            yield
        finally:
            for key, value in saved.items():
                os.environ.pop(key, None) if value is None else os.environ.update({key: value})
    finally:
        for process in (dbus, xvfb):
            if process:
                process.terminate()
                process.wait()


def stage_bundle(build_dir, folder):
    """Installs the build as the bundle folder "QOR Velmora" under `folder`; returns its path."""
    bundle = os.path.join(folder, "QOR Velmora")
    shutil.rmtree(bundle, ignore_errors=True)
    subprocess.run(["cmake", "--install", build_dir, "--prefix", bundle], check=True,
                   stdout=subprocess.DEVNULL)
    return bundle


def bundle_file(bundle, name):
    with open(os.path.join(bundle, "share", "qor-velmora", name)) as f:
        return f.read().strip()
