"""A stand-in gateway whose behaviour each test chooses.

It reads <data-dir>/fake-gateway.json at start (all keys optional):
  exit_code      exit at once with this code
  ignore_term    ignore SIGTERM
  output         list of texts (or {"hex": ...} byte chunks) written to stdout,
                 each flushed on its own with a pause, before serving
  status         HTTP status of /healthz (default 200)
  version        the "version" of /healthz (default: the shipped version given
                 in "shipped_version")
  body           a raw /healthz body instead of JSON
  by_launch      a list of objects overriding the keys above for launch 0, 1, …
Every launch appends one JSON line to <data-dir>/launches.jsonl with its pid,
argv, working folder, environment and start time, and every signal it gets
to <data-dir>/signals.log.
"""
import argparse
import http.server
import json
import os
import signal
import sys
import time


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--litellm-port", type=int, required=True)
    parser.add_argument("--data-dir", required=True)
    args = parser.parse_args()

    launches = os.path.join(args.data_dir, "launches.jsonl")
    launch_index = 0
    if os.path.exists(launches):
        with open(launches) as f:
            launch_index = sum(1 for _ in f)
    with open(launches, "a") as f:
        f.write(json.dumps({
            "pid": os.getpid(),
            "argv": sys.argv,
            "cwd": os.getcwd(),
            "env": dict(os.environ),
            "time": time.monotonic(),
        }) + "\n")

    config = {}
    config_path = os.path.join(args.data_dir, "fake-gateway.json")
    if os.path.exists(config_path):
        with open(config_path) as f:
            config = json.load(f)
    overrides = config.get("by_launch", [])
    if launch_index < len(overrides):
        config.update(overrides[launch_index])

    def record_signal(number, _frame):
        with open(os.path.join(args.data_dir, "signals.log"), "a") as f:
            f.write(f"{os.getpid()} {number}\n")
        if number == signal.SIGTERM and not config.get("ignore_term"):
            sys.exit(0)

    signal.signal(signal.SIGTERM, record_signal)

    if "exit_code" in config:
        sys.exit(config["exit_code"])

    for chunk in config.get("output", []):
        data = bytes.fromhex(chunk["hex"]) if isinstance(chunk, dict) else chunk.encode()
        sys.stdout.buffer.write(data)
        sys.stdout.buffer.flush()
        time.sleep(0.2)

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            if "body" in config:
                body = config["body"].encode()
            else:
                body = json.dumps({"version": config.get("version", config.get("shipped_version"))}).encode()
            self.send_response(config.get("status", 200))
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            if config.get("status", 200) not in (204, 304):
                self.wfile.write(body)

        def log_message(self, *_):
            pass

    server = http.server.HTTPServer(("127.0.0.1", args.port), Handler)
    server.serve_forever()


if __name__ == "__main__":
    main()
