"""Injects faults into a server, a forwarder and three NATS servers while streams are forwarded.

After each fault, without anybody's help: every stream that has ended is forwarded, each chunk is in the
cluster once and none is missing, and what is fetched is byte for byte what the store has. The harness
restarts a program that has ended, as a service manager does, and undoes what the fault has done to the
world: the disk has room again, the server runs again, the credentials are valid again.
"""

import argparse
import contextlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import machine
import table
from cluster_cases import ADMIN, CASES, FORWARD, users
from cluster_scene import CHUNK_LIMIT, RECOVERY_BOUND, Scene
from crafted import Crafted
from nats_cluster import NatsCluster
from programs import Broken, poll

DISK = 480 << 20
LARGEST_STORE = 432 << 20


class TestBed:
    """A cluster whose servers store on small disks of their own, where this user may mount them."""

    def __init__(self, folder, programs):
        self.folder, self.programs = folder, programs
        folder.mkdir()
        self.cluster = NatsCluster(folder)
        self.mounted = 0
        self.undo = contextlib.ExitStack()

    def mount(self, store):
        if machine.works("mount", "-t", "tmpfs", "-o", f"size={DISK}", "none", store):
            self.undo.callback(subprocess.run, ["umount", store], check=False)
            self.mounted += 1

    def has_disks(self):
        return self.mounted == len(self.cluster.servers)

    def __enter__(self):
        with contextlib.ExitStack() as stack:
            stack.push(self)
            for server in self.cluster.servers:
                server.users = users(ADMIN, FORWARD)
                server.max_store = LARGEST_STORE
                server.store.mkdir()
                self.mount(server.store)
            self.undo.enter_context(self.cluster)
            self.make_stream()
            stack.pop_all()
        return self

    def __exit__(self, *_):
        self.undo.close()

    def make_stream(self):
        """Forwards an empty store, as an operator does it."""
        store = self.folder / "empty"
        store.mkdir()
        credentials = self.folder / "admin"
        credentials.write_text("admin:admin\n")
        credentials.chmod(0o600)
        subprocess.run([self.programs / "orvane-forward", "--once", "--replicas", "3", "--store", store,
                        "--nats", self.cluster.urls, "--creds", credentials], check=True,
                       stderr=subprocess.DEVNULL)


class Row:
    """The results of one kind of fault. Threads add to it."""

    def __init__(self, text):
        self.text = text
        self.runs = self.streams = self.chunks = self.restarts = self.wrong = 0

    def cells(self):
        return [self.text, "", self.runs, self.streams, self.chunks, self.restarts, self.wrong]


def run_case(scene, fault):
    """Returns how many streams and chunks were compared."""
    scene.begin()
    scene.pause()
    steps = fault(scene)
    next(steps)
    scene.pause()
    for _ in range(scene.rng.randrange(0, 10)):
        scene.keep_running()
        scene.pause()
    next(steps, None)
    scene.cluster.heal()
    return scene.check()


def run_number(number, bed, options, rows):
    row = rows[number % len(rows)]
    scene = Scene(bed.cluster, bed.programs, bed.folder, number, options.seed)
    start = time.monotonic()
    row.runs += 1
    try:
        streams, chunks = run_case(scene, CASES[row.text])
        row.streams += streams
        row.chunks += chunks
    except Broken as broken:
        row.wrong += 1
        print(f"WRONG: {row.text}: {broken}\n  repeat: ./dev faults cluster --case {number} 1 "
              f"{options.seed}", flush=True)
        if scene.forwarder is not None:
            print("  " + "\n  ".join(scene.forwarder.errors.splitlines()[-5:]), flush=True)
        bed.cluster.heal()
    finally:
        row.restarts += scene.restarts
        scene.clear_away()
    if time.monotonic() - start > RECOVERY_BOUND:
        print(f"slow: {row.text}: {time.monotonic() - start:.0f} s", flush=True)


