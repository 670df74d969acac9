"""Three real nats-servers on loopback, with folders of their own."""

import contextlib
import json
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

from programs import SLOWNESS, Broken, poll

READY_BOUND = SLOWNESS * 30
# Servers that lag forget what they wait for sooner than by default, so that a case is short.
CONFIGURATION = """
server_name: "{name}"
listen: "127.0.0.1:{port}"
max_payload: {max_payload}
jetstream {{ store_dir: "{store}", max_file_store: {max_store} }}
{cluster}
{users}
"""
CLUSTER = """cluster {{
  name: streams, listen: "127.0.0.1:{route}",
  routes: [{routes}]
}}"""
SERVER = shutil.which("nats-server", path="/usr/sbin:/usr/bin:/usr/local/bin")


def free_ports(count):
    """Ports that nobody has now; they stay free as long as nobody asks the system for one."""
    with contextlib.ExitStack() as sockets:
        found = []
        for _ in range(count):
            one = sockets.enter_context(socket.socket())
            one.bind(("127.0.0.1", 0))
            found.append(one.getsockname()[1])
        return found


class NatsServer:
    def __init__(self, folder, name, port, route, routes):
        self.folder = folder / name
        self.folder.mkdir()
        self.name, self.port, self.route, self.routes = name, port, route, routes
        self.max_payload = 1 << 20
        self.max_store = 10 << 30
        self.users = ""
        self.store = self.folder / "store"
        self.process = None
        self.stopped = False

    @property
    def url(self):
        return f"nats://127.0.0.1:{self.port}"

    def configure(self):
        cluster = CLUSTER.format(route=self.route, routes=", ".join(
            f'"nats://127.0.0.1:{port}"' for port in self.routes)) if self.routes else ""
        (self.folder / "nats.conf").write_text(CONFIGURATION.format(
            name=self.name, port=self.port, store=self.store, max_payload=self.max_payload,
            max_store=self.max_store, cluster=cluster, users=self.users))

    def start(self):
        self.configure()
        with open(self.folder / "log", "ab") as log:
            self.process = subprocess.Popen(
                [SERVER, "-c", self.folder / "nats.conf"], stdin=subprocess.DEVNULL, stdout=log,
                stderr=log, start_new_session=True)

    def log(self):
        return (self.folder / "log").read_text(errors="replace")

    def reload(self):
        self.configure()
        self.process.send_signal(signal.SIGHUP)

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.stopped = False

    def stop(self):
        """As a partition: its connections stay, and nothing comes through them."""
        self.process.send_signal(signal.SIGSTOP)
        self.stopped = True

    def resume(self):
        self.process.send_signal(signal.SIGCONT)
        self.stopped = False

    def runs(self):
        return self.process is not None and self.process.poll() is None


class Request:
    """One question over the wire protocol."""

    def __init__(self, server, user="admin", password="admin"):
        self.connection = socket.create_connection(("127.0.0.1", server.port), 5)
        self.file = self.connection.makefile("rwb")
        self.file.readline()
        options = {"verbose": False, "headers": True, "no_responders": True, "user": user,
                   "pass": password}
        self.file.write(b"CONNECT " + json.dumps(options).encode() + b"\r\nSUB _INBOX.faults 1\r\n")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.connection.close()

    def ask(self, subject, body=b""):
        """The data of the answer; nothing if nobody answers."""
        self.file.write(f"PUB {subject} _INBOX.faults {len(body)}\r\n".encode() + body + b"\r\n")
        self.file.flush()
        while words := self.file.readline().split():
            if words[0] == b"PING":
                self.file.write(b"PONG\r\n")
                self.file.flush()
            elif words[0] in (b"MSG", b"HMSG"):
                size = int(words[-2]) if words[0] == b"HMSG" else 0
                self.file.read(size)
                return self.file.read(int(words[-1]) - size + 2)[:-2]
            elif words[0] == b"-ERR":
                break
        return b""


class NatsCluster:
    def __init__(self, folder, count=3):
        ports = free_ports(2 * count)
        routes = ports[count:] if count > 1 else []
        self.servers = [NatsServer(folder, f"nats-{number}", ports[number], ports[count + number],
                                   routes) for number in range(count)]

    @property
    def urls(self):
        return ",".join(server.url for server in self.servers)

    def __enter__(self):
        with contextlib.ExitStack() as undo:
            undo.callback(self.end)
            for server in self.servers:
                server.start()
            self.wait_until_ready()
            undo.pop_all()
        return self

    def __exit__(self, *_):
        self.end()

    def end(self):
        for server in self.servers:
            if server.runs():
                server.kill()

    def ask(self, subject, body=b""):
        """Asks any server that runs."""
        for server in self.servers:
            if server.runs() and not server.stopped:
                with contextlib.suppress(OSError, json.JSONDecodeError), Request(server) as request:
                    if answer := request.ask(subject, body):
                        return json.loads(answer)
        return {}

    def wait_until_ready(self):
        """Until JetStream has a leader."""
        if ended := next((server for server in self.servers if not server.runs()), None):
            raise Broken(f"a server has ended: {ended.log()[-500:]}")
        poll(lambda: "error" not in self.ask("$JS.API.INFO") and self.ask("$JS.API.INFO"),
             READY_BOUND, "the cluster was not ready")

    def state(self):
        return self.ask("$JS.API.STREAM.INFO.orvane")

    def leader(self):
        """The server that leads the stream of chunks, or any one."""
        name = self.state().get("cluster", {}).get("leader", "")
        return next((server for server in self.servers if server.name == name), self.servers[0])

    def heal(self):
        """All servers run, with what they had at first."""
        for server in self.servers:
            if server.stopped:
                server.resume()
            if not server.runs():
                server.start()
        self.wait_until_ready()
        poll(self.is_whole, READY_BOUND, "the stream's servers did not catch up")

    def is_whole(self):
        state = self.state()
        cluster = state.get("cluster", {})
        return "error" not in state and (len(self.servers) == 1 or (
            cluster.get("leader") and all(
                replica.get("current") and not replica.get("offline")
                for replica in cluster.get("replicas", []))))

    def subjects(self):
        """How many messages each subject has."""
        state = self.ask("$JS.API.STREAM.INFO.orvane", b'{"subjects_filter":"orvane.1.>"}')
        if "error" in state or "state" not in state:
            raise Broken(f"the stream cannot be read: {state}")
        return state["state"].get("subjects") or {}
