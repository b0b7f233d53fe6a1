"""The window in one session: start-up, menus, a second launch, script dialogs, load failure."""

import os, re, socket, subprocess, unittest

from harness import (BUNDLE, Session, find_all, pid_alive, port_listening, press, states, texts,
                     titles, wait_until, xdotool, xprop)

BOOT, APP_ID = "Starting QOR Velmora…", "org.qor.Velmora"
STALE = ("import signal, socket, time; signal.signal(signal.SIGTERM, signal.SIG_IGN); s = "
         "socket.create_server(('127.0.0.1', 8088)); time.sleep(600)")  # ignores SIGTERM
MENUS = {  # per item: title, shortcut, whether it is sensitive; None per separator
    "QOR Velmora": [("关于 QOR Velmora", "", 1), None, ("此版本未配置更新", "", 0),
                    ("打开日志文件夹", "", 1), None,
                    ("隐藏 QOR Velmora", "Ctrl+H", 1), ("隐藏其他", "Ctrl+Alt+H", 0),
                    ("全部显示", "", 0), None, ("退出 QOR Velmora", "Ctrl+Q", 1)],
    "编辑": [("撤销", "Ctrl+Z", 1), ("重做", "Shift+Ctrl+Z", 1), None, ("剪切", "Ctrl+X", 1),
           ("复制", "Ctrl+C", 1), ("粘贴", "Ctrl+V", 1), ("全选", "Ctrl+A", 1)],
    "窗口": [("最小化", "Ctrl+M", 1), ("关闭", "Ctrl+W", 1)],
}
# The page's call, the dialog's texts, what the person does ("key:" and "type:" go to the
# dialog, anything else is a button to press) and the answer the page gets.
SURE, NAME = ["请确认", "Sure?"], ["Name"]
DIALOGS = [
    ('alert("x"); "done"', ["QOR Velmora", "x"], ["好"], "done"),
    ('confirm("Sure?")', SURE, ["确定"], True), ('confirm("Sure?")', SURE, ["取消"], False),
    ('confirm("Sure?")', SURE, ["key:Return"], True),
    ('confirm("Sure?")', SURE, ["key:Escape"], False),
    ('prompt("Name", "abc")', NAME, ["key:ctrl+a", "type:Velmora user", "确定"], "Velmora user"),
    ('prompt("Name", "abc")', NAME, ["key:End", "type: more", "取消"], None),
    ('prompt("Name")', NAME, ["确定"], ""),
    ('[alert("1"), confirm("2"), prompt("3", "4")]', ["QOR Velmora", "1"], ["好", "确定", "确定"],
     [None, True, "4"]),  # one dialog after another, in the order asked
]


def entries(menu):  # per item (title, shortcut, sensitive), None per separator
    items = [n for n in find_all(menu, max_depth=20)[1:] if n.getRoleName() != "label"]
    return [(n.name, "".join(c.name for c in find_all(n, role="label", max_depth=1)[1:]),
             int("sensitive" in states(n))) if n.getRoleName() == "menu item" else None
            for n in items if n.getRoleName() in ("menu item", "separator")]


class WindowTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.s = Session("window", boot_delay=2.5)
        cls.addClassCleanup(cls.s.close)

    def test_1_boot_screen_then_the_page(self):
        s = self.s
        stale = subprocess.Popen(["python3", "-c", STALE, "qor_gateway.main", "--data-dir",
                                  f"{s.env['XDG_DATA_HOME']}/QOR Velmora/data"])
        wait_until(port_listening, 10, "the stale gateway to listen")
        s.launch()
        frame = s.main_window()
        box = frame.queryComponent().getExtents(1)
        self.assertEqual((frame.name, box.width, box.height), ("QOR Velmora", 1280, 820))
        self.assertEqual((s.boot_label(), s.webview_visible()), (BOOT, False))
        # The desktop matches the window to its launcher by the window's class.
        launcher = open(f"{BUNDLE}/share/applications/{APP_ID}.desktop").read()
        self.assertIn(f"\nStartupWMClass={APP_ID}\n", launcher)
        self.assertEqual(xprop(s.window_id(), "WM_CLASS"), f'"{APP_ID}", "{APP_ID}"')
        s.screenshot("startup-boot-screen")
        # The sweep kills the stale gateway; ours then boots slowly while the label counts.
        wait_until(lambda: stale.poll() == -9, 15, "the stale gateway to end by SIGKILL")
        wait_until(lambda: re.fullmatch(BOOT + r" \d+s", s.boot_label()), 20, "a progress text")
        s.wait_ready()
        # /healthz came first; the page was asked for once, past any cache, and is shown.
        self.assertEqual(s.requests()[0]["path"], "/healthz")
        self.assertEqual([r["cache_control"] for r in s.requests("/")], ["no-cache"])
        # The page, and what it asks for, carry this run's secret, which its script cannot read.
        asked = [r for r in s.events("request") if r["path"] != "/healthz"]
        self.assertTrue(all(r["token"] for r in asked), asked)
        self.assertEqual(s.run_script("document.cookie"), "")
        wait_until(self.s.webview_visible, 10, "the web view to be shown")
        s.screenshot("startup-gateway-page")

    def test_2_menu_bar(self):
        bar = find_all(self.s.main_window(), role="menu bar", max_depth=2)[0]
        self.assertEqual([m.name for m in find_all(bar, role="menu item", max_depth=1)], [*MENUS])
        for title, expected in MENUS.items():
            menu = self.s.choose(title)
            self.assertEqual(entries(menu), expected)
            xdotool("key", "Escape")
            wait_until(lambda: "expanded" not in states(menu), 5, "the menu to close")
        # The log folder, private, opens in the file manager.
        self.s.choose("QOR Velmora", "打开日志文件夹")
        logs = f"{self.s.env['XDG_DATA_HOME']}/QOR Velmora/logs"
        wait_until(lambda: self.s.handled("folder"), 10, "the file manager")
        self.assertEqual(self.s.handled("folder"), [logs])
        self.assertEqual(os.stat(logs).st_mode & 0o777, 0o700)

    def test_3_second_launch_presents_the_running_window(self):
        s, window = self.s, self.s.window_id()
        self.assertEqual(s.launch(second=True).returncode, 0)  # on screen: nothing changes
        xdotool("windowunmap", "--sync", window)  # as a window manager minimises
        self.assertEqual(xdotool("search", "--onlyvisible", "--name", "^QOR Velmora$"), "")
        self.assertEqual(s.launch(second=True).returncode, 0)
        self.assertEqual(s.window_id(), window, "the same window came back")
        self.assertEqual((len(s.gateway_pids()), len(s.requests("/"))), (1, 1))
        # Neither launch swept the running gateway away.
        self.assertEqual(s.events("sigterm"), [])
        self.assertTrue(pid_alive(s.gateway_pids()[0]))

    def test_4_script_dialogs(self):
        s = self.s
        for script, expected, actions, answer in DIALOGS:
            with self.subTest(script=script, actions=actions):
                command, dialog = s.run_script(script, wait=False), s.dialog()
                self.assertEqual(texts(dialog), expected)
                # Laid out as desktop alerts are: the default button last, with the focus
                # (for a prompt the field has it, 280 × 24, 8 pixels below the prompt line).
                buttons = ["好"] if expected[0] == "QOR Velmora" else ["取消", "确定"]
                self.assertEqual(titles(dialog), buttons)
                self.assertEqual(xprop(s.dialog_window_id(), "_NET_WM_NAME"), '"QOR Velmora"')
                field = find_all(dialog, role="text")
                focus = (field or find_all(dialog, role="push button", name=buttons[-1]))[0]
                self.assertIn("focused", states(focus))
                if field:
                    column = field[0].parent.queryComponent().getExtents(1)
                    line = find_all(dialog, role="label")[0].queryComponent().getExtents(1)
                    self.assertEqual((column.width, column.height - line.height - 8), (280, 24))
                else:
                    s.screenshot("dialog-alert-or-confirm")
                for action in actions:
                    kind, _, value = action.partition(":")
                    if kind in ("key", "type"):
                        s.key(value, dialog=True, text=value if kind == "type" else None)
                    else:
                        press(dialog := s.dialog(), action)
                        wait_until(lambda: dialog not in s.windows("dialog"), 5, "it to close")
                report = wait_until(lambda: s.report(command), 10, "the page's answer")
                self.assertEqual(report.get("result", report), answer)
                wait_until(lambda: not s.windows("dialog"), 5, "the dialog to close")

    def test_6_a_load_failing_after_commit_shows_in_the_boot_label(self):
        s, before = self.s, self.s.boot_label()
        # Refused before it was committed: the shell notes it, and the page stays as it was.
        with socket.socket() as closed:  # bound, never listening: connecting to it is refused
            closed.bind(("127.0.0.1", 0))
            refused = f"http://127.0.0.1:{closed.getsockname()[1]}/refused"
            s.run_script(f"location.href = '{refused}'", wait=False)
            wait_until(lambda: f"{refused} was not loaded: " in s.output(), 20,
                       "the shell to note the refusal")
        self.assertEqual(s.boot_label(), before)
        self.assertEqual(s.run_script("location.pathname"), "/")
        s.run_script("location.href = '/truncated'", wait=False)
        text = wait_until(lambda: s.boot_label() != before and s.boot_label(), 20, "a change")
        self.assertRegex(text, "^Sidecar UI failed to load: .")
        self.assertEqual([w.getRoleName() for w in s.windows()], ["frame"])
        self.assertTrue(self.s.webview_visible())

    def test_5_no_way_back_to_the_blank_page(self):
        s = self.s
        # Nothing there leaves the page; reload and the inspector stay.
        xdotool("mousemove", "--window", s.window_id(), "640", "500", "click", "3")
        bar = find_all(s.main_window(), role="menu bar", max_depth=2)[0]
        items = wait_until(lambda: [n.name for n in find_all(s.main_window(), role="menu item",
                                                            max_depth=30)
                                    if not find_all(bar, name=n.name)], 10, "the context menu")
        xdotool("key", "Escape")
        self.assertIn("Reload", items)
        self.assertIn("Inspect Element", items)
        self.assertFalse({"Back", "Forward", "Stop"} & set(items), items)
        # The page is the first entry of its history: going back leaves it shown, as it was.
        page = s.run_script("window.kept = 'here'; location.href")
        s.run_script("history.back(); 'asked'")
        self.assertEqual(s.run_script("[location.href, history.length, window.kept]"),
                         [page, 1, "here"])
        self.assertEqual(len(s.requests("/")), 1, "the page was loaded again")


if __name__ == "__main__":
    unittest.main()
