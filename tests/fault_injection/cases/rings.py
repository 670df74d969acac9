"""Producers that break the rules of their rings, while the streams of others go on: the lease ends
with its reason, or goes on where no rule was broken. And what a server of rings has in /dev/shm."""

import contextlib
import os
import random
import select
import socket
from pathlib import Path

from cases import case
from cases.hostile import data_of, record_of
from cases.processes import EVERYBODY
from cases.space import mount
from programs import START_BOUND, STOP_BOUND, Broken, living_processes, poll
from ring import ANSWERS_TAKEN, BYTES, LINE, PAGE, TAIL, Ring

BROKEN_RULE = "failed 1000 The producer broke the rules of its ring: "
WRONG_TAIL = BROKEN_RULE + "its tail is not where it can be"
MISSING_FRAME = BROKEN_RULE + "a frame is missing"
DIED = "failed 1008 "  # what the supervisor adds
NAP, WANT, BLOCKED = 128, 136, 144

TAILS = {
    "back": (lambda tail, rng: rng.randrange(tail // LINE) * LINE, WRONG_TAIL),
    "too far": (lambda tail, rng: tail + BYTES + rng.randrange(1, 100) * LINE, WRONG_TAIL),
    "anywhere": (lambda tail, rng: tail + rng.randrange(BYTES + 1, 1 << 63), WRONG_TAIL),
    "without a frame": (lambda tail, rng: tail + LINE, MISSING_FRAME),
}


@case("a producer that overwrites its ring's page with random bytes again and again", often=3)
def ring_page_overwritten(scene):
    with attacker(scene) as (ring, rng):
        for _ in range(rng.randrange(1, 200)):
            hand_over_data(ring, rng)
            start = rng.choice([0, TAIL, NAP, WANT, BLOCKED, ANSWERS_TAKEN, rng.randrange(PAGE)])
            noise = rng.randbytes(rng.choice([1, 8, 64, PAGE]))[:PAGE - start]
            ring.memory[start:start + len(noise)] = noise
            ring.wake()
            if rng.random() < 0.5:
                ring.mend_page()
        ring.mend_page()
        ring.await_taken()
        check_packets(ring, BROKEN_RULE)


@case("a producer that moves the tail of its ring back and forward", often=3)
def ring_tail_moved(scene):
    with attacker(scene) as (ring, rng):
        move, reason = TAILS[rng.choice(list(TAILS))]
        restless = rng.random() < 0.5
        for _ in range(rng.randrange(200)):
            hand_over_data(ring, rng)
            if restless:
                ring.set_tail(rng.choice(list(TAILS.values()))[0](ring.tail, rng))
                ring.set_tail(ring.tail)
        ring.await_taken()
        ring.fill_with_zeros()
        ring.set_tail(move(ring.tail, rng))
        ring.await_end()
        check_packets(ring, BROKEN_RULE if restless else reason)


@case("a producer that punches holes into its ring while batches are handed over", often=3)
def ring_punched(scene):
    with attacker(scene) as (ring, rng):
        for _ in range(rng.randrange(1, 200)):
            hand_over_data(ring, rng)
            page = rng.choice([0, *(rng.randrange(1, 1 + BYTES // PAGE) for _ in range(9))])
            ring.punch(page * PAGE, rng.choice([1, 1, 8, BYTES // PAGE]) * PAGE)
            ring.wake()
        ring.mend_page()
        ring.await_taken()
        if not ring.over and rng.random() < 0.5:
            ring.punch(0, PAGE)
            ring.await_end()
        # A record that is all zeros is an opening one.
        check_packets(ring, "failed 1000 ", "failed 1001 ", "failed 1002 ", "receipt ")


@case("a producer that sends 0, 3 or 253 files along with its request, and again with its ring",
      often=2)
def ring_files_sent(scene):
    scene.serve()
    scene.send()
    count, again = scene.rng.choice([0, 3, 253]), scene.rng.randrange(1, 4)
    scene.until_an_instant()
    with pipe() as (kept_first, passed_first), pipe() as (kept, passed):
        with Ring(scene, [passed_first.fileno()] * count) as ring:
            scene.strangers.add(ring.queue)
            for _ in range(again):
                socket.send_fds(ring.client, [b"files"], [passed.fileno()] * count)
            check_given_back(kept_first, passed_first)
            ring.hand_over(record_of(kind=0, place=0), data_of(2, b"data"), record_of(3, 3))
            ring.await_taken()
            poll(lambda: not ring.look() or ring.packets, START_BOUND, "no receipt came")
            if ring.over or not ring.packets[0].endswith(" end=closed"):
                raise Broken(f"{ring.queue} was not served: {ring.packets}")
        check_given_back(kept, passed)


@case("/dev/shm of 1 MiB: everything is stored over rings, and queues are refused",
      needs=("mounts",))
def small_shm_with_rings(scene):
    mount(scene, "/dev/shm", 1 << 20)
    scene.use_rings_only()
    scene.geometry = ["--messages", 1, "--message-size", "1MiB"]
    scene.serve()
    scene.moment = "before"
    sends = scene.send()
    refused = scene.start_send("leased", [scene.new_file(3000)], transport="queue")
    if refused.wait() != 1 or "--shm-limit" not in refused.errors:
        raise Broken(f"{refused.name} was not refused with a reason: {refused.errors.strip()}")
    scene.may_fail = 1
    scene.undo = lambda: scene.require_stored(sends)


@case("SIGKILL to all processes of a server of rings: nothing of it is left in /dev/shm", often=2)
def ring_server_killed(scene):
    scene.use_rings_only()
    server = scene.serve()
    scene.send(may_fail=EVERYBODY)
    scene.until_an_instant()
    server.kill_all()
    poll(lambda: not living_processes(server.pid), STOP_BOUND,
         f"the processes of {server.name} were not gone")
    if left := [path.name for path in scene.our_shm_files()]:
        raise Broken(f"left in /dev/shm by a server of rings: {', '.join(left)}")
    gone = [path for path in (scene.socket, Path(f"{scene.socket}.lock")) if not path.exists()]
    if gone:
        raise Broken(f"no longer there, and so not found by the next server: {gone}")
    streams = scene.streams()
    scene.serve()
    scene.check_recovery()
    if lost := set(streams) - set(scene.streams()):
        raise Broken(f"streams of the dead server that the next one did not finish: {lost}")


@contextlib.contextmanager
def attacker(scene):
    """A ring with an open stream, and random choices that do not depend on how fast it is read."""
    server = scene.serve()
    with Ring(scene) as ring:
        scene.strangers.add(ring.queue)
        ring.hand_over(record_of(kind=0, place=0))
        ring.await_taken()
        scene.send()
        rng = random.Random(scene.rng.random())
        scene.until_an_instant()
        yield ring, rng
    if f"queue {ring.queue}: its worker was killed" in server.errors:
        raise Broken(f"{ring.queue}, the ring of a hostile producer, killed its worker")


def hand_over_data(ring, rng):
    """Each record has the next number of the stream, which begins with 0 and 2."""
    data = rng.randbytes(rng.choice([0, 100, 10_000, 100_000]))
    ring.hand_over(data_of(ring.frames + 1, data))


def check_packets(ring, *allowed):
    """The server gave one of these reasons, and gave one at all if it ended the lease."""
    reasons = [packet for packet in ring.packets if not packet.startswith(DIED)]
    if not all(packet.startswith(allowed) for packet in reasons) or (ring.over and not reasons):
        raise Broken(f"{ring.queue} ended with {ring.packets}")


@contextlib.contextmanager
def pipe():
    ends = os.pipe()
    with open(ends[0], "rb") as kept, open(ends[1], "wb") as passed:
        yield kept, passed


def check_given_back(kept, passed):
    """Nobody else has the end of the pipe that was passed on."""
    passed.close()
    poll(lambda: select.select([kept], [], [], 0)[0], START_BOUND,
         "the server keeps files that a producer sent")
