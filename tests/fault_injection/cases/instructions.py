"""Either end of a ring killed or stopped at any instruction, which a debugger's single steps choose."""

import signal
import time

from cases import case
from programs import START_BOUND, Broken, Program, poll, signal_to

MOST_STEPS = 20_000
TIMEOUT = 2  # of the producer
ENDED = 3  # the helper's exit code for a process that had ended before

# What the documents promise: how much longer than its timeout a producer waits for a worker that is
# stopped, and how long for one that is dead. A busy machine may let it wait for a processor.
PROMISED = 0.2
BUSY = 1.0


@case("SIGKILL to an `orvane send` with a ring at any instruction", needs=("ptrace",), often=2)
def ring_producer_killed(scene):
    victim, _ = start_victim(scene)
    victim.killed = True
    strike(scene, victim.pid, "KILL")


@case("SIGSTOP to an `orvane send` with a ring at any instruction, SIGCONT soon after",
      needs=("ptrace",))
def ring_producer_stopped(scene):
    victim, _ = start_victim(scene, timeout=30)
    scene.may_fail = 0
    pause = scene.rng.uniform(0, 0.1)
    strike(scene, victim.pid, "STOP")
    time.sleep(pause)
    signal_to(victim.pid, signal.SIGCONT)


@case("SIGKILL to the worker of a ring at any instruction: its producer ends within 0.2 s, and 1 s "
      "for a busy machine", needs=("ptrace",), often=3)
def ring_worker_killed(scene):
    victim, worker = start_victim(scene)
    struck = strike(scene, worker, "KILL")
    check_end(victim, struck, PROMISED)


@case("SIGSTOP to the worker of a ring at any instruction: its producer ends within its timeout, "
      "0.2 s, and 1 s for a busy machine", needs=("ptrace",), often=3)
def ring_worker_stopped(scene):
    victim, worker = start_victim(scene)
    struck = strike(scene, worker, "STOP")
    check_end(victim, struck, TIMEOUT + PROMISED)
    if struck is not None:
        signal_to(worker, signal.SIGCONT)


def start_victim(scene, timeout=TIMEOUT):
    """`orvane send` of many files over a ring, of which one is being sent at most instants; and what
    serves it, or nothing if all was sent before that was found. The other producers must not notice
    what happens to it."""
    server = scene.serve()
    before = set(server.workers())
    files = [scene.new_file(scene.rng.randrange(1, 200_000)) for _ in range(24)]
    victim = scene.start_send("leased", files, timeout=timeout, transport="ring", label="victim")
    found = poll(lambda: set(server.workers()) - before or ([] if victim.runs() else [None]),
                 START_BOUND, "no ring was leased")
    worker = found.pop()
    others = scene.send()
    scene.may_fail = 1
    scene.undo = lambda: scene.require_stored(others)
    scene.until_an_instant()
    return victim, worker


def strike(scene, pid, number):
    """Returns when, by the clock of time.monotonic(); nothing if the process had ended before."""
    if pid is None:
        scene.moment = "after"
        return None
    steps = int(MOST_STEPS ** scene.rng.random()) - 1
    helper = scene.program(Program, "stop-at", [
        scene.binaries / "stop_at_instruction", pid, steps, number])
    scene.others.append(helper)
    code = helper.wait()
    if code not in (0, ENDED):
        raise Broken(f"{helper.name} failed: {helper.errors.strip()}")
    if code == ENDED:
        scene.moment = "after"
        return None
    return float(helper.output)


def check_end(victim, struck, bound):
    """Nobody keeps the producer for longer than its documents say."""
    if struck is None:
        return
    while victim.runs() and time.monotonic() < struck + bound + BUSY:
        time.sleep(0.001)
    took = time.monotonic() - struck
    if victim.runs() or took > bound + BUSY:
        raise Broken(f"{victim.name} ended no sooner than {took:.3f} s after its worker was struck")
