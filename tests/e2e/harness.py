"""The real shell from a staged bundle, in a private home with URL handlers that log what they
get and the test gateway; the window read and worked through AT-SPI and X, as by a person."""

import contextlib, ctypes, itertools, json, os, platform, re, shutil, signal, socket, subprocess
import tempfile, time, urllib.request

import pyatspi

HERE = os.path.dirname(os.path.abspath(__file__))
BUNDLE, ARTIFACTS = os.environ["QOR_E2E_BUNDLE"], os.environ["QOR_E2E_ARTIFACTS"]
ARCH = {"x86_64": "x64", "aarch64": "arm64"}[platform.machine()]
# The stand-in desktop handlers and the types each is the default for.
HANDLERS = {"browser": ["x-scheme-handler/http", "x-scheme-handler/https"],
            "mail": ["x-scheme-handler/mailto"], "whatsapp": ["x-scheme-handler/whatsapp"],
            "folder": ["inode/directory"]}


def wait_until(predicate, timeout, what):
    """Polls until `predicate` is true; errors (a window read as it goes) count as false."""
    deadline, error = time.monotonic() + timeout, None
    while time.monotonic() < deadline:
        try:
            if value := predicate():
                return value
        except Exception as e:
            error = e
        time.sleep(0.05)
    raise AssertionError(f"timed out after {timeout}s waiting for {what}") from error


def pid_alive(pid):
    with contextlib.suppress(FileNotFoundError), open(f"/proc/{pid}/stat") as f:
        return f.read().rsplit(")", 1)[1].split()[0] != "Z"


def processes(belongs):  # the live processes `belongs(pid)` is true for; one that went, is not
    def live(pid):
        with contextlib.suppress(OSError):
            return pid_alive(pid) and belongs(pid)
    return [int(pid) for pid in os.listdir("/proc") if pid.isdigit() and live(pid)]


def proc_file(pid, name):
    with open(f"/proc/{pid}/{name}", "rb") as f:
        return f.read()


def port_listening(port=8088):
    with socket.socket() as s:
        return s.connect_ex(("127.0.0.1", port)) == 0


def bundle_file(bundle, name):
    with open(os.path.join(bundle, "share", "qor-velmora", name)) as f:
        return f.read().strip()


