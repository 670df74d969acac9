"""Kills orvane prune at random instants, while a server, a producer and readers use the store.

Each stream must be whole or gone afterwards, and only those may be gone that were to be removed.
Readers must find no damage. Every choice follows from the number of the kill and the seed; how the
operating system orders the processes does not.
"""

import argparse
import contextlib
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from collections import Counter
from pathlib import Path

import machine
import table
from crafted import Crafted
from programs import START_BOUND, Broken, poll
from scene import Scene
from stored import FOLDER, StoredStream

HIDDEN = re.compile(r"\.(?P<stream>.+)\.removed")
CALLS = {"flock": 12, "renameat2": 12, "fsync": 1, "unlinkat": 60, "openat": 60, "exit_group": 1}
RESTART = 50  # kills; then the next server has to remove what the last kill left
LIMIT = ["--older-than", "1d"]


class Readers:
    """Checks the whole store and sends a file, again and again, until it is left."""

    def __init__(self, scene):
        self.scene = scene
        self.ended = threading.Event()
        self.failure = ""
        self.threads = [threading.Thread(target=self.run, args=[work])
                        for work in (self.verify, self.send)]
        self.file = scene.new_file(20_000)
        self.stored = self.checked = 0
        self.server_runs = threading.Lock()

    def __enter__(self):
        for thread in self.threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self.ended.set()
        for thread in self.threads:
            thread.join()

    def run(self, work):
        while not self.ended.is_set():
            work()

    def verify(self):
        ended = subprocess.run([self.scene.binaries / "orvane", "verify", self.scene.store],
                               check=False, capture_output=True, text=True)
        self.checked += 1
        if ended.returncode != 0:
            self.failure = f"verify: {ended.stdout} {ended.stderr}"

    def send(self):
        with self.server_runs:
            ended = subprocess.run(
                [self.scene.binaries / "orvane", "send", "--socket", self.scene.socket, self.file],
                check=False, capture_output=True, text=True)
        self.stored += 1
        if ended.returncode != 0:
            self.failure = f"send: {ended.stderr}"
        self.ended.wait(0.2)


def add_streams(rng, store, number):
    """Streams that are to be removed, and some that are too young, or have not ended."""
    old, kept = [], []
    now = time.strftime("%Y-%m-%dT%H:%M:%S.000Z", time.gmtime())
    for index in range(rng.randrange(2, 12)):
        stream = Crafted(store, f"20260101T000000-{number + 1}_{index}", "old")
        for _ in range(rng.randrange(0, 6)):
            stream.segment(rng.randbytes(rng.randrange(1, 2000)))
        day = rng.randrange(1, 29)
        old.append(stream.others().write(ended=f"2026-01-{day:02}T00:00:00.000Z"))
    young = Crafted(store, f"20260101T000000-{number + 1}_0", "young")
    kept.append(young.segment(b"young").others().write(ended=now))
    return old, kept


def prune_command(scene):
    return [scene.binaries / "orvane", "prune", *LIMIT, scene.store]


def kill_prune(scene, rng, duration):
    """Returns how it was killed, at a system call or after a time, and whether it was."""
    if not machine.missing("strace") and rng.random() < 0.7:
        call = rng.choice(list(CALLS))
        number = int(CALLS[call] ** rng.random())
        command = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", f"trace={call}", "-e",
                   f"inject={call}:signal=KILL:when={number}", *prune_command(scene)]
        ended = subprocess.run(command, check=False, stdout=subprocess.DEVNULL)
        return "at a system call", require_killed(ended.returncode)
    process = subprocess.Popen(prune_command(scene), stdout=subprocess.DEVNULL)
    with contextlib.suppress(subprocess.TimeoutExpired):
        process.wait(rng.uniform(0, 1.2 * duration))
    process.kill()
    return "after a time", require_killed(process.wait())


def require_killed(code):
    """False when it ended before."""
    if code not in (0, -signal.SIGKILL, 128 + signal.SIGKILL):
        raise Broken(f"prune ended with {code}")
    return code != 0


def names_in(store):
    names = {path.name for path in store.iterdir()}
    return {name for name in names if FOLDER.fullmatch(name)}, {name for name in names if
                                                              HIDDEN.fullmatch(name)}


def hidden_name(path):
    return f".{path.name}.removed"


def check(scene, earlier, old, kept):
    """Each stream that was to be removed is whole or gone, the others are whole. Returns the moment
    of the kill, seen from the streams that came last."""
    streams, hidden = names_in(scene.store)
    left = [path for path in old if path.name in streams]
    for path in [path for path in earlier if path.name in streams] + left + kept:
        StoredStream(path)  # checks all of it; one that is gone and must not be has no manifest
    unknown = hidden - set(map(hidden_name, [*earlier, *old]))
    if unknown:
        raise Broken(f"hidden: {unknown}")
    if len(left) == len(old):
        return "before"
    return "during" if left or hidden & set(map(hidden_name, old)) else "after"


