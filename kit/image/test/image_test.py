"""What the image contains, and that it streams under the limits of the examples.

image_test.py ARCHIVE: not every machine can start containers, so its files are unpacked and
its program is started among them, by its user, as the first process of a namespace. Needs root.
"""

import json
import os
import re
import resource
import signal
import socket
import subprocess
import sys
import tarfile
import tempfile
from pathlib import Path
from typing import Any

from weirlab import client, network, procfs

TITLES = {f"org.opencontainers.image.{name}" for name in
          ("title", "version", "description", "licenses", "created")}
EXAMPLE = Path("kit/image/weir.container").read_text(encoding="utf-8")


def unpack(archive: Path, folder: Path) -> dict[str, Any]:
    """Checks the files and unpacks them into root/. Returns the image's configuration."""
    with tarfile.open(archive) as image:
        image.extractall(folder)

    def blob(digest: str) -> Path:
        return folder / "blobs" / digest.replace(":", "/")

    [entry] = json.loads((folder / "index.json").read_text())["manifests"]
    manifest = json.loads(blob(entry["digest"]).read_text())
    config: dict[str, Any] = json.loads(blob(manifest["config"]["digest"]).read_text())["config"]
    [only] = manifest["layers"]
    assert TITLES <= config["Labels"].keys() & manifest["annotations"].keys()
    with tarfile.open(blob(only["digest"])) as layer:
        for file in layer:
            assert (file.uid, file.gid) == (0, 0) and (file.issym() or not file.mode & 0o7022), file.name
            assert file.isfile() or file.isdir() or file.issym(), file.name
        programs = {Path(file.name).name for file in layer if file.isfile() and file.mode & 0o111}
        assert {re.sub("^ld-linux.*", "loader", name) for name in programs} <= {"weir", "loader", "libc.so.6"}
        assert (size := sum(file.size for file in layer)) < 30_000_000, size
        layer.extractall(folder / "root", numeric_owner=True)
    assert f"Image={entry['annotations']['org.opencontainers.image.ref.name']}\n" in EXAMPLE
    return config


def check_running(run: subprocess.Popen[bytes], stop: str) -> None:
    """Checks what it may do, that it streams, asks for names and ends."""
    subprocess.run(["debian/tests/streams"], check=True, stderr=subprocess.DEVNULL)
    [weir] = procfs.children(run.pid)
    status = procfs.read(weir, "status")
    assert re.search("^CapEff:\t0+$", status, re.M) and re.search("^NoNewPrivs:\t1$", status, re.M), status
    with socket.socket(type=socket.SOCK_DGRAM) as resolver:
        resolver.bind(("127.0.0.1", 53))
        resolver.settimeout(20)
        with client.connect(client.stream_path("http://origin.test/by-name")):
            assert b"\6origin\4test\0" in resolver.recv(512)
    os.kill(weir, signal.Signals[stop])
    run.wait(5)


def main() -> None:
    network.own_network()
    with tempfile.TemporaryDirectory() as directory:
        root = Path(directory, "root")
        config = unpack(Path(sys.argv[1]), root.parent)
        (root / "etc/resolv.conf").write_text("nameserver 127.0.0.1\n", encoding="ascii")
        memory, threads, most = (int(re.findall(f"{limit}([0-9]+)", EXAMPLE)[0])
                                 for limit in ("--memory=", "PidsLimit=", "nofile="))
        files = min(most, resource.getrlimit(resource.RLIMIT_NOFILE)[1])
        with subprocess.Popen([
                "prlimit", f"--as={memory << 30}", f"--nofile={files}", f"--nproc={threads}",
                "unshare", "--pid", "--mount-proc", "--fork", "script/without-reboot",
                "setpriv", "--no-new-privs", "chroot", f"--userspec={config['User']}", "--groups=", root,
                *config["Entrypoint"], *config["Cmd"]], stdout=subprocess.DEVNULL) as run:
            try:
                check_running(run, config["StopSignal"])
            finally:
                # Deliberate: no --kill-child, which a change of the user undoes.
                for child in procfs.children(run.pid) if run.poll() is None else []:
                    os.kill(child, signal.SIGKILL)
    print("the image streams")


if __name__ == "__main__":
    main()
