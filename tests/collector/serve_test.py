#!/usr/bin/python3
"""norv-collector serve as a process, against clients that are slow or send too much.

usage: serve_test.py NORV_COLLECTOR
"""
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.request

COLLECTOR = sys.argv[1]


def kilobytes(pid, field):
    with open(f"/proc/{pid}/status") as status:
        return int(next(line for line in status if line.startswith(field)).split()[1])


class ServeTest(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.TemporaryDirectory()
        self.collector = subprocess.Popen(
            [COLLECTOR, "serve", "--port", "0", "--db", os.path.join(self.work.name, "c.sqlite")],
            stdout=subprocess.PIPE, text=True)
        self.port = int(re.search(r":(\d+)", self.collector.stdout.readline()).group(1))

    def tearDown(self):
        if self.collector.poll() is None:
            self.collector.kill()
        self.collector.wait()
        self.collector.stdout.close()
        self.work.cleanup()

    def connect(self, start):
        connection = socket.create_connection(("127.0.0.1", self.port))
        connection.sendall(start)
        return connection

    def status_of(self, request):
        """The status line's code of the answer to a request sent whole, read to its end."""
        with socket.create_connection(("127.0.0.1", self.port)) as connection:
            writer = threading.Thread(target=lambda: (connection.sendall(request),
                                                      connection.shutdown(socket.SHUT_WR)))
            writer.start()
            answer = b""
            while chunk := connection.recv(65536):
                answer += chunk
            writer.join()
        return answer.split(b" ")[1].decode() if answer else "no answer"

    def test_a_4_mib_body_is_answered_413_in_any_framing_and_memory_stays_small(self):
        # Its peak so far: a sanitizer's build starts far larger than the 12 MB of a release one.
        started_with = kilobytes(self.collector.pid, "VmHWM:")
        # One pair: a collector that read it whole would store it rather than count its pairs.
        body = b"x=" + b"x" * (4 * 1024 * 1024 - 2)
        head = b"POST /api/v3/saveEvent HTTP/1.1\r\nHost: 127.0.0.1\r\n"
        chunked = b"".join(b"%x\r\n%s\r\n" % (len(body[i:i + 65536]), body[i:i + 65536])
                           for i in range(0, len(body), 65536)) + b"0\r\n\r\n"
        framings = {
            "with a length": head + b"Content-Length: %d\r\n\r\n" % len(body) + body,
            "in chunks": head + b"Transfer-Encoding: chunked\r\n\r\n" + chunked,
            "until the client stops": head + b"\r\n" + body,
        }
        for _ in range(3):
            for framing, request in framings.items():
                self.assertEqual(self.status_of(request), "413", framing)
        self.assertLess(kilobytes(self.collector.pid, "VmHWM:") - started_with, 20 * 1024)

    def test_sigterm_ends_it_within_a_second_while_slow_clients_and_pages_hold_connections(self):
        page = urllib.request.urlopen(f"http://127.0.0.1:{self.port}/api/stream")
        self.assertTrue(page.readline().startswith(b"event: state"))
        head = b"POST /api/v3/saveEvent HTTP/1.1\r\nHost: 127.0.0.1\r\n"
        clients = [self.connect(b"POST /api/v3/saveEvent HTTP/1.1\r\nHo") for _ in range(100)]
        clients += [self.connect(head + b"Transfer-Encoding: chunked\r\n\r\n1\r\n&") for _ in range(100)]
        time.sleep(0.5)
        for client in clients:
            client.send(b"\r")
        sent = time.monotonic()
        self.collector.send_signal(signal.SIGTERM)
        self.assertEqual(self.collector.wait(timeout=10), 0)
        self.assertLess(time.monotonic() - sent, 1.0)
        page.close()
        for client in clients:
            client.close()


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
