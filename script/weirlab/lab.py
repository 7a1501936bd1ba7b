"""Starts weir, nginx and other programs, and cleans up after them."""

import multiprocessing
import os
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import Any

from weirlab import procfs
from weirlab.client import WEIR, answers
from weirlab.origin import make_certificate

TOP = Path(__file__).resolve().parents[2]
Process = subprocess.Popen[bytes]

# These end a run. Hang-ups do unless they are ignored, as under nohup.
SIGNALS = [signal.SIGINT, signal.SIGTERM,
           *([signal.SIGHUP] if signal.getsignal(signal.SIGHUP) != signal.SIG_IGN else [])]
# nginx needs no privileges here: as root, run it as nobody.
AS_NOBODY: dict[str, Any] = (
    {"user": "nobody", "group": "nogroup", "extra_groups": []} if os.geteuid() == 0 else {})
NGINX = """{top} daemon off; worker_processes 1; pid nginx.pid; error_log error.log crit;
events {{ worker_connections 8192; }}
http {{
access_log off; sendfile on; tcp_nodelay on; keepalive_requests 10000000; keepalive_timeout 300s;
client_body_temp_path t/b; proxy_temp_path t/p; fastcgi_temp_path t/f; uwsgi_temp_path t/u;
scgi_temp_path t/s; proxy_cache_path t/c keys_zone=z:1m max_size=64m inactive=1m use_temp_path=off;
server {{ listen 127.0.0.1:{port} backlog=4096; {server} }}
{http}
}}
"""
# Small pieces make nginx keep a rate evenly. Live playlists must not be cached.
CACHE = """limit_rate {rate}; sendfile_max_chunk 16k;
location / {{ proxy_pass http://127.0.0.1:{upstream}; proxy_cache z; proxy_cache_valid 200 1m; }}
location ~ [.]m3u8$ {{ proxy_pass http://127.0.0.1:{upstream}; }}"""

ADAPTER = """{settings}
proxy_ssl_trusted_certificate {pem};
proxy_cache_path {folder}/t/cache keys_zone=weir:1m max_size=64m use_temp_path=off;"""


def wait_until(what: str, condition: Callable[[], object], seconds: float = 20) -> None:
    """Counts turns of 10 ms, not time: on a machine that stalls, both sides wait longer."""
    for _ in range(int(seconds * 100)):
        if condition():
            return
        time.sleep(0.01)
    raise SystemExit(f"gave up waiting for {what}")


def is_idle(weir: Process) -> bool:
    """Whether no stream is left: one thread, and no descriptor besides the standard streams and the
    listening socket."""
    return procfs.threads(weir.pid) == 1 and procfs.descriptors(weir.pid) == 4


def in_background(function: Callable[..., object], *arguments: object) -> None:
    """Runs it in a process that ends with this one and ignores Ctrl-C."""
    def run() -> None:
        os.setpgid(0, 0)
        function(*arguments)

    multiprocessing.Process(target=run, daemon=True).start()


