"""Test gateway, started by the shell as `python -m qor_gateway.main --port P ...`.

Every request is appended as one JSON line to $QOR_E2E_LOG, together with the
gateway's own start and SIGTERM. Pages poll /__test/next for script to run,
which the test posts to /__test/command; pages send results to /__test/report.
Each page served gets a number; once a page has polled, pages served before it
get no more scripts, so a page being left never takes the next page's script.

Environment:
  QOR_E2E_LOG         the request log (required)
  QOR_E2E_VERSION     the runtime version /healthz reports
  QOR_E2E_BOOT_DELAY  seconds to wait before listening (default 0)
  QOR_E2E_IGNORE_SIGTERM  "1": log SIGTERM but keep running
"""

import argparse
import collections
import html
import json
import os
import signal
import socket
import socketserver
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

LOG_PATH = os.environ["QOR_E2E_LOG"]
VERSION = os.environ.get("QOR_E2E_VERSION", "")
_log_lock = threading.Lock()
_commands = collections.deque()
_commands_lock = threading.Lock()  # guards _commands, _pages_served, _active_page
_pages_served = 0
_active_page = 0

# Each page polls for the test's next script and runs it in the top frame.
DRIVER = """
<script>
function report(value) {
  return fetch('/__test/report', {method: 'POST', body: JSON.stringify(value)});
}
window.addEventListener('message', (event) => report({message: event.data}));
// Fills the page with one link, so a click anywhere follows it as a person's would.
function showLink(href, target, id) {
  const link = document.createElement('a');
  link.href = href;
  if (target) link.target = target;
  link.textContent = 'link ' + id;
  link.style.cssText = 'position: fixed; inset: 0; display: block; background: rgb(200, 80, 40);';
  link.addEventListener('click',
      () => navigator.sendBeacon('/__test/report', JSON.stringify({clicked: id})));
  document.body.replaceChildren(link);
  window.marker = id;
  return new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve)));
}
// The same, but the click opens a window from script.
function showOpener(url, id) {
  const button = document.createElement('div');
  button.style.cssText = 'position: fixed; inset: 0; background: rgb(40, 160, 80);';
  button.addEventListener('click', () => {
    navigator.sendBeacon('/__test/report', JSON.stringify({clicked: id}));
    window.open(url);
  });
  document.body.replaceChildren(button);
  window.marker = id;
  return new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve)));
}
if (window.top === window) {
  (async function poll() {
    for (;;) {
      try {
        const response = await fetch('/__test/next?page=' + PAGE, {cache: 'no-store'});
        if (response.status === 200) {
          const command = JSON.parse(await response.text());
          try {
            const result = await (0, eval)(command.script);
            await report({id: command.id, result: result === undefined ? null : result});
          } catch (error) {
            await report({id: command.id, error: String(error)});
          }
          continue;
        }
      } catch (error) {}
      await new Promise((resolve) => setTimeout(resolve, 100));
    }
  })();
}
</script>
"""


def log(entry):
    entry["time"] = time.time()
    line = json.dumps(entry, ensure_ascii=False) + "\n"
    with _log_lock, open(LOG_PATH, "a", encoding="utf-8") as f:
        f.write(line)


def page(path, number):
    title = html.escape(f"QOR e2e {path}")
    return f"""<!doctype html>
<html><head><meta charset="utf-8"><title>{title}</title>
<style>
  html, body {{ margin: 0; height: 100%; background: rgb(32, 120, 200); color: white;
               font: 20px sans-serif; }}
  #stage {{ padding: 24px; }}
</style></head>
<body><div id="stage"><h1>{title}</h1><p>测试网关页面</p></div>
<script>const PAGE = {number};</script>{DRIVER}</body></html>"""


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, format, *args):  # the JSON log replaces the default lines
        pass

    def _body(self):
        length = int(self.headers.get("Content-Length") or 0)
        return self.rfile.read(length).decode("utf-8", "replace") if length else ""

    def _send(self, status, body=b"", content_type="text/plain; charset=utf-8"):
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Cache-Control", "no-store")
        self.end_headers()
        self.wfile.write(body)

    def _log(self, body="", **extra):
        log({"event": "request", "method": self.command, "path": self.path,
             "host": self.headers.get("Host", ""),
             "cache_control": self.headers.get("Cache-Control", ""), "body": body, **extra})

    def do_GET(self):
        global _pages_served, _active_page
        if self.path == "/healthz":
            self._log()
            self._send(200, json.dumps({"version": VERSION}).encode(), "application/json")
        elif self.path.startswith("/__test/next?page="):
            number = int(self.path.split("=", 1)[1])
            self._log(page=number)
            with _commands_lock:
                _active_page = max(_active_page, number)
                command = _commands.popleft() if _commands and number == _active_page else None
            if command is None:
                self._send(204)
            else:
                self._send(200, command.encode(), "application/json")
        elif self.path == "/truncated":
            self._log()
            # Headers and part of the page, then the connection drops: the
            # page has been committed when its load fails.
            self.send_response(200)
            self.send_header("Content-Type", "text/html; charset=utf-8")
            self.send_header("Content-Length", "1000000")
            self.end_headers()
            partial = "<!doctype html><title>truncated</title><p>partial" + " " * 4096
            self.wfile.write(partial.encode())
            self.wfile.flush()
            time.sleep(0.5)
            self.connection.shutdown(socket.SHUT_RDWR)
            self.close_connection = True
        else:
            with _commands_lock:
                _pages_served += 1
                number = _pages_served
            self._log(page=number)
            self._send(200, page(self.path, number).encode(), "text/html; charset=utf-8")

    def do_POST(self):
        body = self._body()
        self._log(body)
        if self.path == "/__test/command":
            with _commands_lock:
                _commands.append(body)
        self._send(204)


class Server(ThreadingHTTPServer):
    daemon_threads = True

    def server_bind(self):
        # HTTPServer would look up the host's name, which can stall without DNS.
        socketserver.TCPServer.server_bind(self)
        self.server_name, self.server_port = "localhost", self.server_address[1]

    def handle_error(self, request, client_address):
        # Pages that navigate away drop their polls; that is no error here.
        if not isinstance(sys.exc_info()[1], ConnectionError):
            super().handle_error(request, client_address)


class Server6(Server):
    address_family = socket.AF_INET6


def on_sigterm(signum, frame):
    log({"event": "sigterm", "pid": os.getpid()})
    if os.environ.get("QOR_E2E_IGNORE_SIGTERM") != "1":
        os._exit(0)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--litellm-port", type=int)
    parser.add_argument("--data-dir")
    args = parser.parse_args()
    signal.signal(signal.SIGTERM, on_sigterm)
    log({"event": "start", "pid": os.getpid(), "argv": sys.argv[1:],
         "data_dir_env": os.environ.get("QOR_DATA_DIR"), "cwd": os.getcwd()})
    time.sleep(float(os.environ.get("QOR_E2E_BOOT_DELAY", "0")))
    servers = [Server(("127.0.0.1", args.port), Handler), Server6(("::1", args.port), Handler)]
    for server in servers[1:]:
        threading.Thread(target=server.serve_forever, daemon=True).start()
    servers[0].serve_forever()


if __name__ == "__main__":
    main()
