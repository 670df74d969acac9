"""Who may use a queue or the socket, and breaks the rules. The streams of others go on."""

import mmap
import os
import signal
import socket
import struct
import sys
import time

from cases import case
from programs import STOP_BOUND, Broken, Program, poll, signal_to

ANSWER = 512  # bytes of the longest text on the socket
MANY_LEASES = ["--pairs-per-user", 200]  # the attacker is the same user


@case("random bytes and mutated batches sent to the fixed queue", often=3)
def hostile_batches(scene):
    scene.serve()
    batches = scene.folder / "batches"
    with open(batches, "wb") as file:
        for _ in range(scene.rng.randrange(1, 200)):
            batch = hostile_batch(scene.rng)
            file.write(struct.pack("=I", len(batch)) + batch)
    attack_beside_leases(scene)
    helper = scene.program(Program, "hostile", [
        scene.binaries / "hostile_producer", scene.queue, batches])
    scene.others.append(helper)
    helper.wait()


@case("the fixed queue's own header overwritten with random bytes", often=3)
def hostile_header(scene):
    scene.serve()
    pair = [scene.seen(f"/dev/shm/{scene.queue}{part}") for part in ("", "Response")]
    path = scene.rng.choice(pair)
    start = scene.rng.choice([0, scene.rng.randrange(300)])
    noise = scene.rng.randbytes(scene.rng.choice([1, 8, 64, 300]))
    attack_beside_leases(scene)
    with open(path, "r+b") as file, mmap.mmap(file.fileno(), 0) as memory:
        memory[start:start + len(noise)] = noise[:len(memory) - start]
    scene.undo = lambda: give_up_queue(scene)


@case("the fixed queue's file cut to nothing while it is mapped")
def queue_cut(scene):
    scene.serve()
    path = scene.seen(f"/dev/shm/{scene.queue}")
    size = scene.rng.choice([0, 0, 4096])
    attack_beside_leases(scene)
    os.truncate(path, size)
    scene.undo = lambda: give_up_queue(scene)


@case("clients of the socket that send garbage, too much or nothing, or disconnect at once", often=3)
def hostile_clients(scene):
    scene.serve(options=MANY_LEASES)
    scene.send()
    packets = [scene.rng.choice([b"", b"orvane 1 leas", b"orvane 2 lease", b"orvane 1 lease\n",
                                 scene.rng.randbytes(scene.rng.randrange(1, 600)),
                                 bytes(100_000)])
               for _ in range(scene.rng.randrange(1, 60))]
    stay = scene.rng.uniform(0, 0.05)
    scene.until_an_instant()
    clients = [client for packet in packets if (client := connect(scene, packet))]
    time.sleep(stay)
    for client in clients:
        client.close()


@case("clients of the socket that take a lease and disconnect, at once or without a record")
def fleeting_leases(scene):
    scene.serve(options=MANY_LEASES)
    scene.send()
    stays = [scene.rng.choice([0, 0, scene.rng.uniform(0, 0.01)])
             for _ in range(scene.rng.randrange(1, 12))]
    scene.until_an_instant()
    for stay in stays:
        if client := connect(scene, b"orvane 1 lease"):
            if stay:
                client.recv(ANSWER)
                time.sleep(stay)
            client.close()


@case("all leases that a user may have, taken by one client")
def leases_used_up(scene):
    server = scene.serve(options=["--pairs-per-user", 4])
    clients = [connect(scene, b"orvane 1 lease") for _ in range(4)]
    for client in clients:
        client.recv(ANSWER)
    for send in scene.send(may_fail=8):
        if send.wait() != 0 and "--pairs-per-user" not in send.errors:
            raise Broken(f"{send.name} did not report the limit: {send.errors.strip()}")
    scene.note_moment()
    for client in clients:
        client.close()
    poll(lambda: len(server.workers()) == 1, STOP_BOUND, "the leases did not end with their client")


