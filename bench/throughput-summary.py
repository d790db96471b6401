#!/usr/bin/env python3
"""Reads run-throughput.sh's output on stdin and prints, for each server, the medians over its
rounds: libcurl alone, the SDK's HTTP client alone (no events), and the SDK's bursts through a
host's client and straight to CurlHttpClient, each as a share of libcurl alone, and the bursts
as a share of the client alone: what the transport costs, and what the rest of the SDK adds. One
run on a shared machine varies by tens of percent; the medians of one side-by-side run are the
figure."""
import re
import statistics
import sys
from collections import defaultdict

SUFFIXES = {"": 1, "k": 1e3, "M": 1e6}


def number(text):
    match = re.fullmatch(r"([0-9.]+)([kM]?)", text)
    return float(match.group(1)) * SUFFIXES[match.group(2)]


# The throughput_bench runs timed per burst, by the side of the summary each is.
TIMED_SIDES = {"ClientAlone": "SDK's client alone", "DeliverEvents/direct:0": "SDK, host's client",
               "DeliverEvents/direct:1": "SDK, straight"}


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
        timed = re.match(r"BM_(\w+(?:/direct:\d)?)/\S*/real_time\s", line)
        if timed and server and timed.group(1) in TIMED_SIDES:
            counters = dict(re.findall(r"(\w+)=([0-9.]+[kM]?)", line))
            side = TIMED_SIDES[timed.group(1)]
            runs[server][side].append((number(counters["events_per_s"]),
                                       number(counters["cpu_us_per_event"])))
    compared = {name: sides for name, sides in runs.items() if "libcurl alone" in sides}
    if compared:
        print("== medians: events/s, CPU us per event (SDK / libcurl alone)")
    for name, sides in compared.items():
        medians = {side: (statistics.median(r for r, _ in figures),
                          statistics.median(c for _, c in figures))
                   for side, figures in sides.items()}
        rate, cpu = medians["libcurl alone"]
        print(f"{name}")
        for side in ("libcurl alone", "SDK's client alone", "SDK, host's client", "SDK, straight"):
            if side not in sides:
                continue
            sideRate, sideCpu = medians[side]
            line = f"  {side:20} {sideRate:9.0f}/s {sideCpu:6.1f} us  ({len(sides[side]):2} runs)"
            if side != "libcurl alone":
                line += f"  {sideRate / rate:.2f}x events/s, {sideCpu / cpu:.2f}x CPU"
            if side.startswith("SDK,") and "SDK's client alone" in medians:
                aloneRate, aloneCpu = medians["SDK's client alone"]
                line += f"  (of the client alone: {sideRate / aloneRate:.2f}x, {sideCpu / aloneCpu:.2f}x)"
            print(line)


if __name__ == "__main__":
    main()