class Lab:
    """A temporary directory and its child processes; both are cleaned up on exit, including on Ctrl-C.

    Create it in the main thread. `www` is the origin's web root, `log` weir's log.
    """

    def __init__(self, parent: str | None = None) -> None:
        for number in SIGNALS:
            signal.signal(number, self._interrupted)
        most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
        self.running: list[Process] = []
        self.work = Path(tempfile.mkdtemp(prefix="weir-", dir=parent))
        self.work.chmod(0o755)
        self.www, self.log = self.work / "www", self.work / "weir.log"
        self.www.mkdir()
        self.log.touch()

    @staticmethod
    def _ignore_signals() -> None:
        for number in SIGNALS:
            signal.signal(number, signal.SIG_IGN)

    @staticmethod
    def _interrupted(number: int, _: object) -> None:
        Lab._ignore_signals()
        sys.exit(128 + number)  # through __exit__

    def __enter__(self) -> "Lab":
        return self

    def __exit__(self, *_: object) -> None:
        self._ignore_signals()
        for process in self.running[::-1]:
            self.end(process)
        for child in procfs.children(os.getpid()):  # e.g. one that was just being started
            os.kill(child, signal.SIGKILL)
        shutil.rmtree(self.work, ignore_errors=True)

    def start(self, command: Sequence[object], **options: Any) -> Process:
        """`options` are Popen's."""
        options.setdefault("stdin", subprocess.DEVNULL)
        if "env" in options and "WEIR_CHECK" in os.environ:  # by which script/check finds what is left
            options["env"] = {"WEIR_CHECK": os.environ["WEIR_CHECK"], **options["env"]}
        # In a session of its own it gets no Ctrl-C, and weir's low priority cannot starve it: if the
        # kernel groups tasks by session, priorities only count within one.
        process = subprocess.Popen([str(word) for word in command], start_new_session=True, **options)
        self.running.append(process)
        return process

    def end(self, process: Process, how: int = signal.SIGTERM) -> None:
        process.send_signal(how)
        try:
            process.wait(10)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
        if process in self.running:
            self.running.remove(process)

    def kill_with_children(self, process: Process) -> None:
        """Kills an nginx: the master first, which would replace its workers."""
        workers = procfs.children(process.pid)
        self.end(process, signal.SIGKILL)
        for worker in workers:
            os.kill(worker, signal.SIGKILL)

    def configure(self, name: str, port: int, server: str, top: str = "", http: str = "") -> Path:
        """Writes the configuration of an nginx; returns its folder. `top` and `http` are added at the
        top level and within http."""
        folder = self.work / name
        (folder / "t").mkdir(parents=True, exist_ok=True)
        # Root in a user namespace has no other uid to switch to.
        if os.geteuid() == 0 and not AS_NOBODY:
            top = "user root root; " + top
        text = NGINX.format(port=port, server=server, top=top, http=http)
        (folder / "nginx.conf").write_text(text, encoding="ascii")
        if AS_NOBODY:
            for path in (folder, folder / "t"):
                shutil.chown(path, AS_NOBODY["user"])
        return folder

    def nginx(self, name: str, port: int, server: str, **more: str) -> Process:
        folder = self.configure(name, port, server, **more)
        process = self.start(["nginx", "-p", folder, "-e", folder / "error.log",
                              "-c", folder / "nginx.conf"], **AS_NOBODY)
        wait_until(f"{name} to answer", lambda: process.poll() is not None or answers(port))
        if process.poll() is not None:
            raise SystemExit(f"{name} did not start")
        return process

    def origin(self, port: int) -> Process:
        return self.nginx("origin", port, f"root {self.www};")

    def cache(self, name: str, port: int, upstream: int, rate: str = "0") -> Process:
        """`rate` is in bytes a second for each answer, 0 for no limit."""
        return self.nginx(name, port, CACHE.format(upstream=upstream, rate=rate))

    def adapter(self, settings: str, held: int = 32) -> Path:
        """An nginx with kit/adapter and kit/remux; returns the certificate that origin.test needs. `held`:
        MiB of a segment that it can hold whole."""
        folder = self.work / "adapter"
        shutil.copytree(TOP / "kit/adapter", folder / "weir")
        shutil.copy(TOP / "kit/remux/remux.conf", folder / "weir")
        conf, pem = folder / "weir/adapter.conf", make_certificate(folder / "weir/pem", "DNS:origin.test")
        conf.write_text(conf.read_text().replace("output_buffer_size 32m", f"output_buffer_size {held}m"))
        (folder / "weir/settings.conf").write_text(ADAPTER.format(settings=settings, pem=pem, folder=folder))
        self.nginx("adapter", 7760, "return 404;",
                   top="load_module /usr/lib/nginx/modules/ngx_http_js_module.so;",
                   http="error_log error.log; include weir/adapter.conf; include weir/remux.conf;")
        return pem

    def weir(self, binary: Path, buffer: int, progress: bool = False, threads: int = 1) -> Process:
        """Cannot restart the machine. `progress`: log the standard output, too. `threads`: of an idle
        process, to which a sanitizer may add one."""
        with open(self.log, "ab") as log:
            process = self.start([TOP / "script/without-reboot", binary, buffer], stderr=log,
                                 stdout=log if progress else subprocess.DEVNULL)
        wait_until("weir to answer", lambda: process.poll() is not None or answers(WEIR))
        wait_until("weir to be idle",
                   lambda: process.poll() is not None or procfs.threads(process.pid) == threads)
        if process.poll() is not None or procfs.can_reboot(process.pid):
            raise SystemExit("weir did not start, or could restart this machine")
        return process