@case("a producer that reads no receipts until SIGTERM to the server", often=2)
def receipts_unread(scene):
    server = scene.serve()
    scene.contents.append(b"")  # its streams
    client = connect(scene, b"orvane 1 lease")
    queue = client.recv(ANSWER).decode().removeprefix("lease ")
    streams = scene.folder / "streams"
    stream = (record_of(kind=0, place=0) + record_of(kind=3, place=2))
    batch = struct.pack(">II", 0xFF00EE11, 20) + 10 * stream
    streams.write_bytes(scene.rng.randrange(30, 80) * (struct.pack("=I", len(batch)) + batch))
    helper = scene.program(Program, "streams", [
        scene.binaries / "hostile_producer", queue, streams, 10])
    scene.others.append(helper)
    scene.send(may_fail=8)
    helper.wait()
    scene.until_an_instant()
    server.strike(signal.SIGTERM)
    client.settimeout(STOP_BOUND)
    receipts = []
    while packet := client.recv(ANSWER):
        receipts.append(packet.decode())
    server.wait()
    received = sum(" end=closed" in receipt for receipt in receipts)
    manifests = [path.read_text() for path in scene.store.glob("*/manifest")]
    kept = sum("\nend=closed\n" in text and f"\nqueue={queue}\n" in text for text in manifests)
    if received != kept:
        raise Broken(f"{kept} streams were stored whole, and {received} receipts came")


@case("a producer that ends at once, while a forked child of it holds the connection")
def orphaned_connection(scene):
    server = scene.serve()
    scene.send()
    scene.until_an_instant()
    signal_to(server.pid, signal.SIGSTOP)  # it accepts when the producer has ended
    producer = scene.program(Program, "forking", [sys.executable, "-c", FORKING, scene.socket])
    scene.others.append(producer)
    producer.wait()
    signal_to(server.pid, signal.SIGCONT)
    for send in scene.sends:
        send.wait()
    poll(lambda: len(server.workers()) <= server.held_at_start[1], STOP_BOUND,
         "a lease outlived its producer")


FORKING = """
import os, socket, sys, time
client = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
client.connect(sys.argv[1])
client.send(b"orvane 1 lease")
if os.fork() == 0:
    time.sleep(600)
"""


def give_up_queue(scene):
    """Nobody can use what was destroyed; leases go on, the server ends as it should, and the next
    one has a new queue."""
    scene.check_new_producer("leased")
    scene.stop(scene.servers[-1])


def attack_beside_leases(scene):
    """Leaves the fixed queue to the attacker; the producers with a lease must not notice."""
    if scene.way.startswith("one fixed"):
        scene.way = scene.rng.choice(["one leased", "eight leased"])
    scene.strangers.add(scene.queue)
    scene.send()
    scene.until_an_instant()


def connect(scene, packet):
    client = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    client.settimeout(1)
    try:
        client.connect(str(scene.socket))
        if packet:
            client.send(packet)
    except OSError:  # the server may refuse: too many, too long, already at an end
        client.close()
        return None
    return client


def hostile_batch(rng):
    """Anything from noise to a valid batch with a few bytes changed."""
    if rng.random() < 0.2:
        return rng.randbytes(rng.randrange(0, 400))
    records = [record(rng, number) for number in range(rng.randrange(0, 6))]
    batch = bytearray(struct.pack(">II", 0xFF00EE11, len(records)) + b"".join(records))
    for _ in range(rng.choice([0, 0, 1, 3])):
        batch[rng.randrange(len(batch))] = rng.randrange(256)
    return bytes(batch[:rng.randrange(len(batch) + 1)] if rng.random() < 0.1 else batch)


def record(rng, number):
    data = rng.randbytes(rng.choice([0, 0, 5, 200]))
    kind = rng.choice([0, 1, 1, 1, 2, 3, 4, 5, 0xFFFFFFFF])
    place = rng.choice([0, number + 2, rng.getrandbits(64)])
    segment = rng.choice([0, 1, rng.getrandbits(64)])
    return struct.pack(">IIQQIIIIII", kind, len(data), place, segment, 0, rng.choice([0, 1, 7]),
                       0, 0, 0, 0xAABBCCDD) + data


def record_of(kind, place):
    """An open or a close."""
    return struct.pack(">IIQQIIIIII", kind, 0, place, 0, 1, 0, 0, 0, 0, 0xAABBCCDD)


def data_of(place, data):
    """A record of the first segment, however large."""
    return struct.pack(">IIQQIIIIII", 1, len(data), place, 0, 0, 1, 0, 0, 0, 0xAABBCCDD) + data
