"""HTTP requests to weir or to another server, usually on the loopback interface."""

import socket
import urllib.parse
from collections.abc import Iterator

WEIR = 7744  # weir's port is fixed


def stream_path(master: str, start_from: int | None = None) -> str:
    """The path of the stream of a master playlist."""
    start = "" if start_from is None else f"&startFrom={start_from}"
    return f"/stream.ts?url={urllib.parse.quote(master, safe='')}{start}"


def maps_path(servers: str) -> str:
    """The path that makes weir use these caches for media and playlists."""
    return f"/update-cache-map?chunk={servers}&playlist={servers}"


def answers(port: int) -> bool:
    """Whether a server listens there."""
    try:
        socket.create_connection(("127.0.0.1", port), timeout=1).close()
        return True
    except OSError:
        return False


def request(path: str) -> bytes:
    return f"GET {path} HTTP/1.1\r\n\r\n".encode()


def connect(path: str, port: int = WEIR, timeout: float | None = None,
            host: str = "127.0.0.1") -> socket.socket:
    """A connection on which the request has been sent."""
    connection = socket.create_connection((host, port), timeout)
    connection.sendall(request(path))
    return connection


def ask(path: str, port: int = WEIR, timeout: float = 60) -> bytes:
    """The whole response with its head, or the part before the connection broke."""
    answer = bytearray()
    try:
        with connect(path, port, timeout) as connection:
            while piece := connection.recv(1 << 16):
                answer += piece
    except ConnectionError:
        pass
    return bytes(answer)


def receive(path: str, timeout: float) -> Iterator[bytes]:
    """The body of weir's response, as far as it has come, again and again until the end."""
    answer = bytearray()
    with connect(path, timeout=timeout) as connection:
        while piece := connection.recv(1 << 20):
            answer += piece
            yield answer.partition(b"\r\n\r\n")[2]


def get(path: str) -> bytes:
    """The body of weir's response; ValueError unless it is a 200."""
    head, _, body = ask(path).partition(b"\r\n\r\n")
    if not head.startswith(b"HTTP/1.0 200 "):
        raise ValueError(f"{path}: {head[:60]!r}")
    return body
