"""pack-runtime.sh, run on copies of the gateway sources. Needs QOR_PACK_SCRIPT (its path)."""

import os
import shutil
import stat
import subprocess
import tempfile
import unittest
import zipfile
from pathlib import Path

PACK_SCRIPT = os.environ.get("QOR_PACK_SCRIPT", "")


@unittest.skipUnless(PACK_SCRIPT, "QOR_PACK_SCRIPT must be set")
class PackRuntimeTest(unittest.TestCase):
    def setUp(self):
        self.temp = tempfile.TemporaryDirectory()
        self.addCleanup(self.temp.cleanup)
        self.source = Path(self.temp.name, "source")
        shutil.copytree(Path(PACK_SCRIPT).parent / "qor_gateway", self.source / "qor_gateway",
                        ignore=shutil.ignore_patterns("__pycache__", "RUNTIME_VERSION"))
        self.out = Path(self.temp.name, "out")
        self.out.mkdir()
        self.archive = self.out / "QOR-runtime-x64.zip"

    def pack(self, *args):
        return subprocess.run(["/bin/bash", PACK_SCRIPT, *map(str, args)],
                              capture_output=True, text=True, timeout=60)

    def test_archive_holds_interpreter_link_clean_sources_and_version(self):
        sources = {path.relative_to(self.source).as_posix()
                   for path in self.source.rglob("*") if path.is_file()}
        (self.source / "qor_gateway/__pycache__").mkdir()
        (self.source / "qor_gateway/__pycache__/main.cpython-311.pyc").write_bytes(b"stale")
        (self.source / "qor_gateway/stray.pyc").write_bytes(b"stale")

        result = self.pack(self.archive, "2.0.0-test", self.source)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(os.listdir(self.out), [self.archive.name])

        with zipfile.ZipFile(self.archive) as archive:
            files = {info.filename: info for info in archive.infolist() if not info.is_dir()}
            self.assertEqual(archive.read("QOR_RUNTIME_VERSION"), b"2.0.0-test")
            self.assertEqual(archive.read("sidecar/qor_gateway/RUNTIME_VERSION"), b"2.0.0-test")
            self.assertIn(b"home = /usr/bin\n", archive.read("python/pyvenv.cfg"))
            link = files["python/bin/python"]
            self.assertTrue(stat.S_ISLNK(link.external_attr >> 16))
            self.assertEqual(archive.read(link), b"/usr/bin/python3")
        packed = {name.removeprefix("sidecar/") for name in files if name.startswith("sidecar/")}
        self.assertEqual(packed, sources | {"qor_gateway/RUNTIME_VERSION"})

    def test_refused_pack_keeps_the_previous_archive(self):
        self.archive.write_bytes(b"previous archive")
        empty = Path(self.temp.name, "empty")
        empty.mkdir()
        for args in ((self.archive, "2.0.0", empty),
                     (self.archive, "2.0 beta", self.source),
                     (self.archive, "", self.source),
                     (self.archive, "2.0.0")):
            with self.subTest(args=args):
                result = self.pack(*args)
                self.assertEqual(result.returncode, 2)
                self.assertTrue(result.stderr.strip())
                self.assertEqual(self.archive.read_bytes(), b"previous archive")
                self.assertEqual(os.listdir(self.out), [self.archive.name])
