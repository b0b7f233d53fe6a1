"""The benchmarks' gateway: python -m qor_gateway.main --port P [...], ready at once; see
benchlib.serve_gateway."""

import os, sys

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))
import benchlib  # noqa: E402  (found through the line above)

if __name__ == "__main__":
    port = int(sys.argv[sys.argv.index("--port") + 1])
    benchlib.serve_gateway(port, os.environ["QOR_BENCH_VERSION"], os.environ["QOR_BENCH_LOG"])
