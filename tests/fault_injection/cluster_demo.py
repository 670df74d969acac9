"""Sends files through a private server, forwards them to three NATS servers of which one is killed
meanwhile, fetches them back and compares them. Prints one line."""

import argparse
import contextlib
import json
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from nats_cluster import NatsCluster
from programs import START_BOUND, Broken, Program, poll

FORWARD_BOUND = 600


def parse_options():
    parser = argparse.ArgumentParser(prog="./dev cluster", description=__doc__)
    parser.add_argument("--files", type=int, default=8, metavar="COUNT", help="how many files (8)")
    parser.add_argument("--bytes", type=int, default=32_000_000, metavar="BYTES",
                        help="the size of each (32000000)")
    parser.add_argument("--programs", type=Path, required=True, help=argparse.SUPPRESS)
    return parser.parse_args()


def marks(store):
    folder = store / ".forwarded"
    return len(list(folder.iterdir())) if folder.exists() else 0


def send(programs, folder, options):
    """The sent files' bytes, by their names."""
    sent = {}
    for number in range(options.files):
        file = folder / f"file-{number}"
        with open("/dev/urandom", "rb") as random:
            file.write_bytes(random.read(options.bytes))
        subprocess.run([programs / "orvane", "send", "--quiet", "--socket", folder / "socket", file],
                       check=True, stdout=subprocess.DEVNULL)
        sent[file.name] = file
    return sent


def fetch(programs, cluster, folder, sent):
    """How many bytes were fetched, and of how many files they are the same."""
    listed = subprocess.run([programs / "orvane", "streams", "--json", "--nats", cluster.urls],
                            check=True, capture_output=True, text=True).stdout
    fetched = same = 0
    for line in listed.splitlines():
        stream = json.loads(line)
        into = folder / "fetched" / stream["stream"]
        into.parent.mkdir(exist_ok=True)
        subprocess.run([programs / "orvane", "fetch", "--nats", cluster.urls,
                        f"{stream['host']}/{stream['queue']}/{stream['stream']}", into],
                       check=True, stdout=subprocess.DEVNULL)
        content = subprocess.run([programs / "orvane", "cat", into], check=True,
                                 capture_output=True).stdout
        fetched += len(content)
        same += content == sent[stream["label"]].read_bytes()
    return fetched, same


def run(options, folder, stack):
    programs = options.programs.resolve()
    store = folder / "store"
    store.mkdir()
    cluster = stack.enter_context(NatsCluster(folder))
    server = Program("orvaned", folder, [programs / "orvaned", "--socket", folder / "socket",
                                         "--store", store])
    stack.callback(server.clear_away)
    poll(lambda: " serving " in server.errors, START_BOUND, "orvaned was not ready")
    forwarder = Program("forwarder", folder, [programs / "orvane-forward", "--store", store, "--host",
                                              "demo", "--nats", cluster.urls])
    stack.callback(forwarder.clear_away)
    poll(lambda: "can be used" in forwarder.errors, FORWARD_BOUND, "the forwarder was not ready")
    start = time.monotonic()
    sent = send(programs, folder, options)
    poll(lambda: marks(store) > 0, FORWARD_BOUND, "nothing was forwarded")
    killed = cluster.leader()
    killed.kill()
    poll(lambda: marks(store) == options.files, FORWARD_BOUND, "not everything was forwarded")
    seconds = time.monotonic() - start
    fetched, same = fetch(programs, cluster, folder, sent)
    total = options.files * options.bytes
    print(f"sent {total} bytes in {options.files} files, forwarded {marks(store)} streams in "
          f"{seconds:.1f} s while {killed.name} of 3 was killed, fetched back {fetched} bytes, "
          f"identical: {same} of {options.files}")
    return 0 if same == options.files and fetched == total else 1


def main():
    options = parse_options()
    folder = Path(tempfile.mkdtemp(prefix="orvane-cluster-"))
    try:
        with contextlib.ExitStack() as stack:
            return run(options, folder, stack)
    except (Broken, subprocess.CalledProcessError) as failure:
        print(f"cluster: {failure}", file=sys.stderr)
        return 1
    finally:
        shutil.rmtree(folder)


if __name__ == "__main__":
    sys.exit(main())
