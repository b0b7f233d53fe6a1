"""Stands in for a desktop URL handler: appends the URL it is given to a log."""

import fcntl
import sys

log_path, url = sys.argv[1], sys.argv[2] if len(sys.argv) > 2 else ""
with open(log_path, "a", encoding="utf-8") as log:
    fcntl.flock(log, fcntl.LOCK_EX)
    log.write(url + "\n")
