"""Names that are taken already, or vanish."""

import os
import socket
import time
from pathlib import Path

from cases import case
from cases.hostile import ANSWER, connect
from cases.processes import EVERYBODY
from programs import START_BOUND, Broken
from scene import remove

SQUATTERS = {
    "file": lambda path: path.write_bytes(b""),
    "text": lambda path: path.write_text("somebody's notes"),
    "link": lambda path: path.symlink_to("/nowhere"),
    "folder": lambda path: path.mkdir(),
    "pipe": lambda path: os.mkfifo(path),
    "socket": lambda path: bind(path),
}


@case("a name that the server needs, taken by another program before it starts", often=3)
def names_taken(scene):
    path = scene.rng.choice(places(scene))
    kind = scene.rng.choice(list(SQUATTERS))
    SQUATTERS[kind](path)
    server = scene.start_server()
    server.may_give_up = True
    if server.wait_until_ready():
        scene.send()
    elif str(path) not in server.errors:
        raise Broken(f"{path} was a {kind}; orvaned did not name it: {server.errors.strip()}")
    scene.moment = "before"
    scene.undo = lambda: server.runs() or remove(path)


@case("a second server for the same names")
def second_server(scene):
    scene.serve()
    scene.send()
    scene.until_an_instant()
    second = scene.start_server()
    scene.servers.remove(second)
    scene.others.append(second)
    if second.wait() != 1 or "another orvaned" not in second.errors:
        raise Broken(f"the second server ended with {second.process.returncode}: {second.errors}")


@case("the names that leases would get next, taken by another program", often=2)
def lease_names_taken(scene):
    scene.serve()
    shm = scene.seen("/dev/shm")
    client = connect(scene, b"orvane 1 lease")
    client.settimeout(START_BOUND)
    run = client.recv(ANSWER).decode().removeprefix("lease ").rpartition("_")[0]
    client.close()
    kind = scene.rng.choice(["file", "text", "pipe"])
    number = scene.rng.choice([lambda n: str(n), lambda n: f"{n:016x}"])
    part = scene.rng.choice(["{}", "{}Response", ".{}.new", ".{}.stats"])
    taken = [shm / part.format(f"{run}_{number(n)}") for n in range(scene.rng.randrange(1, 100))]
    for path in taken:
        SQUATTERS[kind](path)
    before = [path.stat() for path in taken]
    start = time.monotonic()
    for send in scene.send():
        send.wait()
    if time.monotonic() - start > len(scene.sends) * START_BOUND:
        raise Broken("the producers waited for names that were taken")
    scene.note_moment()
    for path, was in zip(taken, before):
        if not path.exists() or (path.stat().st_ino, path.stat().st_mtime) != (was.st_ino,
                                                                              was.st_mtime):
            raise Broken(f"{path}, somebody else's {kind}, was touched")
    scene.undo = lambda: [remove(path) for path in taken]


@case("the names in /dev/shm removed at a random instant")
def names_removed(scene):
    server = scene.serve()
    scene.send(may_fail=EVERYBODY)
    scene.until_an_instant()
    for path in scene.our_shm_files():
        path.unlink(missing_ok=True)
    scene.undo = lambda: scene.end_if_running(server)


def places(scene):
    shm = scene.seen("/dev/shm")
    return [shm / scene.queue, shm / f"{scene.queue}Response", shm / f".{scene.queue}.lock",
            scene.socket, Path(f"{scene.socket}.lock")]


def bind(path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as stranger:
        stranger.bind(str(path))
