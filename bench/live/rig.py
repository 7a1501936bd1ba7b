"""Starts and ends the processes around a run: nginx, the channels, the poller, weir."""

import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from live import procfs

WEIR, ORIGIN = 7744, 9000
TOP = Path(__file__).resolve().parents[2]

NGINX = """daemon off; worker_processes 1; worker_rlimit_nofile 16384;
pid nginx.pid; error_log error.log crit; events {{ worker_connections 8192; }}
http {{ access_log off; sendfile on; tcp_nodelay on; keepalive_requests 10000000;
keepalive_timeout 300s; client_body_temp_path t/b; proxy_temp_path t/p;
fastcgi_temp_path t/f; uwsgi_temp_path t/u; scgi_temp_path t/s; {http}
server {{ listen 127.0.0.1:{port} backlog=4096; {server} }} }}
"""
CACHE_ZONE = "proxy_cache_path cache keys_zone=z:1m max_size=64m inactive=1m use_temp_path=off;"
CACHE = """location / {{ proxy_pass http://127.0.0.1:{upstream}; proxy_cache z;
proxy_cache_valid 200 1m; }}
location ~ [.]m3u8$ {{ proxy_pass http://127.0.0.1:{upstream}; }}"""


def answers(port):
    try:
        socket.create_connection(("127.0.0.1", port), timeout=1).close()
        return True
    except OSError:
        return False


def wait_until(what, condition, seconds=20):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise SystemExit(f"gave up waiting for {what}")
        time.sleep(0.05)


class Rig:
    """A folder in memory and processes that end with it."""

    def __init__(self, binary):
        self.binary = binary
        self.work = Path(tempfile.mkdtemp(dir="/dev/shm", prefix="weir-"))
        self.work.chmod(0o755)
        self.root = self.work / "www"
        self.root.mkdir()
        self.running = []

    def __enter__(self):
        signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # through __exit__
        return self

    def __exit__(self, *_):
        for process in reversed(self.running):
            self.end(process)
        shutil.rmtree(self.work, ignore_errors=True)

    def start(self, command, nice=0, **streams):
        process = subprocess.Popen([str(x) for x in command],
                                   preexec_fn=lambda: os.nice(nice), **streams)
        self.running.append(process)
        return process

    def end(self, process, how=signal.SIGTERM):
        """Ends it, and returns its resource usage where this is the call that ends it."""
        process.send_signal(how)
        if process.returncode is not None:  # it had ended by itself
            return None
        for _ in range(100):
            pid, status, usage = os.wait4(process.pid, os.WNOHANG)
            if pid:
                process.returncode = os.waitstatus_to_exitcode(status)
                return usage
            time.sleep(0.1)
        process.kill()
        process.wait()
        return None

    def kill_nginx(self, process):
        """With SIGKILL: the master first, which would replace its workers."""
        workers = procfs.children(process.pid)
        self.end(process, signal.SIGKILL)
        for worker in workers:
            os.kill(worker, signal.SIGKILL)
        self.running.remove(process)

    def python(self, module, *arguments, **streams):
        return self.start([sys.executable, "-m", module, *arguments], **streams)

    def nginx(self, name, port, server, http="", nice=0):
        folder = self.work / name
        (folder / "t").mkdir(parents=True, exist_ok=True)
        (folder / "nginx.conf").write_text(NGINX.format(port=port, server=server, http=http))
        process = self.start(["nginx", "-p", folder, "-e", folder / "error.log",
                              "-c", folder / "nginx.conf"], nice=nice)
        wait_until(f"{name} to answer", lambda: process.poll() is not None or answers(port))
        if process.poll() is not None:
            raise SystemExit(f"{name} did not start")
        return process

    def origin(self, nice=0):
        return self.nginx("origin", ORIGIN, f"root {self.root};", nice=nice)

    def cache(self, name, port, upstream):
        return self.nginx(name, port, CACHE.format(upstream=upstream), CACHE_ZONE)

    def channels(self, rates, seconds, *options):
        process = self.python("live.channel", self.root, "--rates", ",".join(map(str, rates)),
                              "--seconds", seconds, *options)
        wait_until("the channels", lambda: len(list(self.root.glob("c0/0/*.ts"))) >= 8)
        return process

    def weir(self, buffer):
        """Never able to restart the machine; its progress is thrown away."""
        with open(self.work / "weir.err", "ab") as errors:
            process = self.start([TOP / "script/without-reboot", self.binary, str(buffer)],
                                 stdout=subprocess.DEVNULL, stderr=errors)
        wait_until("weir to answer", lambda: process.poll() is not None or answers(WEIR))
        if process.poll() is not None or procfs.can_reboot(process.pid):
            raise SystemExit("weir did not start, or could restart this machine")
        return process
