"""Injects faults while programs in C++, C and Python send streams, and checks that what they say is
certain is true of the store. Every random choice of a case follows from its number and the seed."""
import argparse
import collections
import concurrent.futures
import os
import random
import re
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import table

BOUND = 60  # seconds
KINDS = ["none", "server killed", "server ended", "server stopped", "server replaced", "full disk",
         "Ctrl-C"]
PRODUCERS = ["C++", "C", "Python"]
TRANSPORTS = ["ring", "queue"]
FILE_LIMIT = 9 << 20  # more than a ring has, less than most of what is sent


class Broken(Exception):
    """Something is not as it must be."""


def wait_until(condition, what):
    end = time.monotonic() + BOUND
    while not condition():
        if time.monotonic() > end:
            raise Broken(what)
        time.sleep(0.002)


class Case:
    def __init__(self, options, number, folder):
        self.rng = random.Random(f"{options.seed}/{number}")
        self.kind = KINDS[number % len(KINDS)]
        self.language = PRODUCERS[number // len(KINDS) % len(PRODUCERS)]
        self.transport = TRANSPORTS[number // len(KINDS) // len(PRODUCERS) % len(TRANSPORTS)]
        self.programs = options.programs
        self.folder = folder
        self.socket = folder / "socket"
        self.store = folder / "store"
        self.store.mkdir()
        fewest = 2 * FILE_LIMIT if self.kind == "full disk" else 1
        self.data = self.rng.randbytes(self.rng.randrange(fewest, 30_000_000))
        (folder / "file").write_bytes(self.data)
        self.server = None

    def start_server(self, limit=None):
        command = [self.programs / "orvaned", "--socket", self.socket, "--store", self.store,
                   "--sync", self.rng.choice(["none", "segment"])]
        shell = f"ulimit -f {limit // 1024}; " if limit else ""
        self.server = subprocess.Popen(["bash", "-c", shell + 'exec "$0" "$@"', *command],
                                       stderr=subprocess.PIPE, start_new_session=True)
        for line in self.server.stderr:
            if b"serving leases at" in line:
                return
        raise Broken("the server did not start")

    def signal_server(self, number):
        try:
            os.killpg(self.server.pid, number)
        except ProcessLookupError:
            pass

    def end_server(self, number=signal.SIGTERM):
        if number == signal.SIGTERM:
            self.server.send_signal(number)
        else:
            self.signal_server(number)
        self.server.wait(BOUND)
        self.server.stderr.close()

    def command(self):
        piece = self.rng.choice([100, 5000, 131072, 1_000_000])
        segment = self.rng.randrange(1, len(self.data) + 1)
        program = {"C++": [self.programs / "stream_producer"],
                   "C": [self.programs / "stream_producer_c"],
                   "Python": [sys.executable, "-B", Path(__file__).with_name("stream_producer.py")]}
        return [*program[self.language], self.socket, self.transport, self.folder / "file", str(piece),
                str(max(segment, len(self.data) // 20)), "1"]

    def stored_bytes(self):
        def size(path):
            try:
                return path.stat().st_size
            except FileNotFoundError:
                return 0  # it was renamed meanwhile
        return sum(size(path) for path in self.files("segment-*"))

    def files(self, pattern):
        for name in os.listdir(self.store):
            if name[0] != ".":
                yield from (self.store / name).glob(pattern)

    def run(self):
        self.start_server(FILE_LIMIT if self.kind == "full disk" else None)
        # Python prints where Ctrl-C came.
        producer = subprocess.Popen(self.command(), stdout=subprocess.PIPE, text=True,
                                    stderr=subprocess.DEVNULL if self.kind == "Ctrl-C" else None)
        try:
            part = self.rng.random() * 1.2 * len(self.data)
            end = time.monotonic() + self.rng.choice([0.05, 5])
            while producer.poll() is None and self.stored_bytes() < part and time.monotonic() < end:
                time.sleep(0.0005)
            self.inject(producer)
            said = producer.communicate(timeout=BOUND)[0].strip()
        finally:
            producer.kill()
            producer.wait()
        self.finish_streams()
        return self.check(producer.returncode, said)

    def inject(self, producer):
        if self.kind == "server killed":
            self.end_server(signal.SIGKILL)
        elif self.kind == "server ended":
            self.end_server()
        elif self.kind == "server stopped":
            self.signal_server(signal.SIGSTOP)
            time.sleep(self.rng.uniform(0, 3))
            self.signal_server(signal.SIGCONT)
        elif self.kind == "server replaced":
            self.end_server()
            self.start_server()
        elif self.kind == "Ctrl-C":
            producer.send_signal(signal.SIGINT)

    def finish_streams(self):
        """The next server finishes what a dead one left."""
        if self.server.poll() is not None:
            self.start_server()
        wait_until(lambda: len(list(self.files("manifest"))) == len(self.streams()),
                   "a stream was not finished")
        self.end_server()

    def streams(self):
        return [self.store / name for name in os.listdir(self.store) if name[0] != "."]

    def is_stored(self):
        streams = self.streams()
        if len(streams) > 1:
            raise Broken(f"there are {len(streams)} streams")
        for stream in streams:
            manifest = (stream / "manifest").read_text(errors="replace")
            names = re.findall(r"^segment .* file=(segment-\d+)$", manifest, re.MULTILINE)
            if "\nend=closed\n" in manifest:
                if b"".join((stream / name).read_bytes() for name in names) != self.data:
                    raise Broken("a closed stream has other data")
                return True
        return False

    def check(self, code, said):
        """What came of the case: what the producer said, which must be true."""
        stored = self.is_stored()
        if not said and self.kind != "Ctrl-C":
            raise Broken(f"the producer said nothing and ended with {code}")
        found = re.match("stored|not stored|unknown|$", said)
        if found is None:
            raise Broken(f'the producer said "{said}"')
        outcome = found[0] or "interrupted"
        if (outcome == "stored" and not stored) or (outcome == "not stored" and stored):
            raise Broken(f'the producer said "{said}", and the stream is {"" if stored else "not "}stored')
        if outcome != "stored" and not self.may_fail(said):
            raise Broken(f'nothing was wrong, and the producer said "{said}"')
        return outcome

    def may_fail(self, said):
        """A server that is stopped may be inside a queue's lock, or not have given the lease yet."""
        if self.kind == "server stopped":
            return self.transport == "queue" or "waiting 1s for the server's answer" in said
        return self.kind != "none"

    def clear_away(self):
        if self.server is not None:
            self.signal_server(signal.SIGKILL)
            self.server.wait()
            self.server.stderr.close()


def run_case(options, number):
    """Returns the case and what came of it; the second is None if something was wrong."""
    with tempfile.TemporaryDirectory(prefix="orvane-faults-") as folder:
        case = Case(options, number, Path(folder))
        try:
            return case, case.run()
        except (Broken, subprocess.TimeoutExpired) as broken:
            print(f"case {number}, seed {options.seed}, {case.kind}, {case.language}, {case.transport}: "
                  f"{broken}", flush=True)
            return case, None
        finally:
            case.clear_away()
            case.data = b""  # all cases are kept to the end


def parse_options():
    parser = argparse.ArgumentParser(prog="./dev faults --streams", description=__doc__.split(". ")[0])
    parser.add_argument("count", nargs="?", type=int, default=1000, metavar="COUNT",
                        help="how many faults (1000)")
    parser.add_argument("seed", nargs="?", default=str(int(time.time())), metavar="SEED",
                        help="any text; without it, the time")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="cases side by side")
    parser.add_argument("--case", type=int, metavar="NUMBER", help="run this one alone")
    parser.add_argument("--programs", type=Path, required=True, help=argparse.SUPPRESS)
    return parser.parse_args()


def main():
    options = parse_options()
    options.programs = options.programs.resolve()
    numbers = range(options.count) if options.case is None else [options.case]
    # A program that was started in the background ignores Ctrl-C, and so would the producers.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    start = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        results = list(pool.map(lambda number: run_case(options, number), numbers))
    outcomes = collections.Counter((case.kind, case.language, outcome) for case, outcome in results
                                   if outcome is not None)
    wrong = len(results) - outcomes.total()
    print(f"Faults while a stream is sent, with seed {options.seed}, {time.monotonic() - start:.0f} s.\n")
    table.show_rows([["fault", "producer", "it said", "runs"],
                     *([*key, count] for key, count in sorted(outcomes.items())),
                     ["all", "", "", outcomes.total()]])
    print(f"\n{len(results)} faults, {wrong} with something wrong")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
