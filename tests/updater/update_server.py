#!/usr/bin/env python3
"""A throw-away HTTPS update server: update_server.py FOLDER

Makes a certificate authority, FOLDER/ca.pem, serves FOLDER on 127.0.0.1 with
a certificate it signed for 127.0.0.1 and localhost, and writes the port to
FOLDER/port. FOLDER/routes.json, read for every request, changes single paths:
{"/a": {"status": 500, "body": "x"}}; "chunk" and "interval" send the body in
pieces with pauses; "delay" waits before answering; "close" hangs up; "redirect"
answers 302 to that address. A client that hangs up during a body is noted in
FOLDER/hung-up, one path a line.
"""
import json, pathlib, ssl, subprocess, sys, time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer


FOLDER = pathlib.Path(sys.argv[1])


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        routes = FOLDER / "routes.json"
        route = (json.loads(routes.read_bytes()) if routes.exists() else {}).get(self.path) or {}
        time.sleep(route.get("delay", 0))
        if route.get("close"):
            self.close_connection = True
            return
        file = FOLDER / self.path.lstrip("/")
        status, body = 404, b""
        if "body" in route:
            status, body = 200, route["body"].encode()
        elif "redirect" in route:
            status = 302
        elif file.is_file():
            status, body = 200, file.read_bytes()
        self.send_response(route.get("status", status))
        if "redirect" in route:
            self.send_header("Location", route["redirect"])
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        chunk = route.get("chunk", len(body) or 1)
        try:
            for start in range(0, len(body), chunk):
                self.wfile.write(body[start : start + chunk])
                self.wfile.flush()
                time.sleep(route.get("interval", 0))
        except OSError:
            self.close_connection = True
            with open(FOLDER / "hung-up", "a") as f:
                f.write(self.path + "\n")


def main():
    new = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
           "-nodes", "-days", "2", "-keyout"]
    for command in ([*new, "ca.key", "-out", "ca.pem", "-subj", "/CN=Test CA"],
                    [*new, "key.pem", "-out", "cert.pem", "-subj", "/CN=localhost", "-CA", "ca.pem",
                     "-CAkey", "ca.key", "-addext", "basicConstraints=CA:FALSE",
                     "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost"]):
        subprocess.run(command, cwd=FOLDER, check=True, capture_output=True)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(FOLDER / "cert.pem", FOLDER / "key.pem")
    server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    # Handshakes on the request threads: a client refusing the certificate holds up nobody.
    server.socket = context.wrap_socket(server.socket, server_side=True,
                                        do_handshake_on_connect=False)
    (FOLDER / "port.new").write_text(str(server.server_address[1]))
    (FOLDER / "port.new").replace(FOLDER / "port")
    server.serve_forever()


main()
