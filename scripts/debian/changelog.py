"""Writes the Debian changelog of the package from the store listing's release notes, so each
release's notes are written once:  changelog.py METAINFO > changelog"""

import email.utils, sys, textwrap
import xml.etree.ElementTree as ElementTree
from datetime import datetime, timezone

MAINTAINER = "QOR <desktop@qor.example.org>"


def entry(release):
    notes = release.find("description")
    if notes is None:
        sys.exit(f"changelog.py: release {release.get('version')} has no notes")
    lines = []
    for item in notes.iter():
        if item.tag in ("p", "li") and item.text and item.text.strip():
            text = " ".join(item.text.split())
            lines += textwrap.wrap(text, 76, initial_indent="  * ", subsequent_indent="    ")
    date = datetime.strptime(release.get("date"), "%Y-%m-%d").replace(tzinfo=timezone.utc)
    return (f"qor-velmora ({release.get('version')}) stable; urgency=medium\n\n"
            + "\n".join(lines)
            + f"\n\n -- {MAINTAINER}  {email.utils.format_datetime(date)}\n")


releases = ElementTree.parse(sys.argv[1]).getroot().findall("releases/release")
if not releases:
    sys.exit("changelog.py: the listing has no releases")
sys.stdout.write("\n".join(map(entry, releases)))
