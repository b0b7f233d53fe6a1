"""The user's notes: one JSON file per note under <data-dir>/notes, replaced atomically."""

import contextlib
import json
import os
import re
import sys
import tempfile
import threading
import uuid
from datetime import datetime, timezone
from pathlib import Path

from .errors import ApiError

NOTE_ID = re.compile(r"[0-9a-f]{32}")
TITLE_MAX_CHARS = 200
BODY_MAX_CHARS = 20000
NOTE_FIELDS = ("title", "body")


def note_fields(payload) -> tuple[str, str]:
    """Validated (title, body) of a create or replace request; both fields are required."""
    if not isinstance(payload, dict):
        raise ApiError(400, "invalid_note", "请求体必须是 JSON 对象")
    unknown = sorted(set(payload) - set(NOTE_FIELDS))
    if unknown:
        raise ApiError(400, "unknown_field", "不支持的字段：" + "、".join(unknown))
    title, body = payload.get("title"), payload.get("body")
    if not isinstance(title, str) or not title.strip():
        raise ApiError(400, "invalid_title", "标题不能为空")
    if len(title.strip()) > TITLE_MAX_CHARS:
        raise ApiError(400, "invalid_title", f"标题不能超过 {TITLE_MAX_CHARS} 个字符")
    if not isinstance(body, str):
        raise ApiError(400, "invalid_body", "内容必须是文本")
    if len(body) > BODY_MAX_CHARS:
        raise ApiError(400, "invalid_body", f"内容不能超过 {BODY_MAX_CHARS} 个字符")
    return title.strip(), body


def _now() -> str:
    return datetime.now(timezone.utc).isoformat(timespec="milliseconds")


class NoteStore:
    """Notes on disk. Called from the server's request threads; one lock orders all access."""

    def __init__(self, data_dir: Path):
        self.folder = data_dir / "notes"
        self.folder.mkdir(parents=True, exist_ok=True)
        self._lock = threading.Lock()

    def list(self) -> list[dict]:
        """All readable notes, most recently changed first. Unreadable files are left alone."""
        notes = []
        with self._lock:
            for path in self.folder.glob("*.json"):
                if not NOTE_ID.fullmatch(path.stem):
                    continue
                try:
                    notes.append(self._read(path))
                except (OSError, ValueError) as error:
                    print(f"skipping unreadable note {path}: {error}", file=sys.stderr, flush=True)
        return sorted(notes, key=lambda note: str(note.get("updated_at", "")), reverse=True)

    def create(self, title: str, body: str) -> dict:
        now = _now()
        note = {"id": uuid.uuid4().hex, "title": title, "body": body,
                "created_at": now, "updated_at": now}
        with self._lock:
            self._write(note)
        return note

    def replace(self, note_id: str, title: str, body: str) -> dict:
        path = self._path(note_id)
        with self._lock:
            try:
                note = self._read(path)
            except FileNotFoundError:
                raise ApiError(404, "note_not_found", "笔记不存在") from None
            except (OSError, ValueError):
                # Overwriting would lose whatever is left of the user's text.
                raise ApiError(409, "note_unreadable", "笔记文件无法读取，未作修改") from None
            note.update(title=title, body=body, updated_at=_now())
            self._write(note)
        return note

    def delete(self, note_id: str) -> None:
        path = self._path(note_id)
        with self._lock:
            try:
                path.unlink()
            except FileNotFoundError:
                raise ApiError(404, "note_not_found", "笔记不存在") from None

    def _path(self, note_id: str) -> Path:
        # The id becomes a file name: only our own 32-hex-digit ids are accepted.
        if not NOTE_ID.fullmatch(note_id):
            raise ApiError(400, "invalid_note_id", "笔记编号无效")
        return self.folder / f"{note_id}.json"

    @staticmethod
    def _read(path: Path) -> dict:
        note = json.loads(path.read_text(encoding="utf-8"))
        if not isinstance(note, dict):
            raise ValueError("not a JSON object")
        return note

    def _write(self, note: dict) -> None:
        fd, temp = tempfile.mkstemp(dir=self.folder, prefix=".", suffix=".tmp")
        try:
            with os.fdopen(fd, "w", encoding="utf-8") as file:
                json.dump(note, file, ensure_ascii=False, indent=2)
                file.flush()
                os.fsync(file.fileno())
            os.replace(temp, self._path(note["id"]))
        except BaseException:
            with contextlib.suppress(OSError):
                os.unlink(temp)
            raise
