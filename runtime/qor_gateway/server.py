"""The gateway's HTTP server: readiness probe, web UI and the notes API, on loopback only."""

import json
import os
import sys
import time
from dataclasses import dataclass, field
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from urllib.parse import urlsplit

from .errors import ApiError
from .notes import NoteStore, note_fields

PAGE = Path(__file__).with_name("index.html").read_bytes()
MAX_BODY_BYTES = 256 * 1024  # well above the largest valid note, even with every character escaped
NOTES_PREFIX = "/api/notes/"
# Requests naming any other host are refused, so a web page that rebinds its own
# name to 127.0.0.1 cannot read the user's notes.
LOOPBACK_HOSTS = {"127.0.0.1", "localhost", "::1"}
# The page loads nothing from anywhere; it only talks back to this gateway.
PAGE_POLICY = ("default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'; "
               "connect-src 'self'")


@dataclass
class Gateway:
    """What the handlers serve; shared read-only by all request threads (the store locks itself)."""

    version: str
    port: int
    litellm_port: int
    data_dir: Path
    notes: NoteStore
    started: float = field(default_factory=time.monotonic)

    def health(self) -> dict:
        return {
            "version": self.version,
            "status": "ok",
            "uptime_seconds": round(time.monotonic() - self.started, 1),
            "data_dir": str(self.data_dir),
            "port": self.port,
            "litellm_port": self.litellm_port,
            "pid": os.getpid(),
        }


class GatewayServer(ThreadingHTTPServer):
    daemon_threads = True  # a request still running must not hold up the exit

    def __init__(self, gateway: Gateway):
        self.gateway = gateway
        super().__init__(("127.0.0.1", gateway.port), GatewayHandler)


class GatewayHandler(BaseHTTPRequestHandler):
    server_version = "qor-gateway"

    def do_GET(self):
        self._dispatch()

    do_POST = do_PUT = do_DELETE = do_PATCH = do_GET

    def _dispatch(self):
        try:
            self._check_host()
            methods, args = self._route(urlsplit(self.path).path)
            action = methods.get(self.command)
            if action is None:
                raise ApiError(405, "method_not_allowed", f"不支持 {self.command} 请求")
            action(*args)
        except ApiError as error:
            self._send_json(error.status, {"error": error.code, "message": error.message})
        except OSError as error:
            # The data folder failed (full disk, permissions); the store leaves no partial file.
            message = f"读写数据失败：{error.strerror or error}"
            self._send_json(500, {"error": "storage_failed", "message": message})

    def _route(self, path: str):
        if path == "/":
            return {"GET": self._get_page}, ()
        if path == "/healthz":
            return {"GET": self._get_health}, ()
        if path == "/api/notes":
            return {"GET": self._list_notes, "POST": self._create_note}, ()
        if path.startswith(NOTES_PREFIX):
            note_id = path[len(NOTES_PREFIX):]
            return {"PUT": self._replace_note, "DELETE": self._delete_note}, (note_id,)
        raise ApiError(404, "not_found", f"未找到 {path}")

    def _check_host(self):
        host = self.headers.get("Host")
        if host is not None and urlsplit("//" + host).hostname not in LOOPBACK_HOSTS:
            raise ApiError(403, "forbidden_host", "只接受来自本机地址的请求")

    def _get_page(self):
        self._send(200, PAGE, "text/html; charset=utf-8", {"Content-Security-Policy": PAGE_POLICY})

    def _get_health(self):
        self._send_json(200, self.server.gateway.health())

    def _list_notes(self):
        self._send_json(200, {"notes": self.server.gateway.notes.list()})

    def _create_note(self):
        title, body = note_fields(self._read_json())
        self._send_json(201, self.server.gateway.notes.create(title, body))

    def _replace_note(self, note_id: str):
        title, body = note_fields(self._read_json())
        self._send_json(200, self.server.gateway.notes.replace(note_id, title, body))

    def _delete_note(self, note_id: str):
        self.server.gateway.notes.delete(note_id)
        self._send(204, b"")

    def _read_json(self):
        length = self.headers.get("Content-Length", "")
        if not length.isdigit():
            raise ApiError(411, "length_required", "缺少有效的 Content-Length")
        if int(length) > MAX_BODY_BYTES:
            raise ApiError(413, "body_too_large", f"请求体不能超过 {MAX_BODY_BYTES} 字节")
        # Read before any other refusal: closing on unread bytes would reset the connection
        # and the client could lose the answer.
        raw = self.rfile.read(int(length))
        if self.headers.get_content_type() != "application/json":
            raise ApiError(415, "unsupported_media_type", "请以 application/json 格式提交")
        try:
            return json.loads(raw.decode("utf-8"))
        except (ValueError, RecursionError):
            raise ApiError(400, "invalid_json", "请求体不是有效的 UTF-8 JSON") from None

    def _send_json(self, status: int, payload):
        body = json.dumps(payload, ensure_ascii=False).encode("utf-8")
        self._send(status, body, "application/json; charset=utf-8")

    def _send(self, status: int, body: bytes, content_type: str = "", headers: dict = None):
        self.send_response(status)
        if content_type:
            self.send_header("Content-Type", content_type)
        for name, value in (headers or {}).items():
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Cache-Control", "no-store")
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, format, *args):
        # One write per line, so lines from concurrent requests never interleave.
        line = f"{self.log_date_time_string()} {self.address_string()} {format % args}\n"
        sys.stdout.write(line)
        sys.stdout.flush()
