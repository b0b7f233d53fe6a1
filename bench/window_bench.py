"""The window's figures: time to the boot screen and to the web UI, memory after load, idle CPU
and the page's return after a gateway crash, for the shell and for what a person might pick
instead (chromium --app, surf) opening the same page from a gateway that already runs."""

import array, collections, contextlib, os, select, signal, time

from Xlib import X, display as xdisplay, error as xerror
from Xlib.ext import damage

import benchlib
from benchlib import Run, pss_mib, process_tree, wait_until

SHELL_PORT, REFERENCE_PORT = 8088, 18088  # the shell always serves 8088
SETTLE = 2  # s after the beacon to the memory reading
IDLE_FROM, IDLE_FOR = 10, 30  # the idle window, in s after the beacon


class WindowWatch:
    """Sees top-level windows being mapped on the display (X11 MapNotify on the root) and reads
    what they show (the X server's pixels, read again whenever the window is drawn to)."""

    def __init__(self):
        self.display = xdisplay.Display()
        self.display.damage_query_version()
        self.display.screen().root.change_attributes(event_mask=X.SubstructureNotifyMask)
        self.pid_atom = self.display.intern_atom("_NET_WM_PID")
        self.damage_event = self.display.extension_event.DamageNotify
        self.display.sync()

    def events(self, deadline, what):
        """The display's events as they come, each with the time it was read."""
        while time.monotonic() < deadline:
            if not self.display.pending_events():
                select.select([self.display], [], [], 0.05)
                continue
            event = self.display.next_event()
            yield time.time(), event
        raise TimeoutError(f"no {what} in time")

    def mapped(self, pid, timeout=30):
        """The time the first window of process `pid` is mapped, and that window."""
        for moment, event in self.events(time.monotonic() + timeout, f"window of {pid} mapped"):
            if event.type != X.MapNotify or event.override:
                continue
            with contextlib.suppress(xerror.XError):  # a window gone again
                owner = event.window.get_full_property(self.pid_atom, X.AnyPropertyType)
                if owner and owner.value[0] == pid:
                    return moment, event.window

    def text_shown(self, window, timeout=30):
        """The first time `window` shows text in its middle: read at once, then after each
        drawing into it."""
        drawn = window.damage_create(damage.DamageReportNonEmpty)
        try:
            if shows_text(window):
                return time.time()
            for moment, event in self.events(time.monotonic() + timeout, "text in the window"):
                if event.type == self.damage_event:
                    self.display.damage_subtract(drawn)
                    if shows_text(window):
                        return moment
        finally:
            self.display.damage_destroy(drawn)
            self.display.sync()


def shows_text(window):
    """Whether the middle of the window is a painted background with text on it: one colour
    for most of it (neither the unpainted black nor the root's weave shows through), and enough
    pixels of others to be a line of text."""
    with contextlib.suppress(xerror.XError):  # resized or gone meanwhile
        size = window.get_geometry()
        width, height = size.width // 2, size.height // 4
        image = window.get_image(size.width // 4, size.height * 3 // 8, width, height,
                                 X.ZPixmap, 0xFFFFFF)
        pixels = array.array("I", image.data)
        colour, count = collections.Counter(pixels).most_common(1)[0]
        return colour & 0xFFFFFF != 0 and 100 <= len(pixels) - count <= len(pixels) // 10
    return False


def gateway_floor(version):
    """Exec of the gateway to its first /healthz answer."""
    run = Run()
    try:
        started = time.time()
        run.start_gateway(REFERENCE_PORT, version)
        wait_until(lambda: benchlib.healthz_answers(REFERENCE_PORT), 20, "/healthz answer")
        return time.time() - started
    finally:
        run.close()


def gateway_pids(tree):
    def is_gateway(pid):
        with contextlib.suppress(OSError), open(f"/proc/{pid}/cmdline", "rb") as f:
            return b"qor_gateway.main" in f.read()
    return {p for pid in tree if is_gateway(pid) for p in process_tree(pid)}


def sleep_until(moment):
    time.sleep(max(0.0, moment - time.time()))


