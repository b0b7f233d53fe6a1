"""Runs the real QOR Velmora binary from a staged bundle and watches it from outside.

Each test runs inside its own `dbus-run-session` and `xvfb-run` (see
CMakeLists.txt). A ShellSession gives the application a private home, XDG URL
handlers that only log what they get, and a test gateway (developer mode) that
logs every request and runs script the test sends to its pages. The window is
read and operated through AT-SPI and the X server, like a person would.
"""

import contextlib
import ctypes
import itertools
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import urllib.request

import pyatspi

HERE = os.path.dirname(os.path.abspath(__file__))
BUNDLE = os.environ["QOR_E2E_BUNDLE"]
ARTIFACTS = os.environ["QOR_E2E_ARTIFACTS"]
EXECUTABLE = os.path.join(BUNDLE, "bin", "qor-velmora")
GATEWAY_PORT = 8088
GATEWAY = f"http://127.0.0.1:{GATEWAY_PORT}"
PAGE_RGB = (32, 120, 200)  # the test gateway's page background

_no_proxy = urllib.request.build_opener(urllib.request.ProxyHandler({}))


def wait_until(predicate, timeout, what):
    """Polls until `predicate` gives a true value and returns it. `what` names
    what was awaited; a callable is asked only on failure."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            what = what() if callable(what) else what
            raise AssertionError(f"timed out after {timeout}s waiting for {what}")
        time.sleep(0.05)


def pid_alive(pid):
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except FileNotFoundError:
        return False


def port_listening(port=GATEWAY_PORT):
    for family, host in ((socket.AF_INET, "127.0.0.1"), (socket.AF_INET6, "::1")):
        with socket.socket(family) as s:
            s.settimeout(0.5)
            if s.connect_ex((host, port)) == 0:
                return True
    return False


def runtime_version():
    with open(os.path.join(BUNDLE, "share", "qor-velmora", "QOR_RUNTIME_VERSION")) as f:
        return f.read().strip()


class ShellSession:
    """One private home and, at a time, one running shell with its gateway."""

    def __init__(self, name, *, whatsapp_client=True, boot_delay=0.0, ignore_sigterm=False):
        if port_listening():
            raise AssertionError(f"something already listens on {GATEWAY_PORT}")
        self.name = name
        # Short: the web engine puts sockets below it, and socket paths are
        # limited to 108 bytes.
        self.root = tempfile.mkdtemp(prefix="qor-e2e-")
        self.home = os.path.join(self.root, "home")
        self.gateway_log = os.path.join(self.root, "gateway.jsonl")
        self.handler_dir = os.path.join(self.root, "handlers")
        self.app_log_path = os.path.join(ARTIFACTS, f"{name}.app.log")
        self.app = None
        self._app_log = None
        self._command_ids = itertools.count(1)
        self._extra = []  # other processes this session started
        os.makedirs(ARTIFACTS, exist_ok=True)
        os.makedirs(self.handler_dir)
        os.makedirs(os.path.join(self.root, "run"), mode=0o700)
        self.env = self._environment(boot_delay, ignore_sigterm)
        self._register_handlers(whatsapp_client)

    def _environment(self, boot_delay, ignore_sigterm):
        env = {k: v for k, v in os.environ.items() if not k.startswith(("QOR_", "XDG_"))}
        env.update({
            "HOME": self.home,
            "XDG_DATA_HOME": os.path.join(self.home, ".local", "share"),
            "XDG_CONFIG_HOME": os.path.join(self.home, ".config"),
            "XDG_CACHE_HOME": os.path.join(self.home, ".cache"),
            "XDG_DATA_DIRS": "/usr/local/share:/usr/share",
            "XDG_RUNTIME_DIR": os.path.join(self.root, "run"),
            "LANG": "C.UTF-8",
            "PYTHONDONTWRITEBYTECODE": "1",
            "QOR_DEV": "1",
            "QOR_PYTHON": "/usr/bin/python3",
            "QOR_SIDECAR_DIR": os.path.join(HERE, "test_gateway"),
            "QOR_E2E_LOG": self.gateway_log,
            "QOR_E2E_VERSION": runtime_version(),
            "QOR_E2E_BOOT_DELAY": str(boot_delay),
            "QOR_E2E_IGNORE_SIGTERM": "1" if ignore_sigterm else "0",
            # GTK and the web engine keep allocations until exit on purpose.
            "ASAN_OPTIONS": "detect_leaks=0",
        })
        return env

    def _register_handlers(self, whatsapp_client):
        applications = os.path.join(self.env["XDG_DATA_HOME"], "applications")
        os.makedirs(applications)
        os.makedirs(self.env["XDG_CONFIG_HOME"])
        handlers = {"browser": ["http", "https"], "mail": ["mailto"]}
        if whatsapp_client:
            handlers["whatsapp"] = ["whatsapp"]
        defaults = []
        for handler, schemes in handlers.items():
            desktop = f"qor-e2e-{handler}.desktop"
            log = os.path.join(self.handler_dir, f"{handler}.log")
            mime_types = "".join(f"x-scheme-handler/{s};" for s in schemes)
            with open(os.path.join(applications, desktop), "w") as f:
                f.write("[Desktop Entry]\nType=Application\n"
                        f"Name=QOR e2e {handler}\nNoDisplay=true\n"
                        f'Exec=/usr/bin/python3 "{HERE}/record_url.py" "{log}" %u\n'
                        f"MimeType={mime_types}\n")
            defaults += [f"x-scheme-handler/{s}={desktop}" for s in schemes]
        with open(os.path.join(self.env["XDG_CONFIG_HOME"], "mimeapps.list"), "w") as f:
            f.write("[Default Applications]\n" + "\n".join(defaults) + "\n")

    # -- life cycle -------------------------------------------------------

    def launch(self):
        self._app_log = open(self.app_log_path, "ab")
        self.app = subprocess.Popen([EXECUTABLE], env=self.env, stdout=self._app_log,
                                    stderr=subprocess.STDOUT, cwd=self.root)
        return self.app

    def launch_second(self, timeout=20):
        """Starts the binary again with the same environment and waits for it to end."""
        with open(self.app_log_path, "ab") as log:
            return subprocess.run([EXECUTABLE], env=self.env, stdout=log,
                                  stderr=subprocess.STDOUT, cwd=self.root, timeout=timeout)

    def start_extra(self, args):
        process = subprocess.Popen(args, env=self.env, cwd=self.root)
        self._extra.append(process)
        return process

    def wait_ready(self, timeout=60):
        """Until the web view has loaded the gateway's page and its script runs."""
        wait_until(lambda: self.requests("/"), timeout, "the gateway's page to load")
        self.wait_page("/")

    def wait_page(self, path, timeout=15):
        """Until the page last served for `path` polls for script: from then on
        scripts go to it and no longer to the page before."""
        number = wait_until(lambda: self.requests(path), timeout, f"GET {path}")[-1]["page"]
        wait_until(lambda: any(r.get("page") == number for r in
                               self.requests("/__test/next", prefix=True, internal=True)),
                   timeout, f"the page {path} to run its script")
        return number

    def wait_exit(self, timeout=30):
        return self.app.wait(timeout=timeout)

    def gateway_pids(self):
        return [e["pid"] for e in self.events("start")]

    def assert_nothing_left(self, test):
        """The shell, every gateway and every handler of this session have gone."""
        if self.app:
            test.assertIsNotNone(self.app.poll(), "the shell is still running")
        for pid in self.gateway_pids():
            wait_until(lambda: not pid_alive(pid), 10, f"gateway {pid} to end")
        wait_until(lambda: not self._session_processes(), 20,
                   lambda: f"the session's processes to end: {self._session_processes()}")
        test.assertFalse(port_listening(), f"port {GATEWAY_PORT} is still served")

    def _session_processes(self):
        """Processes started for this session: they carry its environment (the
        shell's descendants, web engine helpers included) or its folder."""
        marker = f"QOR_E2E_LOG={self.gateway_log}".encode()
        found = []
        for entry in os.listdir("/proc"):
            if not entry.isdigit() or not pid_alive(int(entry)):
                continue
            try:
                with open(f"/proc/{entry}/cmdline", "rb") as f:
                    cmdline = f.read().replace(b"\0", b" ").decode(errors="replace")
                with open(f"/proc/{entry}/environ", "rb") as f:
                    environment = f.read().split(b"\0")
            except OSError:
                continue
            if self.root in cmdline or marker in environment:
                found.append((int(entry), cmdline))
        return found

    def close(self):
        """Ends whatever is still running, however the test went."""
        if self.app and self.app.poll() is None:
            self.app.send_signal(signal.SIGTERM)
            try:
                self.app.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.app.kill()
                self.app.wait()
        for process in self._extra:
            if process.poll() is None:
                process.kill()
            process.wait()
        # Gateways and handlers carry this session's folder on their command
        # line; matching on it never hits a stranger that reuses a pid.
        for pid, _ in self._session_processes():
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        wait_until(lambda: not port_listening(), 10, f"port {GATEWAY_PORT} to be free")
        if self._app_log:
            self._app_log.close()
        if os.path.exists(self.gateway_log):
            shutil.copy(self.gateway_log, os.path.join(ARTIFACTS, f"{self.name}.gateway.jsonl"))
        shutil.rmtree(self.root, ignore_errors=True)

    # -- the gateway's view ------------------------------------------------

    def events(self, kind=None):
        try:
            with open(self.gateway_log, encoding="utf-8") as f:
                entries = [json.loads(line) for line in f if line.endswith("\n")]
        except FileNotFoundError:
            return []
        return [e for e in entries if kind is None or e["event"] == kind]

    def requests(self, path=None, *, prefix=False, internal=False):
        """Requests the gateway got; the page driver's own traffic only with internal."""
        found = []
        for e in self.events("request"):
            if not internal and e["path"].startswith("/__test/"):
                continue
            if path is None or e["path"] == path or (prefix and e["path"].startswith(path)):
                found.append(e)
        return found

    def post_script(self, script):
        """Has the page run `script`; returns the id its report will carry."""
        command_id = next(self._command_ids)
        body = json.dumps({"id": command_id, "script": script}).encode()
        _no_proxy.open(urllib.request.Request(f"{GATEWAY}/__test/command", data=body), timeout=5)
        return command_id

    def reports(self):
        found = []
        for e in self.requests("/__test/report", internal=True):
            with contextlib.suppress(ValueError):
                found.append(json.loads(e["body"]))
        return found

    def report(self, command_id):
        return next((r for r in self.reports() if r.get("id") == command_id), None)

    def run_script(self, script, timeout=15):
        command_id = self.post_script(script)
        report = wait_until(lambda: self.report(command_id), timeout, f"script {script!r}")
        if "error" in report:
            raise AssertionError(f"script {script!r} failed: {report['error']}")
        return report["result"]

    def handled(self, handler):
        """URLs the stand-in desktop handler has been given, in order."""
        try:
            with open(os.path.join(self.handler_dir, f"{handler}.log"), encoding="utf-8") as f:
                return f.read().splitlines()
        except FileNotFoundError:
            return []

    # -- the window ---------------------------------------------------------

    def accessible(self):
        """The shell's AT-SPI application object."""
        def find():
            for app in pyatspi.Registry.getDesktop(0):
                with contextlib.suppress(Exception):
                    if app is not None and app.get_process_id() == self.app.pid:
                        return app
            return None
        return wait_until(find, 30, "the shell on the accessibility bus")

    def windows(self, role=None):
        app = self.accessible()
        found = [app.getChildAtIndex(i) for i in range(app.childCount)]
        return [w for w in found if w is not None and (role is None or w.getRoleName() == role)]

    def main_window(self):
        return wait_until(lambda: next(iter(self.windows("frame")), None), 30, "the main window")

    def boot_label(self):
        frame = self.main_window()
        return wait_until(lambda: next(iter(find_all(frame, role="label", max_depth=3)), None),
                          10, "the boot label")

    def window_id(self):
        output = wait_until(lambda: subprocess.run(
            ["xdotool", "search", "--onlyvisible", "--name", "^QOR Velmora$"],
            capture_output=True, text=True).stdout.split(), 30, "the X window")
        return output[0]

    def click(self, x, y):
        """A real pointer click at window coordinates."""
        subprocess.run(["xdotool", "mousemove", "--window", self.window_id(), str(x), str(y),
                        "click", "1"], check=True)

    def key(self, combo):
        subprocess.run(["xdotool", "windowfocus", "--sync", self.window_id()], check=True)
        subprocess.run(["xdotool", "key", "--clearmodifiers", combo], check=True)

    def close_window(self):
        """Asks the window to close as a window manager's close button does."""
        send_delete_window(int(self.window_id()))

    def screenshot(self, name):
        path = os.path.join(ARTIFACTS, f"{name}.png")
        subprocess.run(["import", "-window", "root", path], check=True)
        return path


