"""The real programs: started, signalled, and waited for no longer than they may take."""

import contextlib
import os
import re
import signal
import subprocess
import threading
import time
from pathlib import Path

# A machine with other things to do may take so many times what the documents say.
SLOWNESS = 4
START_BOUND = SLOWNESS * 5
STOP_BOUND = SLOWNESS * 15
LOCK_BOUND = 2

# The process that writes the log reads its lines from its descriptor 3, and writes them to 2.
LOST_LINE = re.compile(r"write\(2, .*(INJECTED|= \?)|recvfrom\(3, .*= \?")
LOG_PROCESS = "orvaned-log"  # the server's child that writes its log

# The system shows the name of the file, or that it had none when it was made.
LEASE_LOCK = re.compile(r"/dev/shm/(\.orvane-[^/]+\.lock|#\d+ \(deleted\))")

MEMORY_SLACK = 512  # KiB that a heap may grow by without a leak

SEND_EXITS = {0: "stored", 1: "nothing sent", 3: "refused", 4: "unknown", 5: "input failed",
              6: "not reported"}

# Somebody wants the harness itself to end: every case ends where it next waits.
interrupted = threading.Event()


class Broken(Exception):
    """Something that must hold does not."""


class Interrupted(Exception):
    pass


def poll(condition, bound, complaint):
    """Waits until the condition holds; returns what it gave."""
    deadline = time.monotonic() + bound
    while not (result := condition()):
        if interrupted.is_set():
            raise Interrupted
        if time.monotonic() >= deadline:
            raise Broken(f"{complaint} within {bound} s")
        time.sleep(0.002)
    return result


def stat_of(pid):
    """The fields of its /proc/PID/stat after the name, which may hold anything; none when it has ended."""
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
            return file.read().rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return []


def is_in(session, pid):
    try:
        return os.getsid(pid) == session
    except ProcessLookupError:
        return False


def living_processes(session):
    """Processes of the session that have not ended; one nobody reaps yet counts as ended."""
    pids = [int(entry) for entry in os.listdir("/proc") if entry.isdigit()]
    own = [pid for pid in pids if is_in(session, pid)]  # first, because it is called very often
    return [pid for pid in own if (stat_of(pid) or "Z")[0] not in "ZX"]


def name_of(pid):
    try:
        return Path("/proc", str(pid), "comm").read_text().strip()
    except (FileNotFoundError, ProcessLookupError):
        return ""


def open_files(pid):
    """What its descriptors stand for; one that it closes meanwhile is left out."""
    found = []
    for fd in os.listdir(f"/proc/{pid}/fd"):
        with contextlib.suppress(FileNotFoundError):
            found.append(os.readlink(f"/proc/{pid}/fd/{fd}"))
    return found


def parent_of(pid):
    """Nothing when it has ended."""
    fields = stat_of(pid)
    return int(fields[1]) if fields else None


def signal_to(pid, number):
    try:
        os.kill(pid, number)
    except ProcessLookupError:
        pass


class Program:
    """One process in its own session, by which the processes that it leaves can be found."""

    bound = STOP_BOUND  # for its end, when it is asked to or has nothing more to do

    def __init__(self, name, folder, command, environment=None):
        self.name = name
        self.outputs = [folder / f"{name}.out", folder / f"{name}.err"]
        self.killed = False  # by the case: how it ends is then no answer
        with open(self.outputs[0], "wb") as out, open(self.outputs[1], "wb") as err:
            self.process = subprocess.Popen(
                [str(word) for word in command], stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                env=os.environ | (environment or {}), start_new_session=True)
        self.pid = self.process.pid

    @property
    def output(self):
        return self.outputs[0].read_text(errors="replace")

    @property
    def errors(self):
        return self.outputs[1].read_text(errors="replace")

    def runs(self):
        return self.process.poll() is None

    def wait(self):
        poll(lambda: not self.runs(), self.bound, f"{self.name} did not end")
        return self.process.returncode

    def strike(self, number):
        """Sends a signal to the process itself. It may have ended before."""
        self.killed = self.killed or number in (signal.SIGKILL, signal.SIGTERM)
        self.process.send_signal(number)
        if number == signal.SIGKILL:
            self.process.wait()

    def clear_away(self):
        while left := living_processes(self.pid):
            for pid in left:
                signal_to(pid, signal.SIGKILL)
            time.sleep(0.002)
        self.process.wait()


