"""A stand-in gateway doing what <data-dir>/fake-gateway.json orders: exit_code, ignore_term, output
(texts or {"hex": ...} chunks), status, body or version of /healthz, by_launch (overrides for launch
0, 1, ...). It logs starts to launches.jsonl, SIGTERMs to signals.log, exit_code exits to exits.log.
"""
import ctypes, http.server, json, os, signal, sys, threading, time


def since_boot():
    return time.clock_gettime(time.CLOCK_BOOTTIME)


# For the relaunch timing: when this process was made, so the interpreter's own start, slow on
# a busy machine, does not count.
with open("/proc/self/stat") as stat:
    started = int(stat.read().rsplit(")", 1)[1].split()[19]) / os.sysconf("SC_CLK_TCK")

options = dict(zip(sys.argv[1::2], sys.argv[2::2]))  # --port P --litellm-port L --data-dir D
data = options["--data-dir"]
with open(os.path.join(data, "launches.jsonl"), "a+") as log:
    log.seek(0)
    launch = len(log.readlines())
    log.write(json.dumps({"pid": os.getpid(), "argv": sys.orig_argv, "cwd": os.getcwd(),
                          "env": dict(os.environ), "time": started}) + "\n")
with open(os.path.join(data, "fake-gateway.json")) as orders:
    config = json.load(orders)
config.update(dict(enumerate(config.get("by_launch", []))).get(launch, {}))


term_logged = threading.Event()


def on_term(number, _frame):
    with open(os.path.join(data, "signals.log"), "a") as log:
        log.write(f"{os.getpid()} {number}\n")
    term_logged.set()
    if not config.get("ignore_term"):
        sys.exit(0)


def parent_death_signal():
    number = ctypes.c_int()
    ctypes.CDLL(None).prctl(2, ctypes.byref(number), 0, 0, 0)  # PR_GET_PDEATHSIG
    return number.value


def exit_with_parent(parent=os.getppid()):  # never outlive a test that crashed
    while os.getppid() == parent:
        time.sleep(0.2)
    # The parent's death also sends a SIGTERM asked for by whoever launched us; logging it
    # must win the race against this silent exit, or a test would miss it.
    if parent_death_signal() == signal.SIGTERM:
        term_logged.wait()
    os._exit(1)


signal.signal(signal.SIGTERM, on_term)
threading.Thread(target=exit_with_parent, daemon=True).start()
if "exit_code" in config:
    with open(os.path.join(data, "exits.log"), "a") as log:
        log.write(f"{since_boot()}\n")
    os._exit(config["exit_code"])
for chunk in config.get("output", []):
    is_bytes = isinstance(chunk, dict)
    sys.stdout.buffer.write(bytes.fromhex(chunk["hex"]) if is_bytes else chunk.encode())
    sys.stdout.buffer.flush()
    time.sleep(0.2)


class Health(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        status = config.get("status", 200)
        body = config.get("body", json.dumps({"version": config["version"]}))
        body = b"" if status == 204 else body.encode()
        self.send_response(status)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


http.server.HTTPServer(("127.0.0.1", int(options["--port"])), Health).serve_forever()
