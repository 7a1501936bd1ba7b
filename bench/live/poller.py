"""Asks weir for its statistics all the time, and pings the watchdog, until SIGTERM.

Prints then how often, and how long the answers took. A process of its own, so
that nothing but weir and the machine delays them.
"""

import argparse
import json
import signal
import socket
import time


def ask(path):
    """The body of the answer; an answer has to be whole."""
    with socket.create_connection(("127.0.0.1", 7744), timeout=60) as connection:
        connection.sendall(f"GET {path} HTTP/1.1\r\n\r\n".encode())
        answer = b""
        while piece := connection.recv(4096):
            answer += piece
    head, _, body = answer.partition(b"\r\n\r\n")
    if not head.startswith(b"HTTP/1.0 200 "):
        raise ValueError(f"{path}: {head[:60]!r}")
    return body


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--interval", type=float, default=0.2, help="seconds")
    parser.add_argument("--ping-interval", type=float, default=10, help="seconds")
    options = parser.parse_args()
    stopped = []
    signal.signal(signal.SIGTERM, lambda *_: stopped.append(True))
    times, failures, pings, next_ping = [], [], 0, 0.0
    while not stopped:
        began = time.monotonic()
        try:
            json.loads(ask("/stats.json"))
            times.append(time.monotonic() - began)
            if began >= next_ping:
                ask("/watchdog")
                pings, next_ping = pings + 1, began + options.ping_interval
        except (OSError, ValueError) as error:
            failures.append(str(error))
        time.sleep(max(0, began + options.interval - time.monotonic()))
    times.sort()
    print(json.dumps({"polls": len(times), "pings": pings, "failures": len(failures),
                      "first_failure": failures[0] if failures else "",
                      "median": times[len(times) // 2], "p99": times[len(times) * 99 // 100],
                      "longest": times[-1]}))


if __name__ == "__main__":
    main()
