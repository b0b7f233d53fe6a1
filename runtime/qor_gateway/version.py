"""The runtime version the gateway reports on its readiness probe."""

from pathlib import Path

# Written by pack-runtime.sh next to this file; absent in the source tree.
PACKED_VERSION_FILE = Path(__file__).with_name("RUNTIME_VERSION")


def runtime_version(work_dir: Path) -> str:
    """The version of the runtime the gateway was unpacked into, else the one packed with it.

    The unpacked runtime holds <runtime>/QOR_RUNTIME_VERSION and the gateway runs in
    <runtime>/sidecar, so the runtime's own file sits in the parent of the working folder.
    """
    for candidate in (work_dir.parent / "QOR_RUNTIME_VERSION", PACKED_VERSION_FILE):
        try:
            text = candidate.read_text(encoding="utf-8").strip()
        except (OSError, ValueError):
            continue
        if text:
            return text
    return "unknown"
