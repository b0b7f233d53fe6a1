"""The gateway's HTTP server: readiness probe, web UI and the notes API, on loopback only."""

import errno
import hmac
import json
import os
import re
import selectors
import socket
import socketserver
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from http.server import BaseHTTPRequestHandler
from pathlib import Path
from typing import Optional
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
# The shell's per-run secret arrives in this cookie; without it only /healthz answers.
TOKEN_COOKIE = "qor_token"
REFUSED_PAGE = ("<!doctype html><meta charset=utf-8><title>403</title>"
                "<p>此服务只为启动它的 QOR Velmora 窗口提供。</p>\n").encode("utf-8")
CONTENT_LENGTH = re.compile(r"[0-9]{1,12}")
WORKERS = 16  # requests served at once; more wait their turn
LISTEN_BACKLOG = 128
# A client has this long to send its request once connected, and each read or write of a request
# gets as long again; an idle or stalled connection is closed after that.
CONNECTION_TIMEOUT = 10.0
OUT_OF_DESCRIPTORS_PAUSE = 0.1  # seconds without accepting when the process has no file left


@dataclass
class Gateway:
    """What the handlers serve; shared read-only by all request threads (the store locks itself)."""

    version: str
    port: int
    litellm_port: int
    data_dir: Path
    notes: NoteStore
    token: Optional[str] = None  # None: serve only /healthz
    started: float = field(default_factory=time.monotonic)

    def admits(self, cookie_header: Optional[str]) -> bool:
        """Whether a request carrying these cookies comes from the shell that started us."""
        if self.token is None or not cookie_header:
            return False
        # Read by hand: a strict cookie parser gives up on the whole header over one odd cookie
        # that a page set for itself, and would lock the user out.
        for pair in cookie_header.split(";"):
            name, equals, value = pair.strip().partition("=")
            if equals and name == TOKEN_COOKIE and \
                    hmac.compare_digest(value.encode("utf-8", "replace"), self.token.encode()):
                return True
        return False

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


class GatewayServer(socketserver.TCPServer):
    """Serves each connection on a bounded pool of workers, once its request has begun to arrive.

    Connections that have sent nothing yet wait in one selector on a thread of their own, so idle
    clients cost no worker and no thread, and are closed after CONNECTION_TIMEOUT.
    """

    allow_reuse_address = True
    request_queue_size = LISTEN_BACKLOG

    def __init__(self, gateway: Gateway):
        self.gateway = gateway
        self._workers = ThreadPoolExecutor(max_workers=WORKERS, thread_name_prefix="request")
        self._waiting = selectors.DefaultSelector()
        self._waiting_lock = threading.Lock()
        self._wake_reader, self._wake_writer = socket.socketpair()
        self._wake_writer.setblocking(False)
        self._waiting.register(self._wake_reader, selectors.EVENT_READ)
        self._closing = False
        super().__init__(("127.0.0.1", gateway.port), GatewayHandler)
        self._doorman = threading.Thread(target=self._watch_waiting, name="doorman", daemon=True)
        self._doorman.start()

    def get_request(self):
        try:
            return super().get_request()
        except OSError as error:
            if error.errno in (errno.EMFILE, errno.ENFILE, errno.ENOBUFS, errno.ENOMEM):
                # The pending connection stays in the backlog; trying again at once would spin.
                time.sleep(OUT_OF_DESCRIPTORS_PAUSE)
            raise

    def process_request(self, request, client_address):
        request.setblocking(False)
        with self._waiting_lock:
            self._waiting.register(request, selectors.EVENT_READ,
                                   (client_address, time.monotonic() + CONNECTION_TIMEOUT))
        self._wake()

    def _wake(self):
        try:
            self._wake_writer.send(b"!")
        except BlockingIOError:
            pass  # a wake-up is pending already

    def _watch_waiting(self):
        while not self._closing:
            events = self._waiting.select(timeout=1.0)
            now = time.monotonic()
            with self._waiting_lock:
                ready = [key for key, _ in events if key.fileobj is not self._wake_reader]
                if any(key.fileobj is self._wake_reader for key, _ in events):
                    self._wake_reader.recv(4096)
                expired = [key for key in self._waiting.get_map().values()
                           if key.data is not None and key.data[1] <= now and key not in ready]
                for key in ready + expired:
                    self._waiting.unregister(key.fileobj)
            for key in expired:
                self.shutdown_request(key.fileobj)
            for key in ready:
                key.fileobj.setblocking(True)
                self._workers.submit(self.process_request_thread, key.fileobj, key.data[0])

    def process_request_thread(self, request, client_address):
        try:
            self.finish_request(request, client_address)
        except Exception:
            self.handle_error(request, client_address)
        finally:
            self.shutdown_request(request)

    def server_close(self):
        self._closing = True
        self._wake()
        self._doorman.join()
        super().server_close()
        with self._waiting_lock:
            for key in list(self._waiting.get_map().values()):
                key.fileobj.close()
            self._waiting.close()
        self._wake_writer.close()
        # Requests still running must not hold up the exit.
        self._workers.shutdown(wait=False, cancel_futures=True)


class GatewayHandler(BaseHTTPRequestHandler):
    server_version = "qor-gateway"
    timeout = CONNECTION_TIMEOUT

    def do_GET(self):
        self._dispatch()

    do_POST = do_PUT = do_DELETE = do_PATCH = do_GET

    def _dispatch(self):
        try:
            self._check_host()
            path = urlsplit(self.path).path
            if not (self.command == "GET" and path == "/healthz") and \
                    not self.server.gateway.admits(self.headers.get("Cookie")):
                self._send(403, REFUSED_PAGE, "text/html; charset=utf-8")
                return
            methods, args = self._route(path)
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
        lengths = self.headers.get_all("Content-Length", [])
        if not lengths:
            raise ApiError(411, "length_required", "缺少 Content-Length")
        length = lengths[0].strip()
        if len(set(lengths)) != 1 or not CONTENT_LENGTH.fullmatch(length):
            # The body cannot be told from the next request: answer, then close.
            self.close_connection = True
            raise ApiError(400, "invalid_content_length", "Content-Length 无效")
        if int(length) > MAX_BODY_BYTES:
            raise ApiError(413, "body_too_large", f"请求体不能超过 {MAX_BODY_BYTES} 字节")
        # Read before any other refusal: closing on unread bytes would reset the connection
        # and the client could lose the answer.
        raw = self.rfile.read(int(length))
        if self.headers.get_content_type() != "application/json":
            raise ApiError(415, "unsupported_media_type", "请以 application/json 格式提交")
        try:
            payload = json.loads(raw.decode("utf-8"))
            # "\ud800" parses, but names no character: nothing could store or show it.
            json.dumps(payload, ensure_ascii=False).encode("utf-8")
            return payload
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
