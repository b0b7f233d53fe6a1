"""Gateway entry: python -m qor_gateway.main --port P --litellm-port L --data-dir D.

Run with the working directory set to the folder that holds the qor_gateway package.
Serves until SIGTERM or SIGINT, then closes the listening socket and exits with 0.
"""

import argparse
import os
import signal
import sys
import threading
from pathlib import Path

from .notes import NoteStore
from .server import Gateway, GatewayServer
from .version import runtime_version


def port_number(text: str) -> int:
    port = int(text)
    if not 1 <= port <= 65535:
        raise ValueError(text)
    return port


def parse_args(argv):
    parser = argparse.ArgumentParser(prog="python -m qor_gateway.main")
    parser.add_argument("--port", type=port_number, required=True,
                        help="port to serve on 127.0.0.1")
    parser.add_argument("--litellm-port", type=port_number, required=True,
                        help="port of the companion litellm service (reported only)")
    parser.add_argument("--data-dir", default=os.environ.get("QOR_DATA_DIR"),
                        help="folder of the user's data (default: $QOR_DATA_DIR)")
    args = parser.parse_args(argv)
    if not args.data_dir:
        parser.error("--data-dir or QOR_DATA_DIR is required")
    return args


def fail(message: str) -> int:
    print(f"qor_gateway: {message}", file=sys.stderr, flush=True)
    return 1


def main(argv=None) -> int:
    args = parse_args(argv)
    data_dir = Path(os.path.abspath(args.data_dir))
    try:
        notes = NoteStore(data_dir)
    except OSError as error:
        return fail(f"cannot use the data folder {data_dir}: {error.strerror}")
    token = os.environ.get("QOR_GATEWAY_TOKEN") or None
    if token is None:
        print("qor_gateway: QOR_GATEWAY_TOKEN is not set, so no request can prove it comes from "
              "the user's QOR Velmora window; serving only /healthz", flush=True)
    gateway = Gateway(version=runtime_version(Path.cwd()), port=args.port,
                      litellm_port=args.litellm_port, data_dir=data_dir, notes=notes, token=token)
    try:
        server = GatewayServer(gateway)
    except OSError as error:
        return fail(f"cannot listen on 127.0.0.1:{args.port}: {error.strerror}")

    def request_shutdown(signum, frame):
        # shutdown() waits for serve_forever(), which runs on this very thread.
        threading.Thread(target=server.shutdown, daemon=True).start()

    signal.signal(signal.SIGTERM, request_shutdown)
    signal.signal(signal.SIGINT, request_shutdown)
    print(f"qor_gateway {gateway.version} serving http://127.0.0.1:{args.port}/ "
          f"(data {data_dir}, pid {os.getpid()})", flush=True)
    with server:
        # A stop request is seen within a quarter second, well before anyone escalates to SIGKILL.
        server.serve_forever(poll_interval=0.25)
    print("qor_gateway stopped", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
