"""The real server, with its own socket and store; and one that says other things in its place."""
import os
import resource
import signal
import socket
import subprocess
import tempfile
import threading
import time
from pathlib import Path

LONG = 60  # seconds; nothing in these tests takes so long
WAITING = {"202", "7", "271"}  # system calls: futex, poll, ppoll


class Server:
    def __init__(self, *options, limit=None):
        self._folder = tempfile.TemporaryDirectory()
        self.folder = Path(self._folder.name)
        self.socket = self.folder / "socket"
        self.store = self.folder / "store"
        self.store.mkdir()

        def limit_files():
            if limit is not None:
                resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
        self.process = subprocess.Popen(
            [os.environ["ORVANED_PATH"], "--socket", self.socket, "--store", self.store, "--sync", "none",
             *options], stderr=subprocess.PIPE, start_new_session=True, preexec_fn=limit_files)
        for line in self.process.stderr:
            if b"serving leases at" in line:
                break
        self._reader = threading.Thread(target=self.process.stderr.read, daemon=True)
        self._reader.start()

    def streams(self):
        """The folders of streams that have begun."""
        return [self.store / name for name in os.listdir(self.store) if name[0] != "."]

    def signal_all(self, number):
        os.killpg(self.process.pid, number)

    def wait_until_idle(self):
        """Waits until what serves leases has nothing to do."""
        workers = self._workers()
        wait_until(lambda: all(map(waits, workers)))

    def stop(self):
        """Stops all its processes, and those that serve leases while they wait: one that is stopped inside
        a queue's lock would end the stream."""
        workers = self._workers()
        while True:
            self.signal_all(signal.SIGCONT)
            wait_until(lambda: all(map(waits, workers)))
            self.signal_all(signal.SIGSTOP)
            wait_until(lambda: not any(map(runs, [self.process.pid, *self._children()])))
            if all(map(waits, workers)):
                return

    def kill(self):
        self.signal_all(signal.SIGKILL)
        self.process.wait()

    def _children(self):
        pid = self.process.pid
        return [int(child) for child in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]

    def _workers(self):
        """The children that have a ring or a leased queue in their memory."""
        def serves(child):
            try:
                maps = Path(f"/proc/{child}/maps").read_text()
            except OSError:
                return False
            return "/memfd:orvane-ring" in maps or f"-{self.process.pid}_" in maps
        return list(filter(serves, self._children()))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.signal_all(signal.SIGCONT)
            self.process.terminate()
            self.process.wait(LONG)
        self._reader.join()
        self.process.stderr.close()
        self._folder.cleanup()


def waits(process):
    """Is it inside a system call that waits, or gone?"""
    try:
        return Path(f"/proc/{process}/syscall").read_text().split()[0] in WAITING
    except OSError:
        return True


def runs(process):
    try:
        return Path(f"/proc/{process}/stat").read_text().rpartition(") ")[2][0] not in "TZ"
    except OSError:
        return False


def wait_until(condition):
    end = time.monotonic() + LONG
    while not condition():
        assert time.monotonic() < end, "it takes too long"
        os.sched_yield()


class FakeServer:
    """Passes a client's request on to a real server, and the lease back. After that it says `says` in
    place of what the server says. Without a real server, it only says it."""

    def __init__(self, says, real=None):
        """`real` is a Server."""
        self._folder = tempfile.TemporaryDirectory()
        self.socket = Path(self._folder.name) / "socket"
        self._says = says
        self._real = real
        self._listening = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._listening.bind(str(self.socket))
        self._listening.listen()
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()

    def _serve(self):
        while True:
            client, _ = self._listening.accept()
            with client:
                request = client.recv(4096)
                if not request:
                    return
                if self._real is None:
                    client.send(self._says)
                else:
                    self._pass_on(client, request)

    def _pass_on(self, client, request):
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as server:
            server.connect(str(self._real.socket))
            server.send(request)
            reply, files, _, _ = socket.recv_fds(server, 4096, 8)
            socket.send_fds(client, [reply], files)
            for file in files:
                os.close(file)
            server.recv(4096)  # the receipt; a ring's answer comes after it
            self._real.wait_until_idle()
            if self._says:
                client.send(self._says)
                client.recv(1)  # until it leaves

    def __enter__(self):
        return self

    def __exit__(self, *_):
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as last:
            last.connect(str(self.socket))
        self._thread.join()
        self._listening.close()
        self._folder.cleanup()
