"""The supervisor's and the updater's figures: first-start provisioning, the data backup, the
update's digest and download, and the reaping sweep, each timed by build/bench/qor-bench and set
against the system tool doing the same work on the same input in the same round."""

import hashlib, os, pathlib, platform, random, shutil, socket, subprocess, sys, tempfile, time

import benchlib

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
MB = 1_000_000
RUNTIME_MB, DATA_MB, IMAGE_MIB = 60, 200, 512
SYSTEM_PYTHON = "/usr/bin/python3"  # the one runtime/pack-runtime.sh packs
THROUGHPUT_TARGET = "ratio ≥ 0.9"


def measure(build_dir, runs):
    bench = os.path.join(os.path.abspath(build_dir), "bench", "qor-bench")
    if not os.access(bench, os.X_OK):
        raise RuntimeError(f"{bench} is missing: cmake --build {build_dir} --target qor_bench")
    root = tempfile.mkdtemp(prefix="qor-core-bench-")
    try:
        if shutil.disk_usage(root).free < 3 * 1024**3:
            raise RuntimeError(f"fewer than 3 GiB free under {root}")
        return [provisioning(bench, root, runs), backup(bench, root, runs),
                *update_download(bench, root, runs), sweep(bench, runs)]
    finally:
        shutil.rmtree(root, ignore_errors=True)


# Timing.

def ours(*arguments):
    """Runs qor-bench; its first output line is the elapsed time, the rest are returned too."""
    result = subprocess.run(arguments, check=True, capture_output=True, text=True)
    seconds, *rest = result.stdout.split("\n")
    return float(seconds), rest


def timed(*arguments, check=True, **options):
    start = time.perf_counter()
    subprocess.run(arguments, check=check, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                   **options)
    return time.perf_counter() - start


def rounds(runs, run_ours, run_reference, after=lambda: None):
    """Our operation and the reference, `runs` times, so both see the same machine load; which
    goes first alternates, so neither always inherits the other's page cache. Each starts with
    the writeback of what came before flushed, so neither pays for the other's writes. `after`
    clears each round's output."""
    def synced(run):
        os.sync()
        return run()

    mine, reference = [], []
    for i in range(runs):
        if i % 2:
            reference.append(synced(run_reference))
        mine.append(synced(run_ours))
        if not i % 2:
            reference.append(synced(run_reference))
        after()
    return mine, reference


def throughput_row(figure, megabytes, mine, reference_name, reference):
    return {"figure": figure, "unit": "MB/s", "ours": [megabytes / s for s in mine],
            "reference_name": reference_name, "reference": [megabytes / s for s in reference],
            "target": THROUGHPUT_TARGET}


# Inputs.

def folder_size(folder):
    return sum(os.path.getsize(os.path.join(where, name))
               for where, _, names in os.walk(folder) for name in names
               if not os.path.islink(os.path.join(where, name)))


def write_random(path, size):
    with open(path, "wb") as f:
        for start in range(0, size, 1 << 24):
            f.write(os.urandom(min(1 << 24, size - start)))


def stdlib_folder():
    return subprocess.run([SYSTEM_PYTHON, "-c", "import sysconfig; "
                           "print(sysconfig.get_paths()['stdlib'])"],
                          check=True, capture_output=True, text=True).stdout.strip()


