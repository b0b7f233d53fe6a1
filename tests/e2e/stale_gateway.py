"""A gateway left over from an earlier run that ignores SIGTERM.

Its command line names the gateway module and the product folder, so the
shell's start-up sweep must recognise it and, after SIGTERM fails, kill it.
Usage: stale_gateway.py PORT qor_gateway.main --data-dir ".../QOR Velmora/data"
"""

import signal
import socket
import sys
import time

signal.signal(signal.SIGTERM, signal.SIG_IGN)
listener = socket.socket()
listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
listener.bind(("127.0.0.1", int(sys.argv[1])))
listener.listen()
while True:
    time.sleep(1)
