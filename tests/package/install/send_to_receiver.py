"""send_to_receiver.py ORVANE RECEIVER: runs `ORVANE send` to a RECEIVER that was built from the installed
tree. Both must succeed, and the receiver must print the records with the checksum of the bytes."""

import os
import subprocess
import sys
import time

SECONDS = 60
EXPECTED = """\
type=0, len=0 (0,0,0,0,0,1,0,0,0,2864434397)
type=1, len=20, crc=1146291980 (2,1,20,0,0,0,0,0,0,2864434397)
type=2, len=0 (3,2,0,0,0,0,0,0,0,2864434397)
type=3, len=0 (4,3,0,0,1,1,0,0,0,2864434397)
"""


def wait_for_queue(path, receiver):
    deadline = time.monotonic() + SECONDS
    while not os.path.exists(path):
        if time.monotonic() > deadline:
            sys.exit(f"the receiver did not create {path}")
        try:
            status = receiver.wait(timeout=0.01)
        except subprocess.TimeoutExpired:
            continue
        sys.exit(f"the receiver exited with {status} before it created its queue")


def main():
    orvane, program = sys.argv[1:]
    name = f"send-to-receiver-{os.getpid()}"
    queue = f"/dev/shm/{name}"
    receiver = subprocess.Popen([program, name], stdout=subprocess.PIPE, text=True)
    try:
        wait_for_queue(queue, receiver)
        subprocess.run([orvane, "send", "--queue", name, "-"], input=b"14 crates of oranges", check=True,
                       timeout=SECONDS)
        printed, _ = receiver.communicate(timeout=SECONDS)
    finally:
        receiver.kill()
        receiver.wait()
        for path in (queue, queue + "Response"):
            if os.path.exists(path):
                os.remove(path)
    if receiver.returncode != 0:
        sys.exit(f"the receiver exited with {receiver.returncode}")
    if printed != EXPECTED:
        sys.exit(f"the receiver printed\n{printed}instead of\n{EXPECTED}")


main()
