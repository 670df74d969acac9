"""The memory of one NATS server for each chunk that it keeps, and the time that its next start takes.

usage: cluster_memory.py [CHUNKS [BYTES]]      BYTES: of each chunk, by default 983040
"""

import random
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests/fault_injection"))

from nats_cluster import NatsCluster, Request  # noqa: E402
from programs import poll  # noqa: E402

SETTINGS = (b'{"name":"orvane","subjects":["orvane.1.>"],"retention":"limits","storage":"file",'
            b'"num_replicas":1,"max_msgs_per_subject":1,"discard":"new","discard_new_per_subject":true,'
            b'"allow_direct":true,"max_consumers":-1,"max_msgs":-1,"max_bytes":-1,"max_msg_size":-1,'
            b'"max_age":0}')
CHUNKS_OF_A_STREAM = 100


def memory(server):
    status = Path(f"/proc/{server.process.pid}/status").read_text()
    return 1024 * int(status.split("VmRSS:")[1].split()[0])


def messages(cluster):
    return cluster.state().get("state", {}).get("messages", 0)


def publish(server, count, size):
    """With subjects as long as real ones."""
    data = random.randbytes(size)
    with Request(server) as request:
        for number in range(count):
            stream, chunk = divmod(number, CHUNKS_OF_A_STREAM)
            subject = (f"orvane.1.machine-1.orders.orders-app%2Elog-20261121T101006-{stream}_0."
                       f"segment-000000.{chunk * 983040}-983040")
            request.file.write(f"PUB {subject} {size}\r\n".encode() + data + b"\r\n")
        request.file.write(b"PING\r\n")
        request.file.flush()
        while request.file.readline() != b"PONG\r\n":
            pass


def main(count=4000, size=983040):
    count, size = int(count), int(size)
    with tempfile.TemporaryDirectory(prefix="orvane-cluster-memory-") as folder:
        with NatsCluster(Path(folder), 1) as cluster:
            server = cluster.servers[0]
            cluster.ask("$JS.API.STREAM.CREATE.orvane", SETTINGS)
            empty = memory(server)
            publish(server, count, size)
            poll(lambda: messages(cluster) == count, 600, "not everything was stored")
            server.kill()
            start = time.monotonic()
            server.start()
            poll(lambda: messages(cluster) == count, 600, "not everything was found again")
            seconds = time.monotonic() - start
            print(f"{count} chunks of {size} bytes: {(memory(server) - empty) / count:.0f} bytes of memory "
                  f"each, started again in {seconds:.1f} s, {count * size / seconds / 1e6:.0f} MB/s")


if __name__ == "__main__":
    main(*sys.argv[1:])
