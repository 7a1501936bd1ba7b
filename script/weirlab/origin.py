"""An origin within this process, for what nginx can't do."""

import socketserver
import threading
import time
from collections.abc import Callable


class Origin(socketserver.ThreadingTCPServer):
    """Answers GET requests, ranges included, with what `read` has for a path.

    It listens at every address, waits `delay` seconds before each answer, and runs in
    daemon threads of its own.
    """
    daemon_threads = allow_reuse_address = True
    request_queue_size = 128

    def __init__(self, port: int, read: Callable[[str], bytes]) -> None:
        super().__init__(("0.0.0.0", port), Handler)
        self.read, self.delay = read, 0.0
        threading.Thread(target=self.serve_forever, daemon=True).start()


class Handler(socketserver.StreamRequestHandler):
    disable_nagle_algorithm = True
    server: Origin

    def handle(self) -> None:
        try:
            while line := self.rfile.readline():
                self.answer(line.split()[1].decode())
        except OSError:
            pass  # weir has dropped the connection

    def answer(self, path: str) -> None:
        start = 0
        while field := self.rfile.readline().strip():
            if field.startswith(b"Range: bytes="):
                start = int(field[13:-1])
        whole = self.server.read(path)
        size = len(whole)
        status = f"206 Part\r\nContent-Range: bytes {start}-{size - 1}/{size}" if start else "200 OK"
        time.sleep(self.server.delay)
        self.wfile.write(f"HTTP/1.1 {status}\r\nContent-Length: {size - start}\r\n\r\n".encode()
                         + whole[start:])
