"""The speed of orvane-forward and orvane fetch, and of the client library alone, on the same three NATS
servers with the same chunks, in turn. Prints the medians, their ratios, and the forwarder's largest memory.

usage: cluster.py PROGRAMS [ROUNDS]
"""

import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests/fault_injection"))

from crafted import Crafted  # noqa: E402
from nats_cluster import NatsCluster  # noqa: E402

CHUNK = 960 << 10
CHUNKS = 128


def purge(cluster):
    cluster.ask("$JS.API.STREAM.PURGE.orvane")


def bare(programs, cluster, *arguments):
    return float(subprocess.run([programs / "bare_cluster", cluster.leader().url, *map(str, arguments)],
                                check=True, capture_output=True, text=True).stdout)


def forward(programs, cluster, store, host):
    """The time from the first message to the last, as the log has it, and the largest memory.

    The host is another one each time: servers remember for two minutes what they were sent, also after
    they have removed it.
    """
    for mark in (store / ".forwarded").glob("*"):
        mark.unlink()
    command = [programs / "orvane-forward", "--host", host, "--store", store, "--nats",
               cluster.leader().url]
    process = subprocess.Popen(command, stderr=subprocess.PIPE, text=True)
    log = ""
    while "is forwarded" not in log:
        line = process.stderr.readline()
        if not line:
            sys.exit(log)
        log += line
    status = Path(f"/proc/{process.pid}/status").read_text()
    process.terminate()
    process.communicate()
    begin = re.search(r"(\S+) info 0 forward::open: the stream can be used", log)[1]
    end = re.findall(r"(\S+) info 0 forward::forward: stream .* is forwarded", log)[-1]
    return seconds_of(end) - seconds_of(begin), int(re.search(r"VmHWM:\s+(\d+)", status)[1])


def seconds_of(text):
    whole, milliseconds = text.rstrip("Z").split(".")
    return time.mktime(time.strptime(whole, "%Y-%m-%dT%H:%M:%S")) + int(milliseconds) / 1000


def fetch(programs, cluster, folder, host):
    into = folder / f"fetched-{host}"
    start = time.monotonic()
    subprocess.run([programs / "orvane", "fetch", "--nats", cluster.leader().url,
                    f"{host}/crafted/crafted-20260101T000000-1_0", into], check=True,
                   stdout=subprocess.DEVNULL)
    seconds = time.monotonic() - start
    shutil.rmtree(into)
    return seconds


def main(programs, rounds=5):
    programs = Path(programs)
    times = {"bare publish": [], "orvane-forward": [], "bare read": [], "orvane fetch": []}
    memory = 0
    with tempfile.TemporaryDirectory(prefix="orvane-cluster-bench-") as name:
        folder = Path(name)
        store = folder / "store"
        store.mkdir()
        stream = Crafted(store, "20260101T000000-1_0", "crafted")
        for _ in range(4):
            stream.segment(os.urandom(CHUNKS // 4 * CHUNK))
        stream.others().write()
        with NatsCluster(folder) as cluster:
            forward(programs, cluster, store, "first")
            purge(cluster)
            for number in range(int(rounds)):
                times["bare publish"].append(bare(programs, cluster, "publish", CHUNKS, CHUNK))
                times["bare read"].append(bare(programs, cluster, "read", CHUNKS))
                purge(cluster)
                seconds, used = forward(programs, cluster, store, f"bench-{number}")
                times["orvane-forward"].append(seconds)
                memory = max(memory, used)
                times["orvane fetch"].append(fetch(programs, cluster, folder, f"bench-{number}"))
                purge(cluster)
    median = {name: statistics.median(values) for name, values in times.items()}
    for name, value in median.items():
        print(f"{name:15} {value:7.3f} s {CHUNKS * CHUNK / value / 1e6:7.1f} MB/s")
    print(f"forward / bare publish {median['bare publish'] / median['orvane-forward']:.2f}, "
          f"fetch / bare read {median['bare read'] / median['orvane fetch']:.2f}, "
          f"memory {memory / 1024:.1f} MiB")


if __name__ == "__main__":
    main(*sys.argv[1:])
