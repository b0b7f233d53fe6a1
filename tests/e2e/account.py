"""A second account on the machine, for the window tests that need one: made once with useradd
(so only as root), logged in to the test's X display with a D-Bus session of its own, and shells
that run as it. Its accessibility bus, which lets root in, becomes this test's: every window of the
module, whoever runs it, is read there."""

import contextlib, os, pwd, shutil, signal, subprocess, tempfile, unittest

from harness import Session, proc_file, processes, wait_until

NAME = "qor-test-other"


def account():
    """The test account, made on first use; skips the test without root."""
    if os.geteuid() != 0 or not shutil.which("useradd"):
        raise unittest.SkipTest("a second account needs root and useradd")
    with contextlib.suppress(KeyError):
        return pwd.getpwnam(NAME)
    subprocess.run(["useradd", "--system", "--no-create-home", "--shell", "/usr/sbin/nologin",
                    NAME], check=True)
    return pwd.getpwnam(NAME)


class Desktop:
    """The account's login. Make it before any window is read: AT-SPI keeps the first bus it
    reaches for the whole process."""

    def __init__(self):
        self.user = account()
        self.folder = tempfile.mkdtemp(prefix="qor-e2e-account-")  # short: sockets go below it
        os.chmod(self.folder, 0o755)
        run, xauthority = f"{self.folder}/run", f"{self.folder}/Xauthority"
        os.mkdir(run, 0o700)
        shutil.copy(os.environ["XAUTHORITY"], xauthority)  # the display's cookie
        for path in (run, xauthority):
            os.chown(path, self.user.pw_uid, self.user.pw_gid)
        environment = dict(PATH="/usr/bin:/bin", HOME=self.folder, LANG="C.UTF-8",
                           DISPLAY=os.environ["DISPLAY"], XDG_RUNTIME_DIR=run)
        # What a shell of this desktop needs besides its session's own folders.
        bus = f"unix:path={run}/bus"
        self.env = dict(XAUTHORITY=xauthority, DBUS_SESSION_BUS_ADDRESS=bus)
        environment.update(self.env)
        self.bus = subprocess.Popen(
            ["dbus-daemon", "--session", "--nofork", "--address", bus],
            env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            **self.as_account())
        try:
            wait_until(lambda: os.path.exists(f"{run}/bus"), 30, "the account's session bus")
            # Asking for its address starts the accessibility bus in the account's session.
            reply = subprocess.run(
                ["gdbus", "call", "--session", "--dest", "org.a11y.Bus", "--object-path",
                 "/org/a11y/bus", "--method", "org.a11y.Bus.GetAddress"], env=environment,
                capture_output=True, text=True, check=True, timeout=60,
                **self.as_account()).stdout
        except BaseException:
            self.close()
            raise
        self.env["AT_SPI_BUS_ADDRESS"] = reply.strip().removeprefix("('").removesuffix("',)")
        os.environ["AT_SPI_BUS_ADDRESS"] = self.env["AT_SPI_BUS_ADDRESS"]

    def as_account(self):  # Popen's arguments that run a child as the account, and only as it
        return dict(user=self.user.pw_uid, group=self.user.pw_gid, extra_groups=[])

    def session(self, name, **options):
        """A harness Session whose folders are the account's and whose shell runs as it."""
        s = Session(name, **options)
        subprocess.run(["chown", "-R", f"{self.user.pw_uid}:{self.user.pw_gid}", s.root],
                       check=True)
        s.env.update(self.env)
        s.credentials = self.as_account()
        return s

    def close(self):
        """Ends the session bus and what it started (the accessibility bus and its registry)."""
        self.bus.terminate()
        self.bus.wait(timeout=30)
        # The account's processes whose command line or environment names the login's folder.
        for pid in processes(lambda pid: os.stat(f"/proc/{pid}").st_uid == self.user.pw_uid and any(
                self.folder.encode() in proc_file(pid, part) for part in ("cmdline", "environ"))):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        shutil.rmtree(self.folder, ignore_errors=True)
