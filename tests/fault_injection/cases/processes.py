"""Processes killed, ended, stopped and continued at a random instant."""

import signal
import time

from cases import case
from programs import START_BOUND, poll, signal_to

EVERYBODY = 8


@case("SIGKILL to one `orvane send`", often=3)
def producer_killed(scene):
    scene.serve()
    victim = scene.rng.choice(scene.send(may_fail=1))
    scene.until_an_instant()
    victim.strike(signal.SIGKILL)


@case("SIGTERM to one `orvane send`")
def producer_ended(scene):
    scene.serve()
    victim = scene.rng.choice(scene.send(may_fail=1))
    scene.until_an_instant()
    victim.strike(signal.SIGTERM)


@case("SIGSTOP to one `orvane send`, SIGCONT soon after")
def producer_stopped(scene):
    scene.serve()
    victim = scene.rng.choice(scene.send())
    scene.until_an_instant()
    stop_and_continue(victim.pid, scene.rng.uniform(0, 0.1))


def kill_one(scene, processes):
    """Kills one of the server's processes that `processes` lists; the fixed queue's is the first."""
    server = scene.serve()
    of_fixed_queue = processes(server)[0]
    scene.send(may_fail=1)
    choice = scene.rng.random()
    scene.until_an_instant()
    found = processes(server)
    victim = found[int(choice * len(found))]
    signal_to(victim, signal.SIGKILL)
    if victim == of_fixed_queue:
        scene.undo = lambda: poll(
            lambda: server.errors.count(f"serving queue {scene.queue} ") == 2, START_BOUND,
            f"{server.name} did not serve its queue again")


def stop_one(scene, processes):
    server = scene.serve()
    scene.send()
    choice = scene.rng.random()
    pause = scene.rng.uniform(0, 0.1)
    scene.until_an_instant()
    found = processes(server)
    stop_and_continue(found[int(choice * len(found))], pause)


@case("SIGKILL to a worker process of the server", often=3)
def worker_killed(scene):
    kill_one(scene, lambda server: server.workers())


@case("SIGKILL to the broker of a worker")
def broker_killed(scene):
    kill_one(scene, lambda server: server.brokers())


@case("SIGSTOP to the broker of a worker, SIGCONT soon after")
def broker_stopped(scene):
    stop_one(scene, lambda server: server.brokers())


@case("SIGSTOP to a worker process of the server, SIGCONT soon after")
def worker_stopped(scene):
    stop_one(scene, lambda server: server.workers())


@case("SIGKILL to the server's supervisor alone", often=3)
def supervisor_killed(scene):
    server = scene.serve()
    scene.send(may_fail=EVERYBODY)
    scene.until_an_instant()
    server.strike(signal.SIGKILL)


@case("SIGSTOP to the server's supervisor, SIGCONT soon after")
def supervisor_stopped(scene):
    server = scene.serve()
    scene.send()
    pause = scene.rng.uniform(0, 0.1)
    scene.until_an_instant()
    stop_and_continue(server.pid, pause)


@case("SIGKILL to all processes of the server at once", often=3)
def server_killed(scene):
    server = scene.serve()
    scene.send(may_fail=EVERYBODY)
    scene.until_an_instant()
    server.kill_all()


@case("SIGKILL to all processes of the server while it starts")
def starting_server_killed(scene):
    server = scene.start_server()
    time.sleep(scene.rng.uniform(0, 0.02))
    scene.note_moment()
    server.kill_all()


@case("SIGTERM to the server", often=2)
def server_ended(scene):
    server = scene.serve()
    scene.send(may_fail=EVERYBODY)
    scene.until_an_instant()
    scene.stop(server)


@case("SIGTERM to the server, then SIGKILL to all its processes")
def ending_server_killed(scene):
    server = scene.serve()
    scene.send(may_fail=EVERYBODY)
    pause = scene.rng.uniform(0, 0.01)
    scene.until_an_instant()
    server.strike(signal.SIGTERM)
    time.sleep(pause)
    server.kill_all()


def stop_and_continue(pid, pause):
    signal_to(pid, signal.SIGSTOP)
    time.sleep(pause)
    signal_to(pid, signal.SIGCONT)
