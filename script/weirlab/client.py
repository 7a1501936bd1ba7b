"""Asks weir, or another server on the loopback interface, for something over HTTP."""

import socket
import time
import urllib.parse

WEIR = 7744  # weir's port is fixed


def stream_path(master: str, start_from: int | None = None) -> str:
    """The path of the stream of a master playlist."""
    start = "" if start_from is None else f"&startFrom={start_from}"
    return f"/stream.ts?url={urllib.parse.quote(master, safe='')}{start}"


def maps_path(servers: str) -> str:
    """The path that makes these the caches of media and playlists alike."""
    return f"/update-cache-map?chunk={servers}&playlist={servers}"


def answers(port: int) -> bool:
    """Whether something listens there."""
    try:
        socket.create_connection(("127.0.0.1", port), timeout=1).close()
        return True
    except OSError:
        return False


def request(path: str) -> bytes:
    return f"GET {path} HTTP/1.1\r\n\r\n".encode()


def connect(path: str, port: int = WEIR, timeout: float | None = None,
            host: str = "127.0.0.1") -> socket.socket:
    """A connection on which the request is sent."""
    connection = socket.create_connection((host, port), timeout)
    connection.sendall(request(path))
    return connection


def connect_soon(path: str, port: int) -> socket.socket:
    """The same to one that just starts and takes a single connection, so that none must be tried."""
    for _ in range(1000):
        try:
            return connect(path, port)
        except ConnectionRefusedError:
            time.sleep(0.002)
    raise SystemExit(f"nothing listens on port {port}")


def ask(path: str, port: int = WEIR, timeout: float = 60) -> bytes:
    """The whole answer with its head, or what of it came before the connection broke."""
    answer = bytearray()
    try:
        with connect(path, port, timeout) as connection:
            while piece := connection.recv(1 << 16):
                answer += piece
    except ConnectionError:
        pass
    return bytes(answer)


def get(path: str) -> bytes:
    """The body of weir's answer; ValueError unless that is a 200."""
    head, _, body = ask(path).partition(b"\r\n\r\n")
    if not head.startswith(b"HTTP/1.0 200 "):
        raise ValueError(f"{path}: {head[:60]!r}")
    return body
