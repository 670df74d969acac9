"""Changes one thing in a store, again and again; orvane verify has to find just that.

The store has streams of real servers, with compression and without, also of some that were killed,
and crafted ones. Every choice follows from the number of the fault and the seed.
"""

import argparse
import json
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from collections import Counter
from pathlib import Path

import table
from crafted import Crafted
from programs import START_BOUND, Broken, poll
from scene import Scene
from stored import is_compressed

LINES = 0.4  # of the faults of files hit a manifest, so that its lines are changed often enough


def fill_store(scene):
    for scene.compression in (None, "zstd"):
        store_streams(scene)
    add_crafted(scene.rng, scene.store)


def store_streams(scene):
    """Whole streams, one that was stopped, one whose producer died, and those of a dead server."""
    server = scene.serve()
    scene.size = 300_000
    scene.segments = 5
    scene.segment_size = scene.size // scene.segments + 1
    for size in (0, 1, 3000, 300_000, 1_000_000):
        for way in ("fixed", "leased"):
            scene.start_send(way, [scene.new_file(size)]).wait()
    for number in (signal.SIGTERM, signal.SIGKILL):
        cut_while_storing(scene, lambda send, number=number: send.strike(number))
    cut_while_storing(scene, lambda _send: server.kill_all())
    server = scene.serve()
    poll(lambda: all((stream / "manifest").exists() for stream in scene.streams()), START_BOUND,
         "not every stream was finished")
    scene.stop(server)


def cut_while_storing(scene, strike):
    """Does so to a producer that has stored a part of a long file."""
    before = scene.stored_bytes()
    send = scene.start_send("leased", [scene.new_file(10_000_000)])
    poll(lambda: scene.stored_bytes() > before + 100_000, START_BOUND, "nothing was stored")
    strike(send)
    send.wait()


def add_crafted(rng, store):
    def data():
        return rng.randbytes(rng.randrange(1, 5000))
    Crafted(store, "20260101T000000-1_0").segment(data()).others(data(), b"", data()).write()
    Crafted(store, "20260101T000000-1_1").others(data()).write(end="stopped")
    Crafted(store, "20260101T000000-1_2").segment(data()).segment(data()).unfinished(
        data()).write(end="cut-off", reason="the%20server%20died")
    Crafted(store, "20260101T000000-1_3").segment(data()).segment(
        data(), file="segment-000001.part").others().write(end="broken", reason="a%20full%20disk")
    many = Crafted(store, "20260101T000000-1_4")
    for _ in range(200):
        many.segment(rng.randbytes(rng.randrange(1, 200)))
    many.others().write()
    for number in (5, 6):
        Crafted(store, f"20260101T000000-1_{number}").segment(data()).segment(data()).others(
            data()).write(version=1)


def decompressed(path):
    """By another program; nothing if it cannot."""
    ended = subprocess.run(["zstdcat", path], capture_output=True, check=False)
    return ended.stdout if ended.returncode == 0 else None


