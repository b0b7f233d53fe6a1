"""Test gateway: logs its start, SIGTERMs and requests as JSON lines to $QOR_E2E_LOG. Pages run
script posted to /__test/command, polling /__test/next, and report to /__test/report. Pages are
numbered; once one has polled, those served before it get no more script."""

import collections, json, os, signal, socket, socketserver, sys, threading, time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

_lock = threading.Lock()  # guards the log and the fields below
_commands, _pages = collections.deque(), {"served": 0, "active": 0}
_committed = threading.Event()  # the truncated page's script ran: its load was committed
PAGE = """<!doctype html><meta charset="utf-8"><title>QOR e2e %s</title><body style="margin: 0;
height: 100vh; background: rgb(32, 120, 200); color: white"><h1>测试网关页面 %s</h1><script>
// A navigation that starts may cancel a report under way; the page goes on polling.
const report = (value) =>
  fetch('/__test/report', {method: 'POST', body: JSON.stringify(value)}).catch(() => null);
window.addEventListener('message', (event) => report({message: event.data}));
// Covers the page with one link; for target 'open' a click calls window.open instead.
function showLink(href, target, id) {
  const link = document.body.appendChild(document.createElement('a'));
  link.style.cssText = 'position: fixed; inset: 0; background: rgb(200, 80, 40)';
  [link.href, link.target, window.marker] = [href, target === 'open' ? '' : target || '', id];
  link.onclick = (event) => { // returns nothing: false would cancel the link
    navigator.sendBeacon('/__test/report', JSON.stringify({clicked: id}));
    if (target === 'open') event.preventDefault(), window.open(href); };
  return new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve)));
}
if (window.top === window) (async () => { for (;;) {
  const next = await fetch('/__test/next?page=%d', {cache: 'no-store'}).catch(() => null);
  const command = next?.status === 200 && await next.json();
  const run = async () => ({id: command.id, result: (await (0, eval)(command.script)) ?? null});
  await (command ? run().catch((e) => ({id: command.id, error: String(e)})).then(report)
                 : new Promise((resolve) => setTimeout(resolve, 100)));
}})();
</script>"""


def log(entry):
    with _lock, open(os.environ["QOR_E2E_LOG"], "a", encoding="utf-8") as f:
        f.write(json.dumps(entry, ensure_ascii=False) + "\n")


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args): pass  # the JSON log replaces these lines

    def send(self, status, body=b"", length=None):
        self.send_response(status)
        self.send_header("Content-Type", "text/html; charset=utf-8")  # JSON reads as well
        self.send_header("Content-Length", str(len(body) if length is None else length))
        self.end_headers()
        self.wfile.write(body)

    def do_GET(self, body=""):
        entry = {"event": "request", "path": self.path, "body": body,
                 "host": self.headers["Host"], "cache_control": self.headers["Cache-Control"],
                 "token": f"qor_token={os.environ.get('QOR_GATEWAY_TOKEN')}" in
                 (self.headers["Cookie"] or "").split("; ")}
        with _lock:
            if self.path.startswith("/__test/next?page="):
                entry["page"] = int(self.path.split("=")[1])
                _pages["active"] = max(_pages["active"], entry["page"])
                mine = _commands and entry["page"] == _pages["active"]
                command = _commands.popleft().encode() if mine else None
            elif not self.path.startswith(("/__test/", "/healthz", "/truncated")):
                _pages["served"] += 1
                entry["page"] = _pages["served"]
            elif self.path == "/__test/command":
                _commands.append(body)
        log(entry)
        if self.path == "/healthz":
            self.send(200, json.dumps({"version": os.environ["QOR_E2E_VERSION"]}).encode())
        elif self.path.startswith("/__test/next"):
            self.send(200, command) if command else self.send(204)
        elif self.path == "/truncated":  # committed, then the connection drops
            self.send(200, b"<!doctype html><script>fetch('/__test/committed')</script><p>partial"
                      + b" " * 4096, length=1000000)
            _committed.wait(60)
            self.connection.shutdown(socket.SHUT_RDWR)
        elif self.path == "/__test/committed":
            _committed.set()
            self.send(204)
        elif "page" in entry:
            self.send(200, (PAGE % (self.path, self.path, entry["page"])).encode())
        else:
            self.send(204)

    def do_POST(self):
        self.do_GET(self.rfile.read(int(self.headers["Content-Length"] or 0)).decode())


class Server(ThreadingHTTPServer):
    daemon_threads = True

    def server_bind(self):  # without the host name look-up, which can stall without DNS
        socketserver.TCPServer.server_bind(self)
        self.server_name, self.server_port = "localhost", self.server_address[1]

    def handle_error(self, request, client_address):  # pages left behind drop their polls
        if not isinstance(sys.exc_info()[1], ConnectionError):
            super().handle_error(request, client_address)


class Server6(Server): address_family = socket.AF_INET6


def on_sigterm(signum, frame):
    log({"event": "sigterm", "pid": os.getpid()})
    os._exit(0)


if __name__ == "__main__":
    port = int(sys.argv[sys.argv.index("--port") + 1])
    signal.signal(signal.SIGTERM, on_sigterm)
    log({"event": "start", "pid": os.getpid()})
    time.sleep(float(os.environ.get("QOR_E2E_BOOT_DELAY", "0")))
    threading.Thread(target=Server6(("::1", port), Handler).serve_forever, daemon=True).start()
    Server(("127.0.0.1", port), Handler).serve_forever()
