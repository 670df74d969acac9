"""stream_producer.py SOCKET TRANSPORT FILE PIECE SEGMENT TIMEOUT: as stream_producer.cpp."""
import sys

import orvane

PATIENCE = 20  # timeouts
CERTAIN = {orvane.Certainty.STORED: "stored", orvane.Certainty.NOT_STORED: "not stored",
           orvane.Certainty.UNKNOWN: "unknown"}


def repeat(call):
    for left in range(PATIENCE, -1, -1):
        try:
            return call()
        except orvane.Timeout:
            if left == 0:
                raise


def write(stream, data):
    def rest():
        nonlocal data
        try:
            stream.write(data)
        except orvane.Timeout as error:
            data = data[error.taken:]
            raise
    repeat(rest)


def main(socket, transport, path, piece, segment, timeout):
    with open(path, "rb") as file:
        data = memoryview(file.read())
    try:
        with orvane.Stream(socket=socket, label="faults", timeout=int(timeout), transport=transport) as stream:
            for begin in range(0, len(data), int(segment)):
                part = data[begin:begin + int(segment)]
                for at in range(0, len(part), int(piece)):
                    write(stream, part[at:at + int(piece)])
                if len(part) == int(segment):
                    repeat(stream.end_segment)
            repeat(stream.finish)
        print("stored", stream.receipt.stream)
    except orvane.Error as error:
        print(f"{CERTAIN[error.certainty]}: {error}")
        return 3
    return 0


sys.exit(main(*sys.argv[1:]))
