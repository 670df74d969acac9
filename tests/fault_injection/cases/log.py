"""Where the server's log goes: a pipe that nobody reads, and the process that writes it."""

import errno
import os
import signal
import time

from cases import case
from cases.processes import EVERYBODY, stop_and_continue
from programs import START_BOUND, Broken, Program, poll, signal_to


@case("standard error a pipe that nobody reads for a while", often=2)
def log_pipe(scene):
    _, reader = serve_into_pipe(scene)
    scene.send()
    pause = scene.rng.uniform(0, 0.1)
    scene.until_an_instant()
    stop_reading(scene, reader)
    time.sleep(pause)
    if scene.rng.random() < 0.5:  # it serves the last of its producers without a reader
        scene.undo = lambda: signal_to(reader.pid, signal.SIGCONT)
    else:
        signal_to(reader.pid, signal.SIGCONT)


@case("SIGTERM to the server while nobody reads its standard error")
def log_pipe_at_end(scene):
    server, reader = serve_into_pipe(scene)
    scene.send(may_fail=EVERYBODY)
    scene.until_an_instant()
    stop_reading(scene, reader)
    scene.stop(server)
    signal_to(reader.pid, signal.SIGCONT)


@case("SIGKILL to the process that writes the server's log")
def log_process_killed(scene):
    server = scene.serve()
    scene.send()
    scene.until_an_instant()
    victim = server.log_process()
    signal_to(victim, signal.SIGKILL)
    poll(lambda: server.log_process() not in (0, victim), START_BOUND,
         f"{server.name} did not replace the process that writes its log")


@case("SIGSTOP to the process that writes the server's log, SIGCONT soon after")
def log_process_stopped(scene):
    server = scene.serve()
    scene.send()
    pause = scene.rng.uniform(0, 0.1)
    scene.until_an_instant()
    stop_and_continue(server.log_process(), pause)


def serve_into_pipe(scene):
    """A server whose standard error is a pipe, and the program that reads it into a file."""
    pipe = scene.folder / "log-pipe"
    os.mkfifo(pipe)
    reader = scene.program(Program, "log-reader", ["cat", pipe])
    scene.others.append(reader)
    server = scene.start_server(prefix=["sh", "-c", 'exec "$@" 2> "$0"', pipe])
    server.outputs[1] = reader.outputs[0]
    if not server.wait_until_ready():
        raise Broken(f"{server.name} did not start: {server.errors.strip()[-400:]}")
    server.held_at_start = server.held()
    return server, reader


def stop_reading(scene, reader):
    """From now on nobody reads the pipe, and it is full."""
    signal_to(reader.pid, signal.SIGSTOP)
    pipe = os.open(scene.folder / "log-pipe", os.O_WRONLY | os.O_NONBLOCK)
    try:
        while os.write(pipe, b"filler\n" * 64):
            pass
    except OSError as error:
        if error.errno != errno.EAGAIN:
            raise
    finally:
        os.close(pipe)