def shell_run(bundle, watch):
    """One start of the staged shell with the beacon gateway: seconds to the window's map, to
    its first frame with the boot text and to the page's script, PSS of its tree and of its
    gateway, CPU seconds while idle, and seconds from the gateway's crash to the page's script
    running again."""
    wait_until(lambda: benchlib.port_free(SHELL_PORT), 60, "port 8088 to be free", pause=0.5)
    run = Run(QOR_DEV="1", QOR_PYTHON="/usr/bin/python3", QOR_SIDECAR_DIR=benchlib.GATEWAY_DIR,
              QOR_BENCH_VERSION=benchlib.bundle_file(bundle, "QOR_RUNTIME_VERSION"))
    try:
        started = time.time()
        shell = run.start([os.path.join(bundle, "bin", "qor-velmora")])
        mapped, window = watch.mapped(shell.pid)
        result = {"boot": mapped - started, "boot_text": watch.text_shown(window) - started}
        loaded = run.beacon()
        result["web_ui"] = loaded - started
        sleep_until(loaded + SETTLE)
        tree = set(process_tree(shell.pid))
        gateway = gateway_pids(tree)
        result["pss"], result["gateway_pss"] = pss_mib(tree - gateway), pss_mib(gateway)
        sleep_until(loaded + IDLE_FROM)
        before = benchlib.cpu_seconds(tree - gateway)
        sleep_until(loaded + IDLE_FROM + IDLE_FOR)
        after = benchlib.cpu_seconds(set(process_tree(shell.pid)) - gateway)
        result["idle_cpu"] = sum(t - before.get(pid, 0) for pid, t in after.items())
        result["crash_return"] = page_return_after_crash(run, gateway)
        shell.terminate()  # the shell stops its gateway on the way out
        shell.wait(timeout=20)
        return result
    finally:
        run.close()


def page_return_after_crash(run, gateway):
    """SIGKILLs the gateway; seconds until the page's script runs again, from the relaunched
    gateway."""
    seen = len(benchlib.beacons(run.log))
    crashed = time.time()
    for pid in gateway:
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGKILL)
    return run.beacon(after=seen) - crashed


def browser_run(command, version):
    """`command(url, profile)` opening the page from a gateway that already runs: seconds to
    the page's script and PSS of the browser's tree."""
    run = Run()
    try:
        run.start_gateway(REFERENCE_PORT, version)
        wait_until(lambda: benchlib.healthz_answers(REFERENCE_PORT), 20, "/healthz answer")
        started = time.time()
        browser = run.start(command(f"http://127.0.0.1:{REFERENCE_PORT}/", f"{run.root}/profile"))
        loaded = run.beacon()
        sleep_until(loaded + SETTLE)
        return {"web_ui": loaded - started, "pss": pss_mib(process_tree(browser.pid))}
    finally:
        run.close()


def chromium(url, profile):
    root_only = ["--no-sandbox"] if os.geteuid() == 0 else []  # chromium refuses root otherwise
    return ["chromium", f"--app={url}", f"--user-data-dir={profile}", "--no-first-run",
            "--no-default-browser-check", "--password-store=basic", *root_only]


def surf(url, profile):
    return ["surf", url]


def measure(bundle, runs):
    """Rows for the table: every figure over `runs` runs, interleaved so drift hits all alike."""
    version = benchlib.bundle_file(bundle, "QOR_RUNTIME_VERSION")
    watch, floor, shell, chrome, plain = WindowWatch(), [], [], [], []
    for _ in range(runs):
        floor.append(gateway_floor(version))
        shell.append(shell_run(bundle, watch))
        chrome.append(browser_run(chromium, version))
        plain.append(browser_run(surf, version))

    def of(results, key):
        return [r[key] for r in results]

    def row(figure, unit, ours, target, reference_name=None, reference=None):
        return dict(figure=figure, unit=unit, ours=ours, reference_name=reference_name,
                    reference=reference, target=target)

    web_ui, pss = of(shell, "web_ui"), of(shell, "pss")
    to_script = "2. exec → page script (beacon)"
    memory = f"3. PSS of the shell's tree but its gateway, {SETTLE} s after load"
    return [
        row("1. exec → window mapped", "s", of(shell, "boot"), "≤ 0.3 s"),
        row("1. exec → first frame showing the boot text", "s", of(shell, "boot_text"),
            "≤ 0.15 s"),
        row(to_script, "s", web_ui, "≤ floor + 0.6 s", "gateway alone: exec → /healthz", floor),
        row(to_script, "s", web_ui, "ratio < 1", "chromium --app", of(chrome, "web_ui")),
        row(to_script, "s", web_ui, "–", "surf", of(plain, "web_ui")),
        row("2. gateway SIGKILL → page script again (relaunch after 2 s)", "s",
            of(shell, "crash_return"), "–"),
        row(memory, "MiB", pss, "≤ 0.70 × surf", "surf", of(plain, "pss")),
        row(memory, "MiB", pss, "≤ 0.85 × chromium", "chromium --app", of(chrome, "pss")),
        row("3. PSS of the gateway", "MiB", of(shell, "gateway_pss"), "–"),
        row(f"4. CPU of the shell's tree, {IDLE_FOR} s idle from {IDLE_FROM} s after load",
            "CPU s", of(shell, "idle_cpu"), "≤ 0.020 CPU s"),
    ]
