"""The menu bar: items and shortcuts, editing a page's text field, the about box."""

import os
import subprocess
import unittest

from harness import BUNDLE, ShellSession, find_all, press, states, wait_until

MENUS = {
    "QOR Velmora": [("关于 QOR Velmora", "", True), None,
                    ("隐藏 QOR Velmora", "Ctrl+H", True), ("隐藏其他", "Ctrl+Alt+H", False),
                    ("全部显示", "", False), None,
                    ("退出 QOR Velmora", "Ctrl+Q", True)],
    "编辑": [("撤销", "Ctrl+Z", True), ("重做", "Shift+Ctrl+Z", True), None,
           ("剪切", "Ctrl+X", True), ("复制", "Ctrl+C", True), ("粘贴", "Ctrl+V", True),
           ("全选", "Ctrl+A", True)],
    "窗口": [("最小化", "Ctrl+M", True), ("关闭", "Ctrl+W", True)],
}

FIELD = """
  const field = document.createElement('input');
  field.id = 'field';
  field.style.cssText = 'position: fixed; inset: 40px; font-size: 40px;';
  document.body.replaceChildren(field);
  new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve)));
"""


class MenuTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.s = ShellSession(cls.__name__)
        cls.s.launch()
        cls.s.wait_ready()

    @classmethod
    def tearDownClass(cls):
        cls.s.close()

    def tearDown(self):
        subprocess.run(["xdotool", "key", "Escape"], check=False)

    def open_menu(self, title):
        """Clicks the menu's title in the menu bar; returns its open menu."""
        bar_item = find_all(self.s.main_window(), role="menu item", name=title, max_depth=3)[0]
        extents = bar_item.queryComponent().getExtents(1)
        self.s.click(extents.x + extents.width // 2, extents.y + extents.height // 2)
        return wait_until(lambda: "expanded" in states(bar_item) and
                          find_all(bar_item, role="menu item", max_depth=20), 10,
                          f"menu {title} to open") and bar_item

    def entries(self, menu):
        """(title, shortcut, sensitive) per item, None per separator, in order."""
        found = []

        def visit(node):
            role = node.getRoleName()
            if role == "separator":
                found.append(None)
            elif role == "menu item":
                labels = [c.name for c in find_all(node, role="label", max_depth=1)]
                shortcut = labels[1] if len(labels) > 1 else ""
                found.append((node.name, shortcut, "sensitive" in states(node)))
                return
            for i in range(node.childCount):
                visit(node.getChildAtIndex(i))

        for i in range(menu.childCount):
            child = menu.getChildAtIndex(i)
            if child.getRoleName() == "menu":
                visit(child)
        return found

    def choose(self, menu_title, item_title):
        menu = self.open_menu(menu_title)
        press(find_all(menu, role="menu item", name=item_title, max_depth=20)[0])

    def test_menu_bar_items_and_shortcuts(self):
        bar = find_all(self.s.main_window(), role="menu bar", max_depth=2)[0]
        self.assertEqual([m.name for m in find_all(bar, role="menu item", max_depth=1)],
                         list(MENUS))
        for title, expected in MENUS.items():
            with self.subTest(menu=title):
                menu = self.open_menu(title)
                self.assertEqual(self.entries(menu), expected)
                subprocess.run(["xdotool", "key", "Escape"], check=True)
                wait_until(lambda: "expanded" not in states(menu), 5, "the menu to close")

    def test_editing_items_work_on_the_focused_field(self):
        s = self.s
        s.run_script(FIELD)

        def focused():  # a person clicks into the field (again if it was not drawn yet)
            s.click(640, 420)
            return s.run_script("document.activeElement.id") == "field"
        wait_until(focused, 10, "the field to take the focus")
        s.run_script("field.value = 'hello'; field.setSelectionRange(5, 5)")

        def value_becomes(expected, after):
            wait_until(lambda: s.run_script("field.value") == expected, 10,
                       f"{expected!r} after {after}")

        self.choose("编辑", "全选")
        wait_until(lambda: s.run_script("[field.selectionStart, field.selectionEnd]") == [0, 5],
                   10, "全选 to select the text")
        self.choose("编辑", "复制")
        s.run_script("field.setSelectionRange(5, 5)")
        self.choose("编辑", "粘贴")
        value_becomes("hellohello", "复制 and 粘贴")
        self.choose("编辑", "全选")
        self.choose("编辑", "剪切")
        value_becomes("", "剪切")
        self.choose("编辑", "撤销")
        value_becomes("hellohello", "撤销")
        self.choose("编辑", "重做")
        value_becomes("", "重做")

    def test_about_box(self):
        s = self.s
        self.choose("QOR Velmora", "关于 QOR Velmora")
        about = wait_until(lambda: [w for w in s.windows() if w.name != "QOR Velmora"], 10,
                           "the about box")[0]
        texts = " ".join(label.name for label in find_all(about, role="label"))
        with open(os.path.join(BUNDLE, "share", "qor-velmora", "APP_VERSION")) as f:
            version = f.read().strip()
        self.assertIn("QOR Velmora", texts)
        self.assertIn(version, texts)
        s.screenshot("about-box")


if __name__ == "__main__":
    unittest.main()
