#!/usr/bin/env python3
"""What one call of the Python package costs the caller's thread: median and p99 per call.

    PYTHONPATH=build/python bench/python_call_bench.py build/tools/collector/norv-collector

Events go to a real norv-collector on loopback; every batch is flushed before the next, so
no batch waits behind the last one's backlog.
"""

import os
import statistics
import subprocess
import sys
import tempfile
import time

BATCHES = 20
CALLS_PER_BATCH = 1000


def start_collector(program: str, directory: str) -> "tuple[subprocess.Popen, str]":
    collector = subprocess.Popen(
        [program, "serve", "--host", "127.0.0.1", "--port", "0", "--db",
         os.path.join(directory, "collector.sqlite")],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    # "norv-collector listening on http://127.0.0.1:PORT (open it ...)"
    line = collector.stdout.readline()
    if "http://" not in line:
        collector.kill()
        sys.exit(f"python_call_bench: the collector did not start: {line}")
    return collector, line.split("http://", 1)[1].split()[0].rstrip("/")


def measure(norvanalytic, name, call):
    samples = []
    for _ in range(BATCHES):
        for _ in range(CALLS_PER_BATCH):
            start = time.perf_counter_ns()
            call()
            samples.append(time.perf_counter_ns() - start)
        if not norvanalytic.flush(60):
            sys.exit("python_call_bench: the collector did not answer within 60 s")
    samples.sort()
    median = statistics.median(samples) / 1000.0
    p99 = samples[int(0.99 * (len(samples) - 1))] / 1000.0
    print(f"{name:<40} median {median:6.2f} us   p99 {p99:7.2f} us   ({len(samples)} calls)")


def main() -> None:
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    with tempfile.TemporaryDirectory() as directory:
        os.environ["XDG_DATA_HOME"] = directory
        import norvanalytic

        collector, host = start_collector(sys.argv[1], directory)
        try:
            norvanalytic.set_collection_server_host(host)
            norvanalytic.set_main_bundle("com.example.bench", "1.0", "1")
            norvanalytic.init_with_key("bench-key")
            norvanalytic.set_secure_url(False)
            measure(norvanalytic, "send_event_with_page_name",
                    lambda: norvanalytic.send_event_with_page_name("Settings"))
            measure(norvanalytic, "send_user_login_event",
                    lambda: norvanalytic.send_user_login_event(
                        '{"username":"alice"}', '{"token":"abc"}', "alice", "north"))
            measure(norvanalytic, "dropped_event_count", norvanalytic.dropped_event_count)
            measure(norvanalytic, "get_uuid", norvanalytic.get_uuid)
        finally:
            collector.terminate()
            collector.wait()


if __name__ == "__main__":
    main()
