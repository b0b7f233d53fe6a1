"""Runs every benchmark on this machine in one go and prints one markdown table:
    python3 bench/run_bench.py BUILD_DIR [--runs N]
The bundle is staged from BUILD_DIR; the window figures run on a virtual display of their own."""

import argparse, os, tempfile, time

import benchlib
import core_bench
import window_bench


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build_dir")
    parser.add_argument("--runs", type=int, default=5, help="runs per figure (at least 5)")
    args = parser.parse_args()
    if args.runs < 5:
        parser.error("--runs must be at least 5")
    build_dir = os.path.abspath(args.build_dir)

    benchlib.adopt_orphans()
    started = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="qor-bench-bundle-") as folder:
        bundle = benchlib.stage_bundle(build_dir, folder)
        with benchlib.virtual_display():
            rows = window_bench.measure(bundle, args.runs)
    rows += core_bench.measure(build_dir, args.runs)
    print(f"\n{args.runs} runs per figure on {os.uname().nodename}, "
          f"{time.monotonic() - started:.0f} s in all; ratio = median ours / median reference.\n")
    print(benchlib.table(rows))


if __name__ == "__main__":
    main()
