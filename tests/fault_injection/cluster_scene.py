"""One store with its server, forwarder and producers, on a cluster of three NATS servers."""

import json
import random
import shutil
import subprocess
import time
from collections import Counter

from crafted import Crafted
from programs import SLOWNESS, START_BOUND, Broken, Program, poll

RECOVERY_BOUND = SLOWNESS * 60
RESTART_PAUSE = 0.3
CHUNK_LIMIT = 960 << 10


class Scene:
    """One store with its server, its forwarder, and producers, on a cluster that cases share."""

    def __init__(self, cluster, programs, folder, number, seed):
        self.cluster, self.programs, self.number = cluster, programs, number
        self.rng = random.Random(f"{seed}/{number}")
        self.folder = folder / str(number)
        self.folder.mkdir()
        self.store = self.folder / "store"
        self.store.mkdir()
        self.socket = self.folder / "socket"
        self.host = f"host-{number}"
        self.credentials = self.folder / "credentials"
        self.credentials.write_text("forward:secret\n")
        self.credentials.chmod(0o600)
        self.clock = self.folder / "clock"
        self.clock.write_bytes(bytes(8))
        self.programs_started = 0
        self.server = self.forwarder = None
        self.restarts = 0
        self.sends = []
        self.servers_lost_memory = False  # and so, perhaps, what they had acknowledged

    def start(self, name, command, environment=None):
        self.programs_started += 1
        return Program(f"{name}-{self.programs_started}", self.folder, command, environment)

    def start_server(self):
        self.server = self.start("orvaned", [self.programs / "orvaned", "--socket", self.socket,
                                             "--store", self.store])

    def start_forwarder(self, at_once=None, options=()):
        self.forwarder = self.start(
            "forwarder",
            [self.programs / "orvane-forward", "--store", self.store, "--host", self.host, "--nats",
             self.cluster.urls, "--creds", self.credentials, "--streams-at-once",
             at_once or self.rng.randrange(1, 6), "--metrics", self.folder / "metrics", *options],
            {"LD_PRELOAD": str(self.programs / "stepped_clock.so"), "STEPPED_CLOCK": str(self.clock)})

    def begin(self):
        self.start_server()
        poll(lambda: " serving " in self.server.errors, START_BOUND, "orvaned was not ready")
        for number in range(self.rng.randrange(0, 4)):
            self.craft(number)
        self.start_forwarder()
        for _ in range(self.rng.randrange(1, 5)):
            self.send()

    def craft(self, number):
        """A stream that is there before the forwarder starts, with files of all kinds."""
        stream = Crafted(self.store, f"20260101T000000-1_{number}", "crafted")
        for _ in range(self.rng.randrange(0, 5)):
            stream.segment(self.rng.randbytes(self.rng.choice([1, 1000, CHUNK_LIMIT, CHUNK_LIMIT + 1])))
        others = [self.rng.randbytes(10)] * self.rng.randrange(0, 2)
        stream.others(*others).write()

    def send(self):
        file = self.folder / f"file-{len(self.sends)}"
        file.write_bytes(self.rng.randbytes(self.rng.randrange(1, 4_000_000)))
        self.sends.append(self.start("send", [
            self.programs / "orvane", "send", "--quiet", "--socket", self.socket, "--segment-size",
            self.rng.choice(["100kB", "1MB", "64MiB"]), file]))

    def pause(self):
        """Until a random instant while streams are sent and forwarded."""
        time.sleep(self.rng.uniform(0, 0.6))

    def keep_running(self):
        """As a service manager does."""
        if not self.server.runs():
            self.start_server()
            self.restarts += 1
        if not self.forwarder.runs():
            time.sleep(RESTART_PAUSE)
            self.start_forwarder()
            self.restarts += 1

    def ended(self):
        return sorted(path.name for path in self.store.iterdir() if (path / "manifest").exists())

    def is_forwarded(self):
        self.keep_running()
        marks = self.store / ".forwarded"
        return marks.exists() and all((marks / name).exists() for name in self.ended()) and all(
            not send.runs() for send in self.sends) and not self.open_streams()

    def rest(self):
        """What is not as it must be in the end."""
        marks = self.store / ".forwarded"
        return {"not marked": [name for name in self.ended() if not (marks / name).exists()],
                "open": [path.name for path in self.open_streams()],
                "being sent": [send.name for send in self.sends if send.runs()]}

    def open_streams(self):
        return [path for path in self.store.iterdir() if (path / "manifest.part").exists()]

    def check(self):
        try:
            poll(self.is_forwarded, RECOVERY_BOUND, "not everything was forwarded")
        except Broken as broken:
            raise Broken(f"{broken}: {self.rest()}") from broken
        if self.servers_lost_memory:
            self.verify()
        expected = Counter()
        for name in self.ended():
            expected.update(self.fetch(name))
        found = {subject: count for subject, count in self.cluster.subjects().items()
                 if subject.startswith(f"orvane.1.{self.host}.")}
        if any(count != 1 for count in found.values()):
            raise Broken(f"a chunk is there more than once: {found}")
        if missing := set(expected) - set(found):
            raise Broken(f"chunks are missing: {sorted(missing)[:3]}")
        return len(self.ended()), len(found)

    def verify(self):
        """What the documents tell to do after several servers have failed at once."""
        self.forwarder.clear_away()
        self.start_forwarder(options=["--once", "--verify"])
        poll(lambda: not self.forwarder.runs(), RECOVERY_BOUND, "--verify did not end")
        if self.forwarder.process.returncode != 0:
            raise Broken(f"--verify ended with {self.forwarder.process.returncode}")

    def fetch(self, name):
        """Compares a stream; returns the subject that every complete one has."""
        into = self.folder / "fetched" / name
        into.parent.mkdir(exist_ok=True)
        queue = next(line[6:] for line in (self.store / name / "manifest").read_text(
            errors="replace").splitlines() if line.startswith("queue="))
        queue = self.folder.name if queue.startswith("orvane-") else queue
        ended = subprocess.run(
            [self.programs / "orvane", "fetch", "--nats", self.cluster.urls, "--creds",
             self.credentials, f"{self.host}/{queue}/{name}", into],
            check=False, capture_output=True, text=True)
        if ended.returncode != 0:
            raise Broken(f"fetch of {name}: {ended.stdout.strip()} {ended.stderr.strip()}")
        want = {path.name: path.read_bytes() for path in (self.store / name).iterdir()}
        got = {path.name: path.read_bytes() for path in into.iterdir()}
        if want != got:
            raise Broken(f"{name} differs: {sorted(want)} and {sorted(got)}")
        escaped = name.replace(".", "%2E")
        return [f"orvane.1.{self.host}.{queue}.{escaped}.manifest"]

    def clear_away(self):
        for program in (self.server, self.forwarder, *self.sends):
            if program is not None:
                program.clear_away()
        self.cluster.ask("$JS.API.STREAM.PURGE.orvane",
                         json.dumps({"filter": f"orvane.1.{self.host}.>"}).encode())
        shutil.rmtree(self.folder)
