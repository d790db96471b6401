#!/usr/bin/env python3
"""Badly behaved HTTP servers for bench/HostileServers.cpp, one per run.

usage: hostile-servers.py MODE
Listens on 127.0.0.1, a free port, prints the port on a line of its own and serves until
killed. Every mode but `good` misbehaves in one way; `good` and the well-formed parts of the
others answer each POST with its own body, so the client can tell whose answer it got.
"""

import functools
import socket
import sys
import threading
import time

MODES = {}


def mode(function):
    MODES[function.__name__] = function
    return function


def read_request(connection, buffered):
    """One request (head, body) from the connection, and the bytes read past it; None at EOF."""
    while b"\r\n\r\n" not in buffered:
        chunk = connection.recv(65536)
        if not chunk:
            return None
        buffered += chunk
    head, _, rest = buffered.partition(b"\r\n\r\n")
    length = 0
    for line in head.split(b"\r\n")[1:]:
        name, _, value = line.partition(b":")
        if name.strip().lower() == b"content-length":
            length = int(value.strip())
    while len(rest) < length:
        chunk = connection.recv(65536)
        if not chunk:
            return None
        rest += chunk
    return head, rest[:length], rest[length:]


def answer(status, body, extra=b""):
    return (b"HTTP/1.1 %d X\r\nContent-Length: %d\r\n%s\r\n" % (status, len(body), extra)) + body


def each_request(connection):
    """Yields each request's body, answering none of them."""
    buffered = b""
    while True:
        request = read_request(connection, buffered)
        if request is None:
            return
        _, body, buffered = request
        yield body


@mode
def good(connection):
    for body in each_request(connection):
        connection.sendall(answer(200, body))


@functools.cache
def huge_answer():
    return answer(200, b"x" * (50 << 20))


@mode
def huge(connection):
    for _ in each_request(connection):
        connection.sendall(huge_answer())


@mode
def chunked(connection):
    """50 MB again, in chunks: no length up front to refuse it by."""
    piece = b"%x\r\n%s\r\n" % (1 << 20, b"x" * (1 << 20))
    for _ in each_request(connection):
        connection.sendall(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
        for _ in range(50):
            connection.sendall(piece)
        connection.sendall(b"0\r\n\r\n")


@mode
def redirectbig(connection):
    """A redirect, which the client follows through libcurl, to a 50 MB answer."""
    buffered = b""
    while (request := read_request(connection, buffered)) is not None:
        head, _, buffered = request
        if head.split(b" ")[1] == b"/big":
            connection.sendall(huge_answer())
        else:
            connection.sendall(answer(302, b"", b"Location: /big\r\n"))


@mode
def silent(connection):
    for _ in each_request(connection):
        pass


@mode
def reset(connection):
    next(each_request(connection), None)
    # Linger with a zero time-out: close() sends a reset, not a FIN.
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")


@mode
def garbage(connection):
    for _ in each_request(connection):
        connection.sendall(bytes((index * 131 + 7) % 256 for index in range(4096)))


@mode
def deepjson(connection):
    body = b"[" * 100000 + b"]" * 100000
    for _ in each_request(connection):
        connection.sendall(answer(200, body, b"Content-Type: application/json\r\n"))


@mode
def nul(connection):
    for body in each_request(connection):
        connection.sendall(answer(200, b"\0" + body + b"\0" * 64, b"X-Nul: a\0b\r\n"))


@mode
def redirect(connection):
    for _ in each_request(connection):
        connection.sendall(answer(302, b"", b"Location: /again\r\n"))


@mode
def slowloris(connection):
    for body in each_request(connection):
        for byte in answer(200, body):
            connection.sendall(bytes([byte]))
            time.sleep(1)


@mode
def http10(connection):
    body = next(each_request(connection), None)
    if body is not None:
        connection.sendall(b"HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n" + body)


@mode
def headers(connection):
    next(each_request(connection), None)
    connection.sendall(b"HTTP/1.1 200 OK\r\n")
    while True:
        connection.sendall(b"X-Again: and again and again\r\n" * 256)


@mode
def fourgig(connection):
    next(each_request(connection), None)
    connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 4294967296\r\n\r\n")
    filler = b"y" * 65536
    while True:
        connection.sendall(filler)


@mode
def pipedrop(connection):
    """Keeps the connection open, but of requests that arrive in one read answers the first only."""
    buffered = b""
    while True:
        request = read_request(connection, buffered)
        if request is None:
            return
        _, body, buffered = request
        buffered = b""
        connection.sendall(answer(200, body))


def serve(handler, connection):
    try:
        with connection:
            handler(connection)
    except OSError:
        pass


def main():
    if len(sys.argv) != 2 or sys.argv[1] not in MODES:
        sys.exit("usage: hostile-servers.py " + "|".join(MODES))
    handler = MODES[sys.argv[1]]
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(128)
    print(listener.getsockname()[1], flush=True)
    while True:
        connection, _ = listener.accept()
        threading.Thread(target=serve, args=(handler, connection), daemon=True).start()


if __name__ == "__main__":
    main()
