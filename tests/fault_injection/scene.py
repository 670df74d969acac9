"""One case's world: a server, its producers, and their own store and names."""

import contextlib
import os
import random
import re
import signal
import subprocess
import time
from pathlib import Path

import stored
from programs import START_BOUND, STOP_BOUND, Broken, Program, Send, Server, poll

SHM = "/dev/shm"
SMALLEST = b"14 crates of oranges"  # what the example sends

# How the producers of one case reach the server: by the fixed name, or by a lease each.
WAYS = {
    "one fixed": ["fixed"],
    "one leased": ["leased"],
    "eight leased": ["leased"] * 8,
    "one fixed, seven leased": ["fixed"] + ["leased"] * 7,
}


def remove(path):
    if path.is_dir() and not path.is_symlink():
        path.rmdir()
    else:
        path.unlink(missing_ok=True)


def text_of(rng, size):
    """Lines that no other text has, about a third as large when they are compressed."""
    words = [b"%x" % rng.getrandbits(40) for _ in range(64)]
    text = bytearray()
    while len(text) < size:
        text += b"%08x %s %s\n" % (rng.getrandbits(32), rng.choice(words), rng.choice(words))
    return bytes(text[:size])


class Scene:
    def __init__(self, seed, number, binaries, folder, compression=None):
        self.rng = rng = random.Random(f"{seed}/{number}")
        self.binaries = binaries
        self.folder = folder
        self.queue = f"faults-{os.getpid()}-{number}"
        self.store = folder / "store"
        self.socket = folder / "socket"
        self.store.mkdir()
        self.way = rng.choice(list(WAYS))
        self.segments = rng.randrange(1, 25)
        self.size = rng.randrange(100_000, 2_000_000) // len(WAYS[self.way])
        self.compression = compression  # of the server
        if compression:
            # What is compressed is decided after 1 MiB of a segment: some are longer, some shorter.
            self.segments = rng.randrange(1, 4)
            self.size = rng.randrange(500_000, 4_000_000)
        self.segment_size = self.size // self.segments + 1
        self.geometry = ["--messages", rng.randrange(1, 9),
                         "--message-size", rng.choice([2048, 8192, 65536])]
        self.sync = rng.choice(["always", "segment", "none"])
        self.servers = []
        self.sends = []
        self.others = []  # other programs
        self.contents = [SMALLEST]
        self.prefix = []  # of every command
        self.root = Path("/")
        self.moment = "missed"
        self.may_fail = 0
        self.dead_runs = []  # the processes of servers that the case only pretends to have been
        self.strangers = set()  # the queues and rings that another program also sends to
        self.has_queue = True  # a fixed one
        self.transports = ["queue", "ring"]  # of a lease
        self.undo = lambda: None  # what an administrator would mend after the fault
        self.needs_recovery = False  # what the store refused, only the next start can finish

    def seen(self, path):
        """A path as this process finds it, when the programs have their own mounts."""
        return self.root / str(path).lstrip("/")

    def program(self, kind, name, command, **options):
        return kind(f"{name}-{len(self.servers) + len(self.sends) + len(self.others)}",
                    self.folder, [*self.prefix, *command], **options)

    def start_server(self, prefix=(), environment=None, options=(), is_ready=None):
        queue = ["--queue", self.queue] if self.has_queue else []
        command = [*prefix, self.binaries / "orvaned", *queue, "--socket", self.socket,
                   "--store", self.store, "--sync", self.sync, *self.geometry,
                   *(["--compress", self.compression] if self.compression else []), *options]
        server = self.program(Server, "orvaned", command, environment=environment,
                              is_ready=is_ready or self.says_ready)
        self.servers.append(server)
        return server

    def says_ready(self, server):
        return all(re.search(rf" serving .*{re.escape(place)}[ ,]", server.errors)
                   for place in [self.queue, str(self.socket)][not self.has_queue:])

    def has_names(self, _server):
        """For a server whose log may fail: before it, nobody had these names."""
        return self.socket.exists() and self.seen(SHM + "/" + self.queue).exists()

    def use_rings_only(self):
        """The server has no queue, and all producers ask for rings."""
        self.has_queue = False
        self.transports = ["ring"]
        self.way = self.rng.choice(["one leased", "eight leased"])

    def serve(self, **options):
        """A server that is ready; one that a fault may keep from it is for start_server()."""
        server = self.start_server(**options)
        if not server.wait_until_ready():
            raise Broken(f"{server.name} did not start: {server.errors.strip()[-400:]}")
        server.held_at_start = server.held()
        return server

    def new_file(self, size):
        file = self.folder / f"file-{len(self.contents)}"
        file.write_bytes(self.new_content(size))
        self.contents.append(file.read_bytes())
        return file

    def new_content(self, size):
        """With compression some of it shrinks, and some changes in the middle."""
        if not self.compression:
            return self.rng.randbytes(size)
        middle = self.rng.choice([0, size, self.rng.randrange(size + 1)])
        parts = [self.rng.randbytes(middle), text_of(self.rng, size - middle)]
        self.rng.shuffle(parts)
        return b"".join(parts)

    def start_send(self, way, files, prefix=(), environment=None, timeout=30, transport=None,
                   label=None):
        """With a label, all files are sent over one lease."""
        place = ["--queue", self.queue, "--take-over"] if way == "fixed" else [
            "--socket", self.socket, "--transport", transport or self.rng.choice(self.transports)]
        place += [] if label is None else ["--label", label]
        command = [*prefix, self.binaries / "orvane", "send", *place, "--timeout", timeout,
                   "--segment-size", self.segment_size, *files]
        send = self.program(Send, "send", command, files=files, timeout=timeout,
                            environment=environment)
        self.sends.append(send)
        return send

    def send(self, may_fail=0, prefix=(), environment=None):
        """Starts all producers, the first one with a prefix; so many of them need not succeed."""
        ways = WAYS[self.way]
        self.may_fail = min(may_fail, len(ways))
        # Who has lost its server need not wait for it long.
        timeout = 1 if self.may_fail == len(ways) else 30
        files = [[self.new_file(self.size) for _ in range(self.rng.randrange(1, 3))] for _ in ways]
        return [self.start_send(ways[n], files[n], () if n else prefix, environment, timeout)
                for n in range(len(ways))]

    def streams(self):
        return [path for path in self.seen(self.store).iterdir()
                if stored.FOLDER.fullmatch(path.name)]

    def note_moment(self):
        if not self.streams():
            self.moment = "before"
        else:
            self.moment = "during" if any(send.runs() for send in self.sends) else "after"

    def stored_bytes(self):
        total = 0
        for stream in self.streams():
            with contextlib.suppress(FileNotFoundError):  # renamed meanwhile
                total += sum(file.stat().st_size for file in stream.iterdir())
        return total

    def until_an_instant(self):
        """Waits until a random part of what is being sent is stored, or for a random time."""
        by_progress = self.rng.random() < 0.8
        part = self.rng.random() * sum(map(len, self.contents))
        if self.compression:
            part *= self.rng.random()
        pause = self.rng.uniform(0, 0.001 if by_progress else 0.05)
        while by_progress and self.stored_bytes() < part and any(s.runs() for s in self.sends):
            time.sleep(0.0005)
        time.sleep(pause)
        self.note_moment()

    def finish(self):
        """All programs end in time and leave nothing."""
        for send in self.sends:
            send.wait()
        self.outcomes = [send.check_end() for send in self.sends]
        failed = len([outcome for outcome in self.outcomes if outcome != "stored"])
        if failed > self.may_fail:
            raise Broken(f"{failed} producers failed where {self.may_fail} may: " + " | ".join(
                send.errors.strip() for send in self.sends if send.process.returncode != 0))
        self.undo()
        self.check_service()
        if self.needs_recovery:
            self.stop(self.servers[-1])
            self.serve()
        self.check_recovery()
        self.stop(self.servers[-1])
        for server in self.servers:
            server.check_end()
        self.check_leftovers()

    def require_stored(self, sends):
        """Of producers that have ended and must not have noticed the fault."""
        for send in sends:
            if send.process.returncode != 0:
                raise Broken(f"{send.name} noticed what it must not: {send.errors.strip()}")

    def check_service(self):
        """The same server, or else the next one at the same place, serves new producers."""
        server = self.servers[-1]
        if not server.runs():
            if server.process.returncode != 0 and not (server.killed or server.may_give_up):
                raise Broken(f"{server.name} ended by itself: {server.errors.strip()[-400:]}")
            server = self.serve()
        if self.has_queue:
            self.check_new_producer("fixed")
        self.check_new_producer("leased")
        if self.has_queue:
            self.check_example()
        if server.held_at_start:
            poll(server.holds_no_more_than_at_start, STOP_BOUND,
                 f"{server.name} did not come back to {server.held_at_start} files, workers, KiB")

    def check_example(self):
        example = self.program(Program, "writer_queue",
                               [self.binaries / "writer_queue", self.queue])
        self.others.append(example)
        if example.wait() != 0:
            raise Broken(f"the example failed: {example.errors.strip()}")

    def has_unfinished(self):
        """Of a stream whose folder was just made there may be a hidden folder only, without its name."""
        return any(path.name.startswith(".") for path in self.seen(self.store).iterdir()) or not all(
            (stream / "manifest").exists() for stream in self.streams())

    def check_recovery(self):
        """Nothing is left of dead servers, whose last processes may outlive them a little."""
        poll(lambda: not self.has_unfinished(), START_BOUND, "not every stream was finished")
        dead = [server.pid for server in self.servers[:-1]] + self.dead_runs
        poll(lambda: not any(self.is_leased_from(dead, path.name) for path in self.shm_files()),
             START_BOUND, f"{SHM} was not cleaned up after a dead server")

    def check_new_producer(self, way):
        """A new producer is served, if other programs use its queue after the answers to their messages."""
        for _ in range(50 if way == "fixed" and self.queue in self.strangers else 1):
            probe = self.start_send(way, [self.new_file(3000)])
            if probe.wait() == 0:
                return
        raise Broken(f"a new producer ({way}) failed: {probe.errors.strip()}")

    def end_if_running(self, server):
        """Of a server that the case keeps from its work only a timely end is asked."""
        if server.runs():
            server.strike(signal.SIGTERM)
            server.wait()

    def stop(self, server):
        server.process.send_signal(signal.SIGTERM)
        if server.wait() != 0:
            raise Broken(f"{server.name} ended with {server.process.returncode} after SIGTERM: "
                         f"{server.errors.strip()[-400:]}")

    def is_leased_from(self, pids, name):
        """Is it a name in /dev/shm that only a server of these can have given, or locked?"""
        leased = re.match(r"\.?orvane-\d{8}T\d{6}-(\d+)[_.]", name)
        return leased is not None and int(leased[1]) in pids

    def shm_files(self):
        shm = self.seen(SHM)
        return list(shm.iterdir()) if shm.exists() else []

    def our_shm_files(self):
        fixed = re.compile(rf"\.?{self.queue}(Response)?(\.new|\.lock|\.stats)?")
        pids = [server.pid for server in self.servers] + self.dead_runs
        return [path for path in self.shm_files()
                if fixed.fullmatch(path.name) or self.is_leased_from(pids, path.name)]

    def check_leftovers(self):
        left = [path.name for path in self.our_shm_files()]
        left += [path.name for path in self.folder.glob("socket*")]
        if left:
            raise Broken(f"still there: {', '.join(sorted(left))}")

    def clear_away(self):
        for program in [*self.servers, *self.sends, *self.others]:
            program.clear_away()
        self.root = Path("/")  # the programs' own mounts are gone
        for path in self.our_shm_files():
            remove(path)

    def keep_store(self):
        """Copies the store out of the programs' own mounts, so that it can be examined after a failure."""
        subprocess.run(["cp", "-a", f"{self.seen(self.store)}/.", self.store], check=False,
                       capture_output=True)
