"""The page's alert(), confirm() and prompt(), answered through the accessibility bus."""

import subprocess
import time
import unittest

from harness import ShellSession, find_all, press, states, wait_until

WINDOW_COORDS = 1


def text_of(field):
    text = field.queryText()
    return text.getText(0, text.characterCount)


class ScriptDialogTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.s = ShellSession(cls.__name__)
        cls.s.launch()
        cls.s.wait_ready()

    @classmethod
    def tearDownClass(cls):
        cls.s.close()

    def open_dialog(self, script):
        """Runs `script` in the page and returns (command id, the dialog it raised)."""
        command = self.s.post_script(script)
        dialog = wait_until(lambda: next(iter(self.s.windows("dialog")), None), 15,
                            f"a dialog for {script!r}")
        return command, dialog

    def tearDown(self):
        # A failed test may leave its dialog open; answer it so the next test starts clean.
        for dialog in self.s.windows("dialog"):
            for button in find_all(dialog, role="push button"):
                press(button)
                break
        wait_until(lambda: not self.s.windows("dialog"), 10, "leftover dialogs to close")

    def texts(self, dialog):
        """The dialog's own texts, without the buttons' titles."""
        return [label.name for label in find_all(dialog, role="label")
                if label.parent.getRoleName() != "push button"]

    def buttons(self, dialog):
        return {button.name: button for button in find_all(dialog, role="push button")}

    def answer(self, command):
        report = wait_until(lambda: self.s.report(command), 10, "the page's answer")
        self.assertNotIn("error", report)
        wait_until(lambda: not self.s.windows("dialog"), 5, "the dialog to close")
        return report["result"]

    def type_into_dialog(self, *keys_then_text):
        """Focuses the dialog's window, as a click on it would, and types."""
        main = self.s.window_id()
        windows = subprocess.run(["xdotool", "search", "--onlyvisible", "--pid",
                                  str(self.s.app.pid)], capture_output=True, text=True).stdout
        dialog = next(w for w in windows.split() if w != main)
        subprocess.run(["xdotool", "windowfocus", "--sync", dialog], check=True)
        *keys, text = keys_then_text
        for key in keys:
            subprocess.run(["xdotool", "key", key], check=True)
        if text:
            subprocess.run(["xdotool", "type", "--delay", "20", text], check=True)

    def test_alert_blocks_the_page_until_ok(self):
        command, dialog = self.open_dialog('alert("x"); "after alert"')
        self.assertEqual(self.texts(dialog), ["QOR Velmora", "x"])
        buttons = self.buttons(dialog)
        self.assertEqual(list(buttons), ["好"])
        self.s.screenshot("dialog-alert")
        time.sleep(1)
        self.assertIsNone(self.s.report(command), "the page waits for the alert")
        press(buttons["好"])
        self.assertEqual(self.answer(command), "after alert")

    def test_confirm_answers(self):
        command, dialog = self.open_dialog('confirm("Delete?")')
        self.assertEqual(self.texts(dialog), ["请确认", "Delete?"])
        buttons = self.buttons(dialog)
        self.assertEqual(sorted(buttons), sorted(["确定", "取消"]))
        # Laid out as desktop alerts are: the default button last.
        self.assertEqual(list(buttons), ["取消", "确定"])
        self.assertIn("focused", states(buttons["确定"]))
        self.s.screenshot("dialog-confirm")
        press(buttons["确定"])
        self.assertIs(self.answer(command), True)

        command, dialog = self.open_dialog('confirm("Delete?")')
        press(self.buttons(dialog)["取消"])
        self.assertIs(self.answer(command), False)

        # Return presses the default button; Escape ends the alert as "no".
        command, dialog = self.open_dialog('confirm("Again?")')
        self.type_into_dialog("Return", "")
        self.assertIs(self.answer(command), True)
        command, dialog = self.open_dialog('confirm("Again?")')
        self.type_into_dialog("Escape", "")
        self.assertIs(self.answer(command), False)

    def test_prompt_answers(self):
        command, dialog = self.open_dialog('prompt("Name", "abc")')
        self.assertEqual(self.texts(dialog), ["Name"])
        self.assertEqual(list(self.buttons(dialog)), ["取消", "确定"])
        fields = find_all(dialog, role="text")
        self.assertEqual(len(fields), 1)
        field = fields[0]
        self.assertEqual(text_of(field), "abc")
        self.assertIn("focused", states(field))
        # The entry reports the extents of its inner text; its own size shows
        # in the column it shares with the prompt line (8 pixels apart).
        column = field.parent.queryComponent().getExtents(WINDOW_COORDS)
        line = find_all(dialog, role="label", name="Name")[0]
        line_height = line.queryComponent().getExtents(WINDOW_COORDS).height
        self.assertEqual((column.width, column.height - line_height - 8), (280, 24))
        self.s.screenshot("dialog-prompt")
        # Typing goes straight into the field.
        self.type_into_dialog("ctrl+a", "Velmora user")
        wait_until(lambda: text_of(field) == "Velmora user", 5,
                   "the typed text")
        press(self.buttons(dialog)["确定"])
        self.assertEqual(self.answer(command), "Velmora user")

        command, dialog = self.open_dialog('prompt("Name", "abc")')
        self.type_into_dialog("End", " more")
        press(self.buttons(dialog)["取消"])
        self.assertIsNone(self.answer(command))

        command, dialog = self.open_dialog('prompt("Name")')
        self.assertEqual(text_of(find_all(dialog, role="text")[0]), "")
        press(self.buttons(dialog)["确定"])
        self.assertEqual(self.answer(command), "")

    def test_dialogs_come_one_after_another(self):
        # The page asks for three in a row; each appears only after the one
        # before it has been answered.
        command, dialog = self.open_dialog(
            '[alert("one"), confirm("two"), prompt("three", "3")]')
        seen = []
        for expected in (["QOR Velmora", "one"], ["请确认", "two"], ["three"]):
            dialog = wait_until(lambda: next(iter(self.s.windows("dialog")), None), 10,
                                f"dialog {expected}")
            self.assertEqual(len(self.s.windows("dialog")), 1)
            seen.append(self.texts(dialog))
            buttons = self.buttons(dialog)
            press(buttons.get("确定") or buttons["好"])
            wait_until(lambda: dialog not in self.s.windows("dialog"), 5, "the dialog to close")
        self.assertEqual(seen, [["QOR Velmora", "one"], ["请确认", "two"], ["three"]])
        self.assertEqual(self.answer(command), [None, True, "3"])


if __name__ == "__main__":
    unittest.main()