def require_cleared(scene, old):
    streams, hidden = names_in(scene.store)
    left = hidden | {path.name for path in old if path.name in streams}
    if left:
        raise Broken(f"still there: {sorted(left)}")


def prune(scene):
    """Undisturbed. Returns how long it took."""
    start = time.monotonic()
    ended = subprocess.run(prune_command(scene), check=False, capture_output=True, text=True)
    if ended.returncode != 0:
        raise Broken(f"prune ended with {ended.returncode}: {ended.stderr.strip()}")
    return time.monotonic() - start


def no_hidden(scene):
    return not names_in(scene.store)[1]


class Kills:
    def __init__(self, scene, readers, options):
        self.scene = scene
        self.readers = readers
        self.options = options
        self.server = scene.servers[-1]
        self.runs = Counter()
        self.wrong = 0
        self.duration = 0.05
        self.earlier = []  # streams that killed processes may have left

    def run(self):
        for number in range(self.options.count):
            try:
                self.kill(number)
            except Broken as broken:
                self.report(number, broken)
            if self.readers.failure:
                self.report(number, self.readers.failure)
                self.readers.failure = ""

    def report(self, number, failure):
        self.wrong += 1
        print(f"WRONG: kill {number}: {failure}", flush=True)

    def kill(self, number):
        rng = random.Random(f"{self.options.seed}/{number}")
        old, kept = add_streams(rng, self.scene.store, number)
        how, killed = kill_prune(self.scene, rng, self.duration)
        moment = check(self.scene, self.earlier, old, kept)
        self.runs[how, moment if killed else "not killed"] += 1
        self.earlier += old
        if number % RESTART == RESTART - 1:
            self.restart()
        if rng.random() < 0.5:  # else the next prune has to remove what is left
            self.duration = prune(self.scene)
            require_cleared(self.scene, self.earlier)
            self.earlier = []
        for path in kept:
            shutil.rmtree(path.rename(path.with_name("." + path.name)))

    def restart(self):
        with self.readers.server_runs:
            self.scene.stop(self.server)
            self.server = self.scene.serve()
        poll(lambda: no_hidden(self.scene), START_BOUND, "the server did not remove what is hidden")


def parse_options():
    parser = argparse.ArgumentParser(prog="./dev faults --prune", description=__doc__.splitlines()[0])
    parser.add_argument("count", nargs="?", type=int, default=1000, metavar="COUNT",
                        help="how many kills (1000)")
    parser.add_argument("seed", nargs="?", default=str(int(time.time())), metavar="SEED",
                        help="any text; without it, the time")
    parser.add_argument("--programs", type=Path, required=True, help=argparse.SUPPRESS)
    return parser.parse_args()


def check_sent(scene):
    """What was sent meanwhile is all there, and whole."""
    content = scene.contents[-1]
    streams = [StoredStream(path) for path in scene.store.iterdir()
               if FOLDER.fullmatch(path.name) and not path.name.startswith(("old-", "young-"))]
    return sum(stream.holds(content) for stream in streams)


def show(kills, readers, seconds, seed):
    print(f"Kills of orvane prune with seed {seed}, {seconds:.0f} s. Meanwhile the store was checked "
          f"{readers.checked} times, and {readers.stored} files were sent.\n")
    rows = [[how, moment, kills.runs[how, moment]] for how, moment in sorted(kills.runs)]
    table.show_rows([["killed", "when", "runs"], *rows,
                     ["all", "", kills.runs.total()]])
    print(f"\n{kills.runs.total()} kills, {kills.wrong} with something wrong")


def main():
    options = parse_options()
    folder = Path(tempfile.mkdtemp(prefix="orvane-prune-kills-"))
    scene = Scene(options.seed, 0, options.programs.resolve(), folder)
    start = time.monotonic()
    try:
        scene.serve()
        with Readers(scene) as readers:
            kills = Kills(scene, readers, options)
            kills.run()
        prune(scene)
        if check_sent(scene) != readers.stored:
            kills.report(options.count, f"of {readers.stored} files, {check_sent(scene)} are stored")
        scene.stop(kills.server)
    finally:
        scene.clear_away()
        shutil.rmtree(folder)
    show(kills, readers, time.monotonic() - start, options.seed)
    return 1 if kills.wrong else 0


if __name__ == "__main__":
    sys.exit(main())
