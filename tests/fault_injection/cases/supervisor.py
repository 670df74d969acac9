"""Something that the supervisor needs is missing for a moment: the store, or its own files."""

import fcntl
import resource
import signal
import time
from pathlib import Path

from cases import case
from cases.processes import EVERYBODY
from programs import START_BOUND, Program, living_processes, poll, signal_to
from scene import SHM

IN_USE = 4  # the numbers of files that the supervisor never gives back: the standard ones, and one


@case("the store renamed while a worker is killed, and renamed back", often=2)
def store_away(scene):
    server = scene.serve()
    of_fixed_queue = server.workers()[0]
    scene.send(may_fail=EVERYBODY)
    choice = scene.rng.random()
    pause = scene.rng.choice([0, scene.rng.uniform(0, 0.05), scene.rng.uniform(0, 1.5)])
    scene.until_an_instant()
    workers = server.workers()
    victim = workers[int(choice * len(workers))]
    away = scene.folder / "away"
    scene.store.rename(away)
    signal_to(victim, signal.SIGKILL)
    time.sleep(pause)
    away.rename(scene.store)
    scene.needs_recovery = True  # of the streams that could not be finished meanwhile

    def is_served_again():
        return (victim != of_fixed_queue
                or server.errors.count(f"serving queue {scene.queue} ") >= 2)

    scene.undo = lambda: (
        poll(is_served_again, START_BOUND, f"{server.name} did not serve its queue again"),
        poll(lambda: not server.strangers(), START_BOUND,
             f"{server.name} had processes that were not its supervisor's children"))


@case("no free descriptor in the supervisor, while leases of a dead server exist", often=2)
def no_file_left(scene):
    lock = dead_run(scene)  # before the start, so that it is seen
    server = scene.serve()
    # It looks after the dead run every half second.
    pause = scene.rng.uniform(0.6, 1.5)
    soft, hard = resource.prlimit(server.pid, resource.RLIMIT_NOFILE)
    scene.send(may_fail=EVERYBODY)
    scene.until_an_instant()
    resource.prlimit(server.pid, resource.RLIMIT_NOFILE, (IN_USE, hard))
    time.sleep(pause)
    if server.runs():
        resource.prlimit(server.pid, resource.RLIMIT_NOFILE, (soft, hard))
    scene.undo = lambda: (
        lock.close(),
        poll(lambda: not Path(lock.name).exists() or not server.runs(), START_BOUND,
             f"{server.name} did not clean up after a dead server"))


@case("SIGKILL to servers while they remove what a dead server left", often=2)
def cleaning_server_killed(scene):
    for _ in range(scene.rng.randrange(1, 6)):
        lock = dead_run(scene)
        run = Path(lock.name).name.removesuffix(".lock")
        for number in range(scene.rng.randrange(1, 40)):
            Path(SHM, f"{run}_{number:016x}.new").touch()
        lock.close()
    for _ in range(scene.rng.randrange(1, 4)):
        server = scene.start_server()
        alone = scene.rng.random() < 0.7
        pause = scene.rng.uniform(0, 0.03)
        poll(lambda: not server.runs() or len(living_processes(server.pid)) > 1, START_BOUND,
             f"{server.name} started no process")
        time.sleep(pause)
        if alone:
            server.strike(signal.SIGKILL)
        else:
            server.kill_all()
        poll(lambda: not living_processes(server.pid), START_BOUND,
             f"the processes of {server.name} were not gone")
    scene.serve()
    scene.send()
    scene.note_moment()


def dead_run(scene):
    """The lock of a run whose server has ended, held as by a process that it forked."""
    dead = scene.program(Program, "dead", ["true"])
    scene.others.append(dead)
    dead.wait()
    scene.dead_runs.append(dead.pid)
    lock = open(Path(SHM, f".orvane-20200101T000000-{dead.pid}.lock"), "w", encoding="ascii")
    fcntl.flock(lock, fcntl.LOCK_EX)
    lock.write(f"{dead.pid}\n")
    lock.flush()
    return lock