class Send(Program):
    """`orvane send` of some files."""

    def __init__(self, *arguments, files, timeout, **options):
        super().__init__(*arguments, **options)
        # It waits for a lease, for room, and for the receipt, and twice for a lock.
        self.bound = SLOWNESS * (3 * timeout + 2 * LOCK_BOUND)
        self.files = files
        self.contents = [file.read_bytes() for file in files]

    def check_end(self):
        """How it ended: a documented exit code, and its reason on standard error."""
        code = self.process.returncode
        if code < 0:
            if not self.killed:
                raise Broken(f"{self.name} died of signal {-code}")
            return "killed"
        if code not in SEND_EXITS:
            raise Broken(f"{self.name} ended with exit code {code}: {self.errors.strip()}")
        if code == 0 and not self.output.startswith("stored "):
            raise Broken(f"{self.name} ended with exit code 0 and printed: {self.output.strip()}")
        if code != 0 and not self.errors.startswith("orvane send: "):
            raise Broken(f"{self.name} ended with exit code {code} and without a reason")
        return SEND_EXITS[code]


class Server(Program):
    """`orvaned`, with all of its processes."""

    def __init__(self, *arguments, is_ready, **options):
        super().__init__(*arguments, **options)
        self.is_ready = is_ready
        self.held_at_start = None
        self.trace = None  # what strace writes about it
        self.may_give_up = False  # because the case keeps it from what it needs

    def wait_until_ready(self):
        """False when it ended instead."""
        def ended_or_ready():
            if not self.runs():
                return "ended"
            return "ready" if self.is_ready(self) else ""
        return poll(ended_or_ready, START_BOUND, f"{self.name} was not ready") == "ready"

    def children(self, name):
        return [pid for pid in living_processes(self.pid) if name_of(pid) == name]

    def workers(self):
        return self.children("orvaned-worker")

    def brokers(self):
        return self.children("orvaned-broker")

    def log_process(self):
        """0 while there is none: it was killed, and is not replaced yet."""
        return next(iter(self.children(LOG_PROCESS)), 0)

    def strangers(self):
        """Processes of the server that are not its supervisor's children."""
        return [pid for pid in living_processes(self.pid)
                if pid != self.pid and parent_of(pid) not in (self.pid, None)]

    def held(self):
        """How many open files, worker processes, and KiB of memory its supervisor has. The lock that
        comes with the first leased queue, and stays, does not count."""
        status = Path("/proc", str(self.pid), "status").read_text()
        memory = int(re.search(r"RssAnon:\s*(\d+) kB", status)[1])
        files = [path for path in open_files(self.pid) if not LEASE_LOCK.fullmatch(path)]
        return len(files), len(self.workers()), memory

    def holds_no_more_than_at_start(self):
        now, start = self.held(), self.held_at_start
        return now[0] <= start[0] and now[1] <= start[1] and now[2] <= start[2] + MEMORY_SLACK

    def kill_all(self):
        self.killed = True
        try:
            os.killpg(self.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()

    def could_not_log(self):
        """The fault hit the log: a write to standard error failed, or its process was ended."""
        return self.trace is not None and LOST_LINE.search(self.trace.read_text(errors="replace"))

    def check_end(self):
        """However it ended, it did so as its --help says, and nothing of it lives on."""
        code = self.process.returncode
        if code < 0 and not self.killed:
            raise Broken(f"{self.name} died of signal {-code}")
        unloaded = code == 127 and self.may_give_up  # the loader's own exit code
        if code not in (0, 1) and code >= 0 and not unloaded:
            raise Broken(f"{self.name} ended with exit code {code}")
        if code > 0 and "error" not in self.errors and not self.could_not_log():
            raise Broken(f"{self.name} ended with exit code {code} and without a reason")
        poll(lambda: not living_processes(self.pid), STOP_BOUND,
             f"the processes of {self.name} were not gone")