class Session:  # one private home and, at a time, one running shell with its gateway
    def __init__(self, name, *, whatsapp_client=True, boot_delay=0, bundled_runtime=False):
        assert not port_listening(), "something already listens on 8088"
        self.name, self.app, self.pid, self._ids = name, None, None, itertools.count(1)
        self.credentials = {}  # Popen's user, group and extra_groups for a shell of another account
        self.root = tempfile.mkdtemp(prefix="qor-e2e-")  # short: sockets go below it
        self.log, home = f"{self.root}/gateway.jsonl", f"{self.root}/home"
        self.env = {k: v for k, v in os.environ.items() if not k.startswith(("QOR_", "XDG_"))}
        self.env.update(
            HOME=home, XDG_DATA_HOME=f"{home}/.local/share", XDG_CONFIG_HOME=f"{home}/.config",
            XDG_CACHE_HOME=f"{home}/.cache", XDG_RUNTIME_DIR=f"{self.root}/run",
            XDG_DATA_DIRS="/usr/local/share:/usr/share", TMPDIR=f"{self.root}/tmp",
            LANG="C.UTF-8", PYTHONDONTWRITEBYTECODE="1", QOR_DEV="1", QOR_PYTHON="/usr/bin/python3",
            QOR_SIDECAR_DIR=f"{HERE}/test_gateway", QOR_E2E_LOG=self.log,
            QOR_E2E_VERSION=bundle_file(BUNDLE, "QOR_RUNTIME_VERSION"),
            QOR_E2E_BOOT_DELAY=str(boot_delay),
            ASAN_OPTIONS="detect_leaks=0")  # GTK and WebKit keep allocations until exit
        if bundled_runtime:  # the runtime the bundle ships, provisioned on first start
            for key in ("QOR_DEV", "QOR_PYTHON", "QOR_SIDECAR_DIR"):
                del self.env[key]
        for folder in ("run", "tmp", "handlers", "home/.config", "home/.local/share/applications"):
            os.makedirs(f"{self.root}/{folder}", mode=0o700)
        defaults = []
        for handler, types in HANDLERS.items():
            if whatsapp_client or handler != "whatsapp":
                with open(f"{home}/.local/share/applications/e2e-{handler}.desktop", "w") as f:
                    f.write(f"[Desktop Entry]\nType=Application\nName={handler}\nExec=/usr/bin/"
                            f'python3 "{HERE}/record_url.py" "{self.root}/handlers/{handler}" %u\n')
                defaults += [f"{t}=e2e-{handler}.desktop" for t in types]
        with open(f"{home}/.config/mimeapps.list", "w") as f:
            f.write("[Default Applications]\n" + "\n".join(defaults) + "\n")
        os.makedirs(ARTIFACTS, exist_ok=True)
        self._output = open(f"{ARTIFACTS}/{name}.app.log", "wb")

    def launch(self, executable=f"{BUNDLE}/bin/qor-velmora", second=False):
        """Starts the shell; a second launch is waited for."""
        args = dict(env=self.env, stdout=self._output, stderr=subprocess.STDOUT, cwd=self.root,
                    **self.credentials)
        if second:
            return subprocess.run([executable], timeout=20, **args)
        self.app = subprocess.Popen([executable], **args)
        self.pid = self.app.pid

    def wait_ready(self, pages=1):  # until the page has loaded `pages` times and polls
        wait_until(lambda: len(self.requests("/")) >= pages, 60, "the gateway's page")
        self.wait_page("/")

    def wait_shipped_page(self):
        """Until the page of the gateway a bundle ships loads once more: its script asks for the
        notes as soon as it runs, which that gateway logs, answering only this run's window."""
        pages = lambda: len(re.findall(r'"GET /api/notes HTTP/1\.[01]" 200 ', self.output()))
        seen = pages()
        wait_until(lambda: pages() > seen, 90, "the gateway's page")

    def wait_page(self, path):  # until the page last served for `path` polls for script
        number = wait_until(lambda: self.requests(path), 15, f"GET {path}")[-1]["page"]
        wait_until(lambda: self.requests(f"/__test/next?page={number}"), 15, f"{path} to poll")

    def gateway_pids(self):
        return [e["pid"] for e in self.events("start")]

    def follow_relaunch(self):
        """Waits for the gateway of the shell that was started again; that shell is followed."""
        gateway = wait_until(lambda: self.gateway_pids()[1:], 60, "a new gateway")[0]
        self.pid = int(proc_file(gateway, "stat").rsplit(b")", 1)[1].split()[1])

    def assert_quit_cleanly(self, test):
        """The shell has ended (our child: with 0) after SIGTERM to its gateway, leaving none."""
        if self.pid == self.app.pid:
            test.assertEqual(self.app.wait(timeout=30), 0)
        wait_until(lambda: not pid_alive(self.pid), 30, "the shell to end")
        test.assertEqual([e["pid"] for e in self.events("sigterm")][-1:], self.gateway_pids()[-1:])
        wait_until(lambda: not self.processes(), 20, "no process of the session")
        test.assertFalse(port_listening(), "port 8088 is still served")

    def processes(self, command=b""):
        """This session's (they carry its environment or its folder) whose command line holds
        `command`."""
        def mine(pid):
            line = proc_file(pid, "cmdline")
            return command in line and (self.root.encode() in line or f"QOR_E2E_LOG={self.log}"
                                        .encode() in proc_file(pid, "environ"))
        return processes(mine)

    def close(self):
        """Ends whatever still runs (a relaunched shell, gateways, handlers) and keeps the log."""
        with contextlib.suppress(subprocess.TimeoutExpired, AttributeError):
            self.app.terminate()
            self.app.wait(timeout=10)
        for pid in self.processes():
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        if self.app:
            self.app.wait()
        wait_until(lambda: not port_listening(), 10, "port 8088 to be free")
        self._output.close()
        with contextlib.suppress(FileNotFoundError):
            shutil.copy(self.log, f"{ARTIFACTS}/{self.name}.gateway.jsonl")
        shutil.rmtree(self.root, ignore_errors=True)

    def output(self):  # what the shell and its gateway have printed so far
        with open(self._output.name, encoding="utf-8", errors="replace") as f:
            return f.read()

    def events(self, kind):
        with contextlib.suppress(FileNotFoundError), open(self.log, encoding="utf-8") as f:
            lines = f.read().split("\n")[:-1]  # whole lines only
            return [e for e in map(json.loads, lines) if e["event"] == kind]
        return []

    def requests(self, path=None):  # those for `path`, or all but the page driver's
        return [e for e in self.events("request") if e["path"] == path or (
            path is None and not e["path"].startswith("/__test/"))]

    def run_script(self, script, wait=True):
        """Has the page run `script`; returns its result, or the id its report will carry."""
        command_id = next(self._ids)
        body = json.dumps({"id": command_id, "script": script}).encode()
        urllib.request.build_opener(urllib.request.ProxyHandler({})).open(
            urllib.request.Request("http://127.0.0.1:8088/__test/command", data=body), timeout=5)
        if not wait:
            return command_id
        report = wait_until(lambda: self.report(command_id), 15, f"script {script!r}")
        assert "error" not in report, f"script {script!r} failed: {report}"
        return report["result"]

    def reports(self):
        return [json.loads(e["body"]) for e in self.requests("/__test/report")]

    def report(self, command_id):
        return next((r for r in self.reports() if r.get("id") == command_id), None)

    def handled(self, handler):  # the URLs the stand-in handler has been given, in order
        with contextlib.suppress(FileNotFoundError), open(f"{self.root}/handlers/{handler}") as f:
            return f.read().splitlines()
        return []

    def windows(self, role=None):  # the shell's top-level windows on the accessibility bus
        app = wait_until(lambda: next(a for a in pyatspi.Registry.getDesktop(0)
                                      if a and process_id(a) == self.pid), 30, "the shell")
        return [w for w in map(app.getChildAtIndex, range(app.childCount))
                if w is not None and role in (None, w.getRoleName())]

    def dialog(self, title=None, timeout=15):  # the one showing, or the one titled `title`
        return wait_until(lambda: next(d for d in self.windows("dialog")
                                       if title in (None, *texts(d)[:1])), timeout, title)

    def main_window(self):
        return wait_until(lambda: self.windows("frame")[0], 30, "the main window")

    def webview_visible(self):  # the gateway's page covers the boot label
        views = find_all(self.main_window(), name="WebKitWebView", max_depth=3)
        return bool(views) and "visible" in states(views[0])

    def boot_label(self):
        return wait_until(lambda: find_all(self.main_window(), role="label", max_depth=3)[0],
                          10, "the boot label").name

    def window_id(self, name="^QOR Velmora$"):  # dialogs carry the same title: not theirs
        return wait_until(lambda: [w for w in xdotool("search", "--onlyvisible", "--name",
                                                      name).split() if not transient(w)],
                          30, "the X window")[0]

    def click(self, x, y):  # a real pointer click at window coordinates
        xdotool("mousemove", "--window", self.window_id(), str(x), str(y), "click", "1")

    def dialog_window_id(self):  # a dialog is on the accessibility bus before its X window maps
        return wait_until(lambda: [w for w in xdotool("search", "--onlyvisible", "--pid",
                                                      str(self.pid)).split() if transient(w)],
                          30, "the dialog's X window")[0]

    def key(self, keys, dialog=False, text=None):
        """Focuses the main window (or the dialog over it), then presses `keys` or types."""
        xdotool("windowfocus", "--sync", self.dialog_window_id() if dialog else self.window_id())
        xdotool(*(["type", "--delay", "20", text] if text else ["key", "--clearmodifiers", keys]))

    def answer(self, dialog, title):  # presses its button `title`; the dialog closes
        press(dialog, title)
        wait_until(lambda: dialog not in self.windows("dialog"), 10, f"{title} to close it")

    def choose(self, menu, item=None):  # opens `menu` with a click, then activates `item`
        bar_item = find_all(self.main_window(), role="menu item", name=menu, max_depth=3)[0]
        box = bar_item.queryComponent().getExtents(1)
        self.click(box.x + box.width // 2, box.y + box.height // 2)
        items = wait_until(lambda: "expanded" in states(bar_item) and find_all(
            bar_item, role="menu item", name=item, max_depth=20), 10, f"{item} in {menu}")
        if item:
            items[0].queryAction().doAction(0)
        return bar_item

    def screenshot(self, name):
        subprocess.run(["import", "-window", "root", f"{ARTIFACTS}/{name}.png"], check=True)


def process_id(app):  # None for an application that has just gone, which must not hide ours
    with contextlib.suppress(Exception):
        return app.get_process_id()


def xdotool(*args):
    return subprocess.run(["xdotool", *args], capture_output=True, text=True).stdout


def xprop(window, name):  # a property's value as xprop prints it
    output = subprocess.run(["xprop", "-id", window, name], capture_output=True, text=True).stdout
    return output.partition(" = ")[2].strip()


def transient(window):  # a dialog: it names the window it belongs to
    return "window id" in subprocess.run(["xprop", "-id", window, "WM_TRANSIENT_FOR"],
                                         capture_output=True, text=True).stdout


def find_all(node, *, role=None, name=None, max_depth=12):
    found = [node] if role in (None, node.getRoleName()) and name in (None, node.name) else []
    for child in (node.getChildAtIndex(i) for i in range(node.childCount) if max_depth):
        found += find_all(child, role=role, name=name, max_depth=max_depth - 1) if child else []
    return found


def texts(window):  # a window's own texts, without its buttons' titles
    return [label.name for label in find_all(window, role="label")
            if label.parent.getRoleName() != "push button"]


def press(window, title):  # through the button's accessible action
    find_all(window, role="push button", name=title)[0].queryAction().doAction(0)


def titles(window):
    return [button.name for button in find_all(window, role="push button")]


def states(node):
    return {pyatspi.stateToString(s) for s in node.getState().getStates()}


def close_window(window):  # WM_DELETE_WINDOW, as a window manager's close button sends it
    x11 = ctypes.CDLL("libX11.so.6")
    x11.XOpenDisplay.restype = x11.XInternAtom.restype = ctypes.c_void_p
    display = ctypes.c_void_p(x11.XOpenDisplay(None))
    atoms = [x11.XInternAtom(display, name, 0) for name in (b"WM_PROTOCOLS", b"WM_DELETE_WINDOW")]
    # XClientMessageEvent: type, serial, send_event, display, window, message type, format, data
    event = (ctypes.c_long * 24)(33, 0, 0, 0, window, atoms[0], 32, atoms[1])
    x11.XSendEvent(display, ctypes.c_ulong(window), 0, ctypes.c_long(0), event)
    x11.XCloseDisplay(display)  # flushes
