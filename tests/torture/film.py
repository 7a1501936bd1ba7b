"""What is streamed, who serves it, and the player that asks for it."""

import random
import socket
import socketserver
import subprocess
import threading

PORT, ORIGIN = 7744, 8000
BOUND = 40  # s; no wait of the program for one failure is longer than 16


def make_film(key):
    """A clear segment that needs two blocks of the buffer, and an enciphered one that needs
    several reads and a third block. No byte stands in both."""
    source = random.Random(1)
    clear = source.randbytes(530_000).translate(bytes(i & 127 for i in range(256)))
    plain = source.randbytes(420_000).translate(bytes(i | 128 for i in range(256)))
    secret = subprocess.run(["openssl", "enc", "-aes-128-cbc", "-K", key.hex(), "-iv", "0" * 32],
                            input=plain, capture_output=True, check=True).stdout
    return clear, plain, secret


KEY = bytes(range(16))
CLEAR, PLAIN, SECRET = make_film(KEY)
HEAD = (b"HTTP/1.0 200 Streaming...\r\nContent-Type: application/octet-stream\r\n"
        b"Connection: close\r\nAllow: GET, HEAD\r\n"
        b"Cache-Control: no-cache\r\nAccess-Control-Allow-Origin: *\r\n\r\n")
VARIANT = f"""#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:1
#EXTINF:5,\nhttp://@/film/one/clear.ts
#EXT-X-KEY:METHOD=AES-128,URI="http://localhost:{ORIGIN}/key"
#EXTINF:5,\nhttp://@/film/one/secret.ts\n#EXT-X-ENDLIST\n""".encode()
FILES = {b"/film/one/clear.ts": CLEAR, b"/film/one/secret.ts": SECRET, b"/key": KEY,
         b"/film/a.m3u8": VARIANT, b"/film/b.m3u8": VARIANT, b"/film/master.m3u8":
         b"#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=800000\n"
         b"http://~/film/a.m3u8\nhttp://~/film/b.m3u8\n"}
WHOLE = HEAD + CLEAR + PLAIN
RING = f"127.0.0.1:{ORIGIN},127.0.0.2:{ORIGIN}"


class Origin(socketserver.StreamRequestHandler):
    def handle(self):
        try:
            while line := self.rfile.readline():
                self.answer(line.split()[1])
        except OSError:
            pass  # weir has dropped the connection

    def answer(self, path):
        start = 0
        while field := self.rfile.readline().strip():
            if field.startswith(b"Range: bytes="):
                start = int(field[13:-1])
        body, end = FILES[path][start:], len(FILES[path])
        status = f"206 Part\r\nContent-Range: bytes {start}-{end - 1}/{end}" if start else "200 OK"
        head = f"HTTP/1.1 {status}\r\nContent-Length: {len(body)}\r\n\r\n"
        self.wfile.write(head.encode() + body)


def serve():
    """The origin, in a thread of its own, at every address."""
    socketserver.ThreadingTCPServer.daemon_threads = True
    origin = socketserver.ThreadingTCPServer(("0.0.0.0", ORIGIN), Origin)
    threading.Thread(target=origin.serve_forever, daemon=True).start()


def ask(path):
    """The whole answer, or what of it came before the connection broke."""
    answer = bytearray()
    try:
        with socket.create_connection(("127.0.0.1", PORT), BOUND) as player:
            player.sendall(f"GET {path} HTTP/1.1\r\nHost: weir\r\n\r\n".encode())
            while piece := player.recv(1 << 16):
                answer += piece
    except (ConnectionError, BrokenPipeError):
        pass
    return bytes(answer)


def session():
    """Sets the caches, streams the film and asks for the statistics; returns the film."""
    ask(f"/update-cache-map?chunk={RING}&playlist={RING}")
    film = ask("/stream?url=http%3A%2F%2F~%2Ffilm%2Fmaster.m3u8")
    ask("/stats.json")
    return film
