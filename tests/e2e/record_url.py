"""Stands in for a desktop URL handler: appends the URL it is given to a log."""
import sys

with open(sys.argv[1], "a", encoding="utf-8") as log:  # one write(): appends never interleave
    log.write((sys.argv[2] if len(sys.argv) > 2 else "") + "\n")
