"""What is done to the forwarder, the server and the cluster while streams are forwarded."""

import contextlib
import json
import mmap
import os
import shutil
import signal
import struct
import time

from cluster_scene import RECOVERY_BOUND
from programs import poll

ADMIN = '{ user: admin, password: admin }'
FORWARD = '{ user: forward, password: secret }'
SETTLING_TIME = 2
STEPS = [1, 10, 3600, 86400, 366 * 86400]

CASES = {}


def case(text):
    """Enters a fault in the table. It is a generator: what comes after its `yield` undoes it."""
    def enter(function):
        CASES[text] = function
        return function
    return enter


def users(*lines):
    return "authorization { users: [ " + ", ".join(lines) + " ] }"


@case("SIGKILL to the forwarder")
def forwarder_killed(scene):
    for _ in range(scene.rng.randrange(1, 4)):
        scene.pause()
        scene.forwarder.strike(signal.SIGKILL)
        scene.start_forwarder()
    yield


@case("SIGTERM to the forwarder")
def forwarder_ended(scene):
    scene.forwarder.strike(signal.SIGTERM)
    yield


@case("SIGSTOP to the forwarder, SIGCONT soon after")
def forwarder_stopped(scene):
    scene.forwarder.strike(signal.SIGSTOP)
    yield
    scene.forwarder.strike(signal.SIGCONT)


@case("SIGKILL to all processes of orvaned")
def server_killed(scene):
    os.killpg(scene.server.pid, signal.SIGKILL)
    scene.server.process.wait()
    yield


@case("SIGKILL to the leader of the cluster's stream")
def leader_killed(scene):
    scene.cluster.leader().kill()
    yield


@case("SIGKILL to any server of the cluster")
def one_killed(scene):
    scene.rng.choice(scene.cluster.servers).kill()
    yield


@case("SIGKILL to two servers of the cluster")
def two_killed(scene):
    for server in scene.rng.sample(scene.cluster.servers, 2):
        server.kill()
    scene.servers_lost_memory = True
    yield


@case("SIGKILL to all servers of the cluster")
def all_killed(scene):
    for server in scene.cluster.servers:
        server.kill()
    scene.servers_lost_memory = True
    yield


@case("SIGSTOP to the leader of the cluster's stream, SIGCONT later")
def leader_stopped(scene):
    scene.cluster.leader().stop()
    yield


@case("SIGSTOP to two servers of the cluster, SIGCONT later")
def two_stopped(scene):
    for server in scene.rng.sample(scene.cluster.servers, 2):
        server.stop()
    yield


def settled(cluster):
    """The stream's state, unless it has just changed."""
    before = cluster.state()
    time.sleep(SETTLING_TIME)
    after = cluster.state()
    return "state" in after and before.get("state") == after["state"] and after


@case("the stream full, and wider again")
def stream_full(scene):
    # A limit below what is stored would make the servers remove the oldest messages.
    scene.forwarder.strike(signal.SIGSTOP)
    state = poll(lambda: settled(scene.cluster), RECOVERY_BOUND, "the stream did not settle")
    settings = state["config"]
    scene.cluster.ask("$JS.API.STREAM.UPDATE.orvane", json.dumps(
        settings | {"max_bytes": state["state"]["bytes"] + 1000}).encode())
    scene.forwarder.strike(signal.SIGCONT)
    yield

    def is_wider():
        answer = scene.cluster.ask("$JS.API.STREAM.UPDATE.orvane",
                                   json.dumps(settings | {"max_bytes": -1}).encode())
        return "config" in answer
    poll(is_wider, RECOVERY_BOUND, "the stream did not get its limit back")


@case("the payload limit changed, and back again")
def payload_limit_changed(scene):
    for server in scene.cluster.servers:
        server.max_payload = scene.rng.choice([65536, 262144])
        server.reload()
    yield
    for server in scene.cluster.servers:
        server.max_payload = 1 << 20
        server.reload()


@case("the credentials revoked, and valid again")
def credentials_revoked(scene):
    for server in scene.cluster.servers:
        server.users = users(ADMIN)
        server.reload()
    yield
    for server in scene.cluster.servers:
        server.users = users(ADMIN, FORWARD)
        server.reload()


@case("the forwarder's clock stepped")
def clock_stepped(scene):
    seconds = scene.rng.choice(STEPS) * scene.rng.choice([-1, 1])
    with open(scene.clock, "r+b") as file, mmap.mmap(file.fileno(), 8) as clock:
        clock[:] = struct.pack("=q", seconds)
    yield


@case("the disk of the stream's leader full, and emptied again")
def disk_full(scene):
    leader = scene.cluster.leader()
    filler = leader.store / "filler"
    left = scene.rng.randrange(0, 2 << 20)
    with contextlib.suppress(OSError), open(filler, "wb", buffering=0) as file:
        while shutil.disk_usage(leader.store).free > left:
            file.write(bytes(1 << 16))
    yield
    filler.unlink()
    leader.kill()  # a server that had no room stores nothing until it is started again
