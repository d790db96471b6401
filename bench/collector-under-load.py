#!/usr/bin/env python3
"""norv-collector serve against slow and oversized clients: what the SDK and the operator see.

usage: collector-under-load.py NORV_COLLECTOR [ROUNDS]
Each round starts a collector of its own, then prints, medians over the rounds last:
  event_ms  how long an SDK event waits for its answer while 200 slow clients (100 sending a
            request head, 100 a chunked body, a byte every 2 s) hold connections;
  stop_ms   how long SIGTERM takes to end the collector with those clients still connected;
  peak_mb   the collector's peak resident memory after 4 MiB bodies of "&" in three framings
            (with a length, in chunks, until the client stops), each sent three times.
"""

import os
import re
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

HEAD = b"POST /api/v3/saveEvent HTTP/1.1\r\nHost: 127.0.0.1\r\n"


def send_whole(port, request):
    with socket.create_connection(("127.0.0.1", port)) as connection:
        writer = threading.Thread(target=lambda: (connection.sendall(request),
                                                  connection.shutdown(socket.SHUT_WR)))
        writer.start()
        while connection.recv(65536):
            pass
        writer.join()


def one_round(collector, work):
    server = subprocess.Popen([collector, "serve", "--port", "0", "--db",
                               os.path.join(work, "c.sqlite")], stdout=subprocess.PIPE, text=True)
    port = int(re.search(r":(\d+)", server.stdout.readline()).group(1))
    body = b"&" * (4 * 1024 * 1024)
    chunked = b"".join(b"%x\r\n%s\r\n" % (65536, body[i:i + 65536])
                       for i in range(0, len(body), 65536)) + b"0\r\n\r\n"
    for _ in range(3):
        for request in (HEAD + b"Content-Length: %d\r\n\r\n" % len(body) + body,
                        HEAD + b"Transfer-Encoding: chunked\r\n\r\n" + chunked, HEAD + b"\r\n" + body):
            send_whole(port, request)
    with open(f"/proc/{server.pid}/status") as status:
        peak_kb = int(next(line for line in status if line.startswith("VmHWM:")).split()[1])

    slow = [socket.create_connection(("127.0.0.1", port)) for _ in range(200)]
    for index, client in enumerate(slow):
        client.sendall(b"POST /api/v3/saveEvent HTTP/1.1\r\nHo" if index < 100
                       else HEAD + b"Transfer-Encoding: chunked\r\n\r\n")
    time.sleep(0.5)
    for client in slow:
        client.sendall(b"\r" if client in slow[:100] else b"1")
    sdk = socket.create_connection(("127.0.0.1", port))
    event = b"type=7&pageName=Orders"
    started = time.monotonic()
    sdk.sendall(HEAD + b"Content-Length: %d\r\n\r\n" % len(event) + event)
    sdk.settimeout(60)
    answer = sdk.recv(65536)
    event_ms = (time.monotonic() - started) * 1000 if answer.startswith(b"HTTP/1.1 200") else float("inf")

    started = time.monotonic()
    server.send_signal(signal.SIGTERM)
    server.wait()
    stop_ms = (time.monotonic() - started) * 1000
    for client in slow + [sdk]:
        client.close()
    server.stdout.close()
    return event_ms, stop_ms, peak_kb / 1024


def main():
    collector = sys.argv[1]
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 5
    results = []
    for _ in range(rounds):
        with tempfile.TemporaryDirectory() as work:
            results.append(one_round(collector, work))
        print("event_ms %.1f  stop_ms %.1f  peak_mb %.1f" % results[-1], flush=True)
    print("median: event_ms %.1f  stop_ms %.1f  peak_mb %.1f" %
          tuple(statistics.median(column) for column in zip(*results)))


if __name__ == "__main__":
    main()