def runtime_archive(folder):
    """A runtime archive as the application ships one, made about RUNTIME_MB large by the
    interpreter's standard library and an incompressible native part; returns the resource
    folder holding it."""
    resources, stage = os.path.join(folder, "resources"), os.path.join(folder, "runtime-stage")
    os.makedirs(resources)
    arch = "arm64" if platform.machine() in ("arm64", "aarch64") else "x64"
    archive = os.path.join(resources, f"QOR-runtime-{arch}.zip")
    subprocess.run(["/bin/bash", f"{REPO}/runtime/pack-runtime.sh", archive, "0.8.0",
                    f"{REPO}/runtime"], check=True)
    lib = os.path.join(stage, "python", "lib")
    stdlib = stdlib_folder()
    shutil.copytree(stdlib, os.path.join(lib, os.path.basename(stdlib)), symlinks=True,
                    ignore=shutil.ignore_patterns("site-packages", "dist-packages"))

    def add(*names):
        subprocess.run(["/usr/bin/zip", "-q", "-r", "-y", archive, *names], cwd=stage, check=True)

    add("python")
    native = os.path.join(lib, "libqor-native.so")
    write_random(native, max(0, RUNTIME_MB * MB - os.path.getsize(archive)))
    add(os.path.relpath(native, stage))
    shutil.rmtree(stage)
    with open(os.path.join(resources, "QOR_RUNTIME_VERSION"), "w") as f:
        f.write("0.8.0")
    return resources, archive


def data_folder(data):
    """About DATA_MB of a user's data: thousands of small notes, medium attachments (some
    incompressible), a large database and log of text, and a large recording."""
    rng = random.Random(6)
    stdlib = stdlib_folder()
    corpus = b"".join(path.read_bytes() for path in sorted(pathlib.Path(stdlib).glob("*.py")))

    def text(path, size):
        start = rng.randrange(len(corpus))
        with open(path, "wb") as f:
            while size > 0:
                piece = corpus[start:start + size]
                f.write(piece)
                size, start = size - len(piece), 0

    for folder in ("notes", "attachments", "logs", "media"):
        os.makedirs(os.path.join(data, folder))
    for i in range(8000):
        text(os.path.join(data, "notes", f"{i // 100:02d}-{i:05d}.md"), rng.randint(1000, 8000))
    for i in range(80):
        write = write_random if i % 3 == 0 else text
        write(os.path.join(data, "attachments", f"file-{i:03d}.bin"), rng.randint(256_000, 2 * MB))
    text(os.path.join(data, "notes.db"), 25 * MB)
    text(os.path.join(data, "logs", "gateway.log"), 25 * MB)
    write_random(os.path.join(data, "media", "recording.webm"), DATA_MB * MB - folder_size(data))


def free_ports(count):
    sockets = [socket.socket() for _ in range(count)]
    try:
        for s in sockets:
            s.bind(("127.0.0.1", 0))
        return [s.getsockname()[1] for s in sockets]
    finally:
        for s in sockets:
            s.close()


# Figures.

def provisioning(bench, root, runs):
    """5. First start: start() until the gateway is launched, against unzip of the same archive
    into a folder laid out like the runtime folder, so that both do the same file-system work."""
    resources, archive = runtime_archive(os.path.join(root, "provisioning"))
    support, unpacked = os.path.join(root, "support"), os.path.join(root, "unpacked")
    unpacked_runtime = os.path.join(unpacked, "QOR Velmora", "runtime", "x64")

    def run_ours():
        return ours(bench, "provision", support, resources, *map(str, free_ports(2)))[0]

    def run_unzip():
        os.makedirs(unpacked_runtime)
        return timed("/usr/bin/unzip", "-q", archive, "-d", unpacked_runtime)

    def clear():
        shutil.rmtree(support, ignore_errors=True)
        shutil.rmtree(unpacked, ignore_errors=True)

    mine, reference = rounds(runs, run_ours, run_unzip, clear)
    return throughput_row(f"5. first start to gateway launched, {RUNTIME_MB} MB runtime archive",
                          os.path.getsize(archive) / MB, mine, "unzip -q", reference)


def backup(bench, root, runs):
    """6. The data backup before an upgrade, against zip of the same folder."""
    support = os.path.join(root, "backup")
    product = os.path.join(support, "QOR Velmora")
    data_folder(os.path.join(product, "data"))
    size = folder_size(os.path.join(product, "data")) / MB
    reference_zip = os.path.join(root, "reference.zip")

    def clear():
        shutil.rmtree(os.path.join(product, "data-backups"), ignore_errors=True)
        os.remove(reference_zip)

    mine, reference = rounds(
        runs, lambda: ours(bench, "backup", support)[0],
        lambda: timed("/usr/bin/zip", "-q", "-r", "-y", reference_zip, "data", cwd=product), clear)
    return throughput_row(f"6. data backup of a {size:.0f} MB data folder", size, mine,
                          "zip -q -r -y", reference)