class Fault:
    """A change of one file, which can be undone; `found` is what verify must name. It need not if the
    data is the same: a compressed file has some bits that mean nothing, such as those of a window
    that is larger than it needs to be."""

    def __init__(self, rng, store):
        self.rng = rng
        streams = sorted(path for path in store.iterdir() if path.is_dir())
        self.folder = rng.choice(streams)
        files = sorted(path.name for path in self.folder.iterdir())
        others = [name for name in files if name != "manifest"]
        self.name = "manifest" if not others or rng.random() < LINES else rng.choice(others)
        self.path = self.folder / self.name
        self.content = self.path.read_bytes()
        self.found = {self.name}
        self.is_same_data = False
        self.is_first_format = (self.folder / "manifest").read_bytes().startswith(b"format=1\n")
        self.kind = rng.choice(self.kinds())
        getattr(self, self.kind)()

    def kinds(self):
        if self.name != "manifest":
            return ["flip", "cut", "remove", "rename"]
        if self.is_first_format:
            return ["contradict", "remove"]
        return ["flip", "cut", "remove", "rename", "change_line", "change_line"]

    def write(self, content):
        self.path.write_bytes(content)

    def flip(self):
        at = self.rng.randrange(len(self.content))
        changed = bytearray(self.content)
        changed[at] ^= self.rng.randrange(1, 256)
        before = decompressed(self.path) if is_compressed(self.name) else None
        self.write(bytes(changed))
        self.is_same_data = before is not None and decompressed(self.path) == before

    def cut(self):
        self.write(self.content[:self.rng.randrange(len(self.content))])

    def remove(self):
        self.path.unlink()

    def rename(self):
        taken = {path.name for path in self.folder.iterdir()}
        names = [self.name + ".part", self.name + ".old", "segment-999999", "other-records",
                 "notes", self.name.removesuffix(".part")]
        self.renamed = self.folder / self.rng.choice([n for n in names if n not in taken])
        self.path.rename(self.renamed)
        if self.name != "manifest":
            self.found = {self.name, self.renamed.name}

    def change_line(self):
        """One line is missing, is there twice, has another place, or another character."""
        lines = self.content.decode().splitlines(keepends=True)
        at = self.rng.randrange(len(lines))
        other = self.rng.choice([n for n in range(len(lines)) if lines[n] != lines[at]])
        how = self.rng.choice(["without", "twice", "swapped", "changed"])
        if how == "without":
            del lines[at]
        elif how == "twice":
            lines.insert(at, lines[at])
        elif how == "swapped":
            lines[at], lines[other] = lines[other], lines[at]
        else:
            lines[at] = self.changed(lines[at], range(len(lines[at]) - 1))
        self.write("".join(lines).encode())

    def changed(self, line, places):
        place = self.rng.choice(places)
        letters = [c for c in "0123456789abcdefxyz=-_ " if c != line[place]]
        return line[:place] + self.rng.choice(letters) + line[place + 1:]

    def contradict(self):
        """A line of format 1 that then does not fit to another line, to a file or to the folder."""
        lines = self.content.decode().splitlines(keepends=True)
        known = [n for n, line in enumerate(lines)
                 if line.startswith(("queue=", "stream=", "segment ", "other-records=", "receipt ",
                                     "records=", "bytes=", "end="))]
        at = self.rng.choice(known)
        line = lines[at]
        begin = {"segment": line.find("crc32="), "other-records": line.find("crc32=")}.get(
            line.split("=")[0].split(" ")[0], line.find("="))
        places = [n for n in range(begin + 1, len(line) - 1) if line[n].isdigit()] or [begin + 1]
        lines[at] = self.changed(line, places)
        self.write("".join(lines).encode())
        if "crc32=" in line:
            named = line.rstrip("\n").rpartition("file=")[2]
            self.found = {"manifest", named, "other-records"}

    def undo(self):
        if self.kind == "rename":
            self.renamed.rename(self.path)
        else:
            self.write(self.content)

    def check(self, reports):
        wrong = {report["stream"]: {one["file"] for one in report["damaged"]}
                 for report in reports if report["damaged"]}
        names = wrong.pop(self.folder.name, set())
        if wrong:
            raise Broken(f"invented: {wrong}")
        may_be_some = self.kind == "contradict" or self.is_same_data
        is_missed = not names and not self.is_same_data
        if is_missed or not (names <= self.found if may_be_some else names == self.found):
            raise Broken(f"expected {sorted(self.found)}, found {sorted(names)}")


def verify(programs, store):
    ended = subprocess.run([programs / "orvane", "verify", "--json", store], check=False,
                           capture_output=True, text=True)
    reports = [json.loads(line) for line in ended.stdout.splitlines()]
    damaged = any(report["damaged"] for report in reports)
    if ended.returncode != (1 if damaged else 0):
        raise Broken(f"verify ended with {ended.returncode}: {ended.stderr.strip()}")
    return reports


def require_whole(programs, store):
    for report in verify(programs, store):
        if report["damaged"]:
            raise Broken(f"invented: {report}")


def parse_options():
    parser = argparse.ArgumentParser(prog="./dev faults --store", description=__doc__.splitlines()[0])
    parser.add_argument("count", nargs="?", type=int, default=1000, metavar="COUNT",
                        help="how many faults (1000)")
    parser.add_argument("seed", nargs="?", default=str(int(time.time())), metavar="SEED",
                        help="any text; without it, the time")
    parser.add_argument("--programs", type=Path, required=True, help=argparse.SUPPRESS)
    return parser.parse_args()


def inject(options, store):
    """Each fault; returns how many of each kind there were, and how many were not found as they
    should be."""
    runs, wrong = Counter(), Counter()
    for number in range(options.count):
        fault = Fault(random.Random(f"{options.seed}/{number}"), store)
        kind = (fault.kind.replace("_", " "), "manifest" if fault.name == "manifest" else "file")
        runs[kind] += 1
        try:
            fault.check(verify(options.programs, store))
        except Broken as broken:
            wrong[kind] += 1
            print(f"WRONG: fault {number}, {kind[0]} {fault.path}: {broken}", flush=True)
        fault.undo()
    return runs, wrong


def main():
    options = parse_options()
    options.programs = options.programs.resolve()
    folder = Path(tempfile.mkdtemp(prefix="orvane-store-faults-"))
    scene = Scene(options.seed, 0, options.programs, folder)
    start = time.monotonic()
    try:
        fill_store(scene)
        require_whole(options.programs, scene.store)
        runs, wrong = inject(options, scene.store)
        require_whole(options.programs, scene.store)
    finally:
        scene.clear_away()
        shutil.rmtree(folder)
    kinds = sorted(runs)
    print(f"Faults of stored files with seed {options.seed}, {time.monotonic() - start:.0f} s.\n")
    rows = [[what, where, runs[what, where], wrong[what, where]] for what, where in kinds]
    table.show_rows([["fault", "of a", "runs", "wrong"], *rows,
                     ["all", "", runs.total(), wrong.total()]])
    print(f"\n{runs.total()} faults, {wrong.total()} not found or found wrongly")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
