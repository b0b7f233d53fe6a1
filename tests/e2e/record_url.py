"""Stands in for a desktop URL handler: appends the URL it is given to a log, followed by the
names of any renderer variables it was started with (the shell's own choice must not reach it)."""
import os, sys

RENDERERS = ("GSK_RENDERER", "GDK_DEBUG", "WEBKIT_DISABLE_DMABUF_RENDERER",
             "WEBKIT_WEB_RENDER_DEVICE_FILE")
inherited = [name for name in RENDERERS if name in os.environ]
with open(sys.argv[1], "a", encoding="utf-8") as log:  # one write(): appends never interleave
    log.write(" ".join([sys.argv[2] if len(sys.argv) > 2 else "", *inherited]) + "\n")
