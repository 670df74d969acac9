"""What orvane-forward costs while nothing happens in a store of many streams that are forwarded.

usage: cluster_idle.py PROGRAMS [STREAMS [SECONDS]]
"""

import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests/fault_injection"))

from crafted import Crafted  # noqa: E402
from nats_cluster import NatsCluster  # noqa: E402

TICKS = os.sysconf("SC_CLK_TCK")


def processor_seconds(pid):
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def fill(store, streams):
    marks = store / ".forwarded"
    marks.mkdir()
    for number in range(streams):
        stream = Crafted(store, f"20260101T000000-1_{number}", "crafted")
        stream.others().write()
    for folder in store.iterdir():
        if not folder.name.startswith("."):
            (marks / folder.name).touch()


def main(programs, streams=100_000, seconds=60):
    streams, seconds = int(streams), float(seconds)
    with tempfile.TemporaryDirectory(prefix="orvane-cluster-idle-") as name:
        store = Path(name) / "store"
        store.mkdir()
        fill(store, streams)
        with NatsCluster(Path(name), 1) as cluster:
            process = subprocess.Popen(
                [Path(programs) / "orvane-forward", "--store", store, "--nats", cluster.urls],
                stderr=subprocess.PIPE, text=True)
            while "can be used" not in process.stderr.readline():
                pass
            time.sleep(1)  # the first look around has ended
            first = processor_seconds(process.pid)
            time.sleep(seconds)
            idle = processor_seconds(process.pid) - first
            status = Path(f"/proc/{process.pid}/status").read_text()
            process.terminate()
            process.wait()
    memory = int(status.split("VmHWM:")[1].split()[0]) / 1024
    print(f"{streams} streams: {first:.2f} s of a processor to start, then {100 * idle / seconds:.3f} % of "
          f"one for {seconds:.0f} s, memory {memory:.1f} MiB")


if __name__ == "__main__":
    main(*sys.argv[1:])