def update_download(bench, root, runs):
    """7. The update image's SHA-256 against sha256sum, and its HTTPS download against curl."""
    served, downloads = os.path.join(root, "served"), os.path.join(root, "downloads")
    os.makedirs(served)
    os.makedirs(downloads)
    image = os.path.join(served, "update.tar.gz")
    write_random(image, IMAGE_MIB * 1024**2)
    size = os.path.getsize(image) / MB
    with open(image, "rb") as f:
        expected = hashlib.file_digest(f, "sha256").hexdigest()

    def run_ours_digest():
        seconds, (digest, *_) = ours(bench, "sha256", image)
        if digest != expected:
            raise RuntimeError(f"qor-bench sha256 gave {digest}, not {expected}")
        return seconds

    digest_ours, digest_reference = rounds(runs, run_ours_digest,
                                           lambda: timed("/usr/bin/sha256sum", image))

    server = subprocess.Popen([SYSTEM_PYTHON, f"{REPO}/tests/updater/update_server.py", served],
                              stderr=subprocess.DEVNULL)
    try:
        port_file = pathlib.Path(served, "port")
        port = benchlib.wait_until(lambda: port_file.exists() and port_file.read_text(), 30,
                                   "update server")
        url, ca = f"https://127.0.0.1:{port}/update.tar.gz", f"{served}/ca.pem"

        def run_ours_download():
            seconds, (file, *_) = ours(bench, "download", url, ca, downloads)
            if os.path.getsize(file) != os.path.getsize(image):
                raise RuntimeError(f"{file} is not the whole image")
            return seconds

        def clear():
            for name in os.listdir(downloads):
                os.remove(os.path.join(downloads, name))

        download_ours, download_reference = rounds(
            runs, run_ours_download,
            lambda: timed("/usr/bin/curl", "-sSf", "--cacert", ca, "-o", f"{downloads}/curl.out",
                          url), clear)
    finally:
        server.kill()
        server.wait()
    return [throughput_row(f"7. SHA-256 of a {IMAGE_MIB} MiB update image", size, digest_ours,
                           "sha256sum", digest_reference),
            throughput_row(f"7. HTTPS download of the {IMAGE_MIB} MiB image from a local server",
                           size, download_ours, "curl -o", download_reference)]


def gateway_ports_free():
    return not subprocess.run(["/bin/ss", "-Hltn", "( sport = :8088 or sport = :8089 )"],
                              check=True, capture_output=True, text=True).stdout.strip()


def sweep(bench, runs):
    """8. The reaping sweep with nothing listening on 8088/8089, against one lsof run. The
    window tests use 8088, and the sweep would end their gateway: it waits until they are done."""
    def run_ours():
        benchlib.wait_until(gateway_ports_free, 600, "ports 8088 and 8089 to be free", pause=5)
        return ours(bench, "reap")[0] * 1000

    def run_lsof():  # exits with 1 when nothing listens
        return timed("/usr/bin/lsof", "-nP", "-iTCP:8088", "-sTCP:LISTEN", check=False) * 1000

    mine, reference = rounds(runs, run_ours, run_lsof)
    return {"figure": "8. reaping sweep of 8088/8089, nothing listening", "unit": "ms",
            "ours": mine, "reference_name": "lsof -nP -iTCP:8088 -sTCP:LISTEN",
            "reference": reference, "target": "ours < 10 ms"}


if __name__ == "__main__":
    print(benchlib.table(measure(sys.argv[1] if len(sys.argv) > 1 else "build",
                                 int(sys.argv[2]) if len(sys.argv) > 2 else 5)))