def find_all(root, *, role=None, name=None, max_depth=12):
    found = []

    def visit(node, depth):
        if node is None or depth > max_depth:
            return
        if (role is None or node.getRoleName() == role) and (name is None or node.name == name):
            found.append(node)
        for i in range(node.childCount):
            visit(node.getChildAtIndex(i), depth + 1)

    visit(root, 0)
    return found


def states(node):
    return {pyatspi.stateToString(s) for s in node.getState().getStates()}


def press(button):
    """Activates a button through its accessible action."""
    action = button.queryAction()
    for i in range(action.nActions):
        if action.getName(i) in ("click", "press", "activate"):
            action.doAction(i)
            return
    action.doAction(0)


def pixel(path, x, y):
    output = subprocess.run(["convert", path, "-crop", f"1x1+{x}+{y}", "-depth", "8", "txt:-"],
                            capture_output=True, text=True, check=True).stdout
    values = output.splitlines()[1].split("(", 1)[1].split(")", 1)[0].split(",")
    return tuple(round(float(v)) for v in values[:3])


class _XClientMessageEvent(ctypes.Structure):
    _fields_ = [("type", ctypes.c_int), ("serial", ctypes.c_ulong), ("send_event", ctypes.c_int),
                ("display", ctypes.c_void_p), ("window", ctypes.c_ulong),
                ("message_type", ctypes.c_ulong), ("format", ctypes.c_int),
                ("data", ctypes.c_long * 5)]


