#!/usr/bin/env python3
"""Prints a capture's batches: read_batches.py FILE. It follows docs/format.md and uses no library of
orvane. Exits with 1 if a message is not a batch, or if bytes belong to no message."""
import sys
from zlib import adler32

CAPTURE_MAGIC = b"ORVC"
BATCH_MAGIC = 0xFF00EE11
RECORD_MAGIC = 0xAABBCCDD


def number(data, offset, size):
    return int.from_bytes(data[offset:offset + size], "big")


def header(data, at):
    """Returns (queue, start, end) of the message that may begin at `at`, or None."""
    name = at + 16
    start = name + number(data, at + 4, 4)
    end = start + number(data, at + 8, 8)
    queue = data[name:start]
    if (data[at:at + 4] == CAPTURE_MAGIC and start - name <= 200 and end - start <= 2**30
            and start <= len(data) and all(0x20 < c < 0x7F for c in queue)):
        return queue.decode("ascii"), start, end
    return None


def next_header(data, at):
    """Returns the first offset from `at` on where a message may begin, or the end of the data."""
    at = data.find(CAPTURE_MAGIC, at)
    while at >= 0 and header(data, at) is None:
        at = data.find(CAPTURE_MAGIC, at + 1)
    return at if at >= 0 else len(data)


def is_batch(message):
    try:
        return all(True for _ in records(message))
    except ValueError:
        return False


def messages(data):
    """Yields (queue, message, offset), or (None, bytes, offset) for bytes between two messages. If only
    a part of a message was written, the other messages are still found: the part is not a batch, no
    message or end of the data follows at its end, and another message begins inside it."""
    at = 0
    while at < len(data):
        queue, start, end = header(data, at) or (None, at, len(data) + 1)
        if end <= len(data) and (is_batch(data[start:end]) or end == len(data) or header(data, end)
                                 or next_header(data, at + 1) >= end):
            yield queue, data[start:end], at
        else:
            end = next_header(data, at + 1)
            yield None, data[at:end], at
        at = end


def records(batch):
    """Yields the records as text. It compares each length with the batch's size before it uses it."""
    if len(batch) < 8 or number(batch, 0, 4) != BATCH_MAGIC:
        raise ValueError("it does not begin as a batch")
    at = 8
    for index in range(number(batch, 4, 4)):
        if len(batch) - at < 48:
            raise ValueError(f"record {index} has no room for a header at byte {at}")
        kind, length, done, alg, one, two, three, magic = (
            number(batch, at + offset, 4) for offset in (0, 4, 24, 28, 32, 36, 40, 44))
        seq, segment = number(batch, at + 8, 8), number(batch, at + 16, 8)
        if magic != RECORD_MAGIC:
            raise ValueError(f"record {index} has no magic word at byte {at + 44}")
        data = batch[at + 48:at + 48 + length]
        if len(data) < length:
            raise ValueError(f"record {index} has {len(data)} of {length} bytes of data")
        crc = f", crc={adler32(data)}" if length else ""
        yield (f"[{index}]: type={kind}, len={length}{crc} "
               f"({seq},{kind},{length},{alg},{segment},{done},{one},{two},{three},{magic})")
        at += 48 + length
    if at != len(batch):
        raise ValueError(f"{len(batch) - at} bytes are left over")


def main(path):
    with open(path, "rb") as file:
        data = file.read()
    count = failures = 0
    for queue, message, offset in messages(data):
        size = f"{len(message)} byte" + ("" if len(message) == 1 else "s")
        try:
            if queue is None:
                raise ValueError(f"{size} at byte {offset} belong to no message")
            print(f"message {count}, queue {queue}, {size}")
            count += 1
            texts = list(records(message))
            total = len(message)
            print(f"ShmBatch: entries={len(texts)}, bufferSize={total}, used={total}")
            print(*texts, sep="\n", end="\n" if texts else "")
        except ValueError as reason:
            failures += 1
            print("broken:", reason)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
