"""No room left, in /dev/shm or in the store: small file systems of the case's own."""

import errno
import os
import subprocess
import time
from pathlib import Path

import machine
from cases import case
from cases.processes import EVERYBODY
from programs import START_BOUND, Broken, Program, poll

PLENTY = 1 << 30


@case("/dev/shm too small for the queues when the server starts", needs=("mounts",))
def no_room_for_queues(scene):
    size = scene.rng.randrange(1, 256) * 4096
    mount(scene, "/dev/shm", size)
    server = scene.start_server()
    server.may_give_up = True
    scene.moment = "before"
    if server.wait_until_ready():
        scene.send(may_fail=EVERYBODY)
    scene.undo = lambda: (scene.end_if_running(server), resize(scene, "/dev/shm", PLENTY))


@case("/dev/shm filled at a random instant", needs=("mounts",))
def no_room_for_leases(scene):
    mount(scene, "/dev/shm", 64 << 20)
    scene.serve()
    scene.send(may_fail=EVERYBODY)
    scene.until_an_instant()
    filler = fill(scene, "/dev/shm")
    scene.undo = lambda: empty(filler)


@case("the store's disk small from the start", needs=("mounts",), often=2)
def small_disk(scene):
    mount(scene, scene.store, scene.rng.randrange(4, 500) * 4096)
    server = scene.start_server()
    server.may_give_up = scene.needs_recovery = True
    scene.moment = "before"
    if server.wait_until_ready():
        scene.moment = "during"
        scene.send(may_fail=EVERYBODY)
    scene.undo = lambda: resize(scene, scene.store, PLENTY)


@case("the store's disk filled at a random instant, and emptied again", needs=("mounts",), often=2)
def disk_filled(scene):
    # Room for everything that is sent, which is more with compression.
    mount(scene, scene.store, (64 if scene.compression else 16) << 20)
    scene.serve()
    scene.needs_recovery = True
    scene.send(may_fail=EVERYBODY)
    pause = scene.rng.uniform(0, 0.02)
    scene.until_an_instant()
    filler = fill(scene, scene.store)
    time.sleep(pause)
    empty(filler)


def mount(scene, folder, size):
    """Gives the scene's programs a file system of this size there, which only they see."""
    script = f"mount -t tmpfs -o size={size} tmpfs '{folder}' && echo mounted && exec sleep 600"
    holder = scene.program(Program, "mounts", [*machine.unshare(), "sh", "-c", script])
    scene.others.append(holder)
    poll(lambda: holder.output, START_BOUND, f"no tmpfs at {folder}: {holder.errors}")
    scene.prefix = ["nsenter", "--target", holder.pid, "--mount"]
    if "-rm" in machine.unshare():
        scene.prefix += ["--user", "--preserve-credentials"]
    scene.root = Path(f"/proc/{holder.pid}/root")


def resize(scene, folder, size):
    # With the type and the source: a user namespace may not repeat what mount would read itself.
    command = [*scene.prefix, "mount", "-t", "tmpfs", "-o", f"remount,size={size}", "tmpfs", folder]
    subprocess.run([str(word) for word in command], check=True, capture_output=True)


def fill(scene, folder):
    filler = scene.seen(folder) / "filler"
    try:
        with open(filler, "wb", buffering=0) as file:
            while file.write(bytes(65536)) == 65536:
                pass
            while file.write(bytes(4096)):
                pass
    except OSError as error:
        if error.errno != errno.ENOSPC:
            raise Broken(f"cannot fill {folder}: {error}") from error
    return filler


def empty(filler):
    """A process that is just being started may still have the file open, so it is cut first."""
    os.truncate(filler, 0)
    filler.unlink()