def measure_outage(programs, folder, cluster, seconds):
    """All servers are away in the middle of eight streams. Returns how many chunks were sent again."""
    scene = Scene(cluster, programs, folder, "outage", "outage")
    streams = 8
    for number in range(streams):
        stream = Crafted(scene.store, f"20260101T000000-1_{number}", "crafted")
        stream.segment(scene.rng.randbytes(40 * CHUNK_LIMIT)).others().write()
    try:
        scene.start_server()
        scene.start_forwarder(at_once=streams)
        poll(lambda: len(cluster.subjects()) > streams, RECOVERY_BOUND, "nothing was forwarded")
        for server in cluster.servers:
            server.stop()
        time.sleep(seconds)
        cluster.heal()
        scene.check()
        scene.forwarder.strike(signal.SIGTERM)
        scene.forwarder.process.wait()
        metrics = dict(line.split() for line in (scene.folder / "metrics").read_text().splitlines()
                       if not line.startswith("#"))
        return streams, int(metrics["orvane_forward_repeated_chunks_total"])
    finally:
        scene.clear_away()


def parse_options():
    parser = argparse.ArgumentParser(prog="./dev faults cluster", description=__doc__.splitlines()[0])
    parser.add_argument("count", nargs="?", type=int, default=1000, metavar="COUNT",
                        help="how many faults (1000)")
    parser.add_argument("seed", nargs="?", default=str(int(time.time())), metavar="SEED",
                        help="any text; without it, the time")
    parser.add_argument("--jobs", type=int, default=1, help="how many clusters at the same time (1)")
    parser.add_argument("--case", type=int, help="run only the fault with this number")
    parser.add_argument("--outage", type=float, metavar="SECONDS",
                        help="instead: stop all servers for this time in the middle of eight streams, "
                             "and count the chunks that are sent again")
    parser.add_argument("--programs", type=Path, required=True, help=argparse.SUPPRESS)
    return parser.parse_args()


def run_all(options, folder):
    """Returns the rows of the table."""
    rows = []
    programs = options.programs.resolve()
    with contextlib.ExitStack() as stack:
        beds = [stack.enter_context(TestBed(folder / f"bed-{job}", programs)) for job in range(options.jobs)]
        rows = [Row(text) for text in CASES
                if "disk" not in text or all(bed.has_disks() for bed in beds)]
        numbers = [options.case] if options.case is not None else range(options.count)
        waiting = iter(numbers)

        def work(bed):
            for number in waiting:
                run_number(number, bed, options, rows)
        with ThreadPoolExecutor(options.jobs) as threads:
            for ended in [threads.submit(work, bed) for bed in beds]:
                ended.result()
    return rows


def run_outage(options, folder):
    programs = options.programs.resolve()
    with TestBed(folder / "bed", programs) as bed:
        streams, repeated = measure_outage(bed.programs, bed.folder, bed.cluster,
                                           options.outage)
    print(f"{options.outage:.0f} s without a cluster: {repeated} chunks of {streams} streams were sent "
          "again")
    return 1 if repeated > streams else 0


def show(rows, options, seconds):
    total = Row("all")
    for name in ("runs", "streams", "chunks", "restarts", "wrong"):
        setattr(total, name, sum(getattr(row, name) for row in rows))
    print(f"Faults of a cluster with seed {options.seed}, {seconds:.0f} s. Columns: streams and chunks "
          "that were compared,\nand how often a program was started again.\n")
    table.show_rows([["what is done", "", "runs", "streams", "chunks", "restarts", "wrong"],
                     *(row.cells() for row in rows if row.runs > 0), total.cells()])
    for text in set(CASES) - {row.text for row in rows}:
        print(f"not run: {text}: this user may not mount")
    print(f"\n{total.runs} faults, {total.wrong} with something wrong")
    return 1 if total.wrong else 0


def main():
    options = parse_options()
    folder = Path(tempfile.mkdtemp(prefix="orvane-cluster-faults-"))
    try:
        if options.outage is not None:
            return run_outage(options, folder)
        start = time.monotonic()
        rows = run_all(options, folder)
        return show(rows, options, time.monotonic() - start)
    finally:
        shutil.rmtree(folder)


if __name__ == "__main__":
    sys.exit(main())
