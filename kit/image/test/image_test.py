"""What the image holds, and that it runs as the examples run it.

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
import threading
from pathlib import Path
from typing import Any

import yaml  # type: ignore
from weirlab import client, network

TITLES = {f"org.opencontainers.image.{name}" for name in
          ("title", "version", "description", "licenses", "created")}
NAME_ANSWER = b"\x81\x80\0\1\0\1\0\0\0\0", b"\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4\x7f\0\0\1"  # 127.0.0.1


def quadlet() -> dict[str, str]:
    text = Path("kit/image/weir.container").read_text(encoding="utf-8")
    keys = dict(re.findall("^([A-Z][A-Za-z]*)=(.*)$", text, re.M))
    limits = dict(re.findall("--([a-z-]+)=([^ ]+)", keys["PodmanArgs"]))
    return {"image": keys["Image"], "argument": keys["Exec"], "user": f"{keys['User']}:{keys['Group']}",
            "port": keys["PublishPort"], "memory": limits["memory"], "swap": limits["memory-swap"],
            "threads": keys["PidsLimit"], "files": keys["Ulimit"].removeprefix("nofile=").partition(":")[0],
            "caps": keys["DropCapability"], "restart": keys["Restart"],
            "locked": str(keys["NoNewPrivileges"] == keys["ReadOnly"] == "true")}


def compose() -> dict[str, str]:
    text = Path("kit/image/compose.yaml").read_text(encoding="utf-8")
    weir: dict[str, Any] = yaml.safe_load(text)["services"]["weir"]
    return {"image": weir["image"], "argument": weir["command"][0], "user": weir["user"],
            "port": weir["ports"][0], "memory": weir["mem_limit"], "swap": weir["memswap_limit"],
            "threads": str(weir["pids_limit"]), "files": str(weir["ulimits"]["nofile"]),
            "caps": weir["cap_drop"][0].lower(), "restart": weir["restart"],
            "locked": str(weir["read_only"] and weir["security_opt"] == ["no-new-privileges:true"])}


def setting(file: str, key: str) -> str:
    found: list[str] = re.findall(f"^{key}=(.*)$", Path(file).read_text(encoding="utf-8"), re.M)
    return found[-1]


def unpack(archive: Path, root: Path) -> tuple[str, dict[str, Any]]:
    """The image's name and configuration, once its files are seen to be harmless."""
    with tarfile.open(archive) as blobs:
        def blob(digest: str) -> bytes:
            return blobs.extractfile(f"./blobs/{digest.replace(':', '/')}").read()  # type: ignore[union-attr]

        [entry] = json.load(blobs.extractfile("./index.json"))["manifests"]  # type: ignore[arg-type]
        manifest = json.loads(blob(entry["digest"]))
        (root.parent / "layer").write_bytes(blob(manifest["layers"][0]["digest"]))
        config = json.loads(blob(manifest["config"]["digest"]))["config"]
    assert len(manifest["layers"]) == 1 and TITLES <= config["Labels"].keys() & manifest["annotations"].keys()
    with tarfile.open(root.parent / "layer") as layer:
        for file in layer:
            assert (file.uid, file.gid) == (0, 0) and (file.issym() or not file.mode & 0o7022), file.name
            assert file.isfile() or file.isdir() or file.issym(), file.name
        programs = {Path(file.name).name for file in layer if file.isfile() and file.mode & 0o111}
        assert {re.sub("^ld-linux.*", "loader", name) for name in programs} <= {"weir", "loader", "libc.so.6"}
        size = sum(file.size for file in layer)
        layer.extractall(root, numeric_owner=True)
    assert size < 30_000_000, size
    print(f"{archive.name}: {archive.stat().st_size} bytes, {size} unpacked")
    return entry["annotations"]["org.opencontainers.image.ref.name"], config


def answer_names() -> None:
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind(("127.0.0.1", 53))
        while True:
            question, asker = server.recvfrom(512)
            server.sendto(question[:2] + NAME_ANSWER[0] + question[12:] + NAME_ANSWER[1], asker)


def children(run: subprocess.Popen[bytes]) -> list[int]:
    if run.poll() is not None:
        return []
    return [int(child) for child in
            Path(f"/proc/{run.pid}/task/{run.pid}/children").read_text(encoding="ascii").split()]


def look_at(run: subprocess.Popen[bytes], stop: str) -> None:
    """Holds the program, which is just starting, against what it is for."""
    subprocess.run(["debian/tests/streams"], check=True, stderr=subprocess.DEVNULL)
    [weir] = children(run)
    status = Path(f"/proc/{weir}/status").read_text(encoding="ascii")
    assert re.search("^CapEff:\t0+$", status, re.M) and re.search("^NoNewPrivs:\t1$", status, re.M), status
    # By name, which takes nothing that is loaded at run time.
    with socket.create_server(("127.0.0.1", 8745)) as origin:
        origin.settimeout(20)
        with client.connect("/stream?url=http%3A%2F%2Forigin.test%3A8745%2Fby-name"):
            assert origin.accept()[0].recv(100).startswith(b"GET /by-name ")
    os.kill(weir, signal.Signals[stop])
    run.wait(5)


def main() -> None:
    wanted = quadlet()
    assert wanted == compose(), (wanted, compose())
    assert wanted["threads"] == setting("debian/weir.service", "TasksMax")
    assert wanted["files"] == setting("debian/weir.service", "LimitNOFILE")
    most = setting("kit/service/weir.service.d/memory.conf", "MemoryMax").lower()
    assert wanted["memory"] == wanted["swap"] == most
    assert (wanted["caps"], wanted["locked"], wanted["restart"]) == ("all", "True", "always")
    network.own_network()
    with tempfile.TemporaryDirectory() as directory:
        root = Path(directory, "root")
        name, config = unpack(Path(sys.argv[1]), root)
        made = [name, config["User"], *config["Cmd"]]
        assert made == [wanted[key] for key in ("image", "user", "argument")]
        assert [f"{port.removesuffix('/tcp')}:7744" for port in config["ExposedPorts"]] == [wanted["port"]]
        (root / "etc/resolv.conf").write_text("nameserver 127.0.0.1\n", encoding="ascii")
        threading.Thread(target=answer_names, daemon=True).start()
        files = min(int(wanted["files"]), resource.getrlimit(resource.RLIMIT_NOFILE)[1])
        memory = int(wanted["memory"].removesuffix("g")) << 30
        with subprocess.Popen([
                "prlimit", f"--as={memory}", f"--nofile={files}", f"--nproc={wanted['threads']}",
                "unshare", "--pid", "--mount-proc", "--fork", "script/without-reboot",
                "setpriv", "--no-new-privs", "chroot", f"--userspec={wanted['user']}", "--groups=", root,
                *config["Entrypoint"], wanted["argument"]], stdout=subprocess.DEVNULL) as run:
            try:
                look_at(run, config["StopSignal"])
            finally:
                # Deliberate: no --kill-child, which a change of the user undoes.
                for child in children(run):
                    os.kill(child, signal.SIGKILL)
    print("the image streams")


if __name__ == "__main__":
    main()