class _XEvent(ctypes.Union):
    _fields_ = [("xclient", _XClientMessageEvent), ("pad", ctypes.c_long * 24)]


def send_delete_window(window):
    """WM_DELETE_WINDOW, the message a window manager sends for the close button."""
    x11 = ctypes.CDLL("libX11.so.6")
    x11.XOpenDisplay.restype = ctypes.c_void_p
    x11.XOpenDisplay.argtypes = [ctypes.c_char_p]
    x11.XInternAtom.restype = ctypes.c_ulong
    x11.XInternAtom.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
    x11.XSendEvent.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int, ctypes.c_long,
                               ctypes.POINTER(_XEvent)]
    x11.XFlush.argtypes = [ctypes.c_void_p]
    x11.XCloseDisplay.argtypes = [ctypes.c_void_p]
    display = x11.XOpenDisplay(None)
    if not display:
        raise AssertionError("cannot open the X display")
    event = _XEvent()
    event.xclient.type = 33  # ClientMessage
    event.xclient.window = window
    event.xclient.message_type = x11.XInternAtom(display, b"WM_PROTOCOLS", False)
    event.xclient.format = 32
    event.xclient.data[0] = x11.XInternAtom(display, b"WM_DELETE_WINDOW", False)
    event.xclient.data[1] = 0  # CurrentTime
    x11.XSendEvent(display, window, False, 0, ctypes.byref(event))
    x11.XFlush(display)
    x11.XCloseDisplay(display)
