#!/usr/bin/env python3
"""Reads run-throughput.sh's output on stdin and prints, for each server, the medians over its
rounds: libcurl alone, and the SDK's bursts through a host's client and straight to
CurlHttpClient, with the SDK's events/s and CPU per event as a share of libcurl's. One run on a
shared machine varies by tens of percent; the medians of one side-by-side run are the figure."""
import re
import statistics
import sys
from collections import defaultdict

SUFFIXES = {"": 1, "k": 1e3, "M": 1e6}


def number(text):
    match = re.fullmatch(r"([0-9.]+)([kM]?)", text)
    return float(match.group(1)) * SUFFIXES[match.group(2)]


def main():
    # server -> side -> list of (events/s, CPU us per event)
    runs = defaultdict(lambda: defaultdict(list))
    server = None
    for line in sys.stdin:
        header = re.match(r"== round \d+: (.*)", line)
        if header:
            server = header.group(1).strip()
            continue
        bare = re.match(r"bare libcurl: ([0-9.]+) requests/s, ([0-9.]+) us CPU", line)
        if bare and server:
            runs[server]["libcurl alone"].append((float(bare.group(1)), float(bare.group(2))))
            continue
        burst = re.match(r"BM_DeliverEvents/direct:(\d)/\S*/real_time\s", line)
        if burst and server:
            counters = dict(re.findall(r"(\w+)=([0-9.]+[kM]?)", line))
            side = "SDK, straight" if burst.group(1) == "1" else "SDK, host's client"
            runs[server][side].append((number(counters["events_per_s"]),
                                       number(counters["cpu_us_per_event"])))
    compared = {name: sides for name, sides in runs.items() if "libcurl alone" in sides}
    if compared:
        print("== medians: events/s, CPU us per event (SDK / libcurl alone)")
    for name, sides in compared.items():
        rate = statistics.median(r for r, _ in sides["libcurl alone"])
        cpu = statistics.median(c for _, c in sides["libcurl alone"])
        print(f"{name}")
        print(f"  {'libcurl alone':20} {rate:9.0f}/s {cpu:6.1f} us  ({len(sides['libcurl alone'])} runs)")
        for side in ("SDK, host's client", "SDK, straight"):
            if side in sides:
                sdkRate = statistics.median(r for r, _ in sides[side])
                sdkCpu = statistics.median(c for _, c in sides[side])
                print(f"  {side:20} {sdkRate:9.0f}/s {sdkCpu:6.1f} us  ({len(sides[side])} bursts)"
                      f"  {sdkRate / rate:.2f}x events/s, {sdkCpu / cpu:.2f}x CPU")


if __name__ == "__main__":
    main()
