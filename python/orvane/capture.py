"""Records, and the files that `orvaned --capture` writes. docs/format.md describes both."""
import dataclasses
import os
import struct
from typing import Iterator, List, Optional, Tuple, Union

from .errors import Damaged

_CAPTURE_MAGIC = b"ORVC"
_BATCH = struct.Struct(">II")
_RECORD = struct.Struct(">IIQQIIIIII")
_HEADER = struct.Struct(">4sIQ")
_BATCH_MAGIC = 0xFF00EE11
_RECORD_MAGIC = 0xAABBCCDD
_LONGEST_NAME = 200
_LONGEST_MESSAGE = 2**30


@dataclasses.dataclass(frozen=True)
class Record:
    """A record: its header's fields and its data."""

    type: int
    sequence: int
    segment: int
    segment_done: int
    segment_state: int
    parameters: Tuple[int, int, int]
    data: bytes


@dataclasses.dataclass(frozen=True)
class Message:
    """A message of a capture: a batch, or what was sent in place of one."""

    queue: str
    offset: int
    bytes: bytes

    def records(self) -> List[Record]:
        """The records of the batch. Raises Damaged if the message is none."""
        return records_of(self.bytes)


def record_at(data: bytes, at: int) -> Tuple[Record, int]:
    """The record whose header begins at `at`, and the offset after it."""
    if len(data) - at < _RECORD.size:
        raise Damaged(f"there is no room for a header at byte {at}")
    kind, length, sequence, segment, done, state, one, two, three, magic = _RECORD.unpack_from(
        data, at)
    start = at + _RECORD.size
    if magic != _RECORD_MAGIC:
        raise Damaged(f"there is no header of a record at byte {at}")
    if len(data) - start < length:
        raise Damaged(f"a record has {len(data) - start} of {length} bytes of data at byte {at}")
    content = bytes(data[start:start + length])
    return Record(kind, sequence, segment, done, state, (one, two, three), content), start + length


def records_of(batch: bytes) -> List[Record]:
    """The records of a batch. Raises Damaged if the bytes are not exactly one."""
    if len(batch) < _BATCH.size or _BATCH.unpack_from(batch)[0] != _BATCH_MAGIC:
        raise Damaged("it does not begin as a batch")
    records = []
    at = _BATCH.size
    for _ in range(_BATCH.unpack_from(batch)[1]):
        record, at = record_at(batch, at)
        records.append(record)
    if at != len(batch):
        raise Damaged(f"{len(batch) - at} bytes are left over")
    return records


def _header(data: bytes, at: int) -> Optional[Tuple[str, int, int]]:
    """The queue, the start and the end of the message that may begin at `at`."""
    if len(data) - at < _HEADER.size:
        return None
    magic, name_size, size = _HEADER.unpack_from(data, at)
    start = at + _HEADER.size + name_size
    name = data[at + _HEADER.size:start]
    if (magic != _CAPTURE_MAGIC or name_size > _LONGEST_NAME or size > _LONGEST_MESSAGE
            or start > len(data) or not all(0x20 < c < 0x7F for c in name)):
        return None
    return name.decode("ascii"), start, start + size


def _next_header(data: bytes, at: int) -> int:
    at = data.find(_CAPTURE_MAGIC, at)
    while at >= 0 and _header(data, at) is None:
        at = data.find(_CAPTURE_MAGIC, at + 1)
    return at if at >= 0 else len(data)


def _is_batch(message: bytes) -> bool:
    try:
        records_of(message)
    except Damaged:
        return False
    return True


def read_capture(path: Union[str, "os.PathLike[str]"]) -> Iterator[Message]:
    """Reads the messages of a capture. Skips what belongs to no message, which is left of one that was
    written only in part."""
    with open(path, "rb") as file:
        data = file.read()
    at = 0
    while at < len(data):
        found = _header(data, at)
        if found is not None and found[2] <= len(data) and (
                _is_batch(data[found[1]:found[2]]) or found[2] == len(data)
                or _header(data, found[2]) is not None or _next_header(data, at + 1) >= found[2]):
            queue, start, end = found
            yield Message(queue, at, data[start:end])
            at = end
        else:
            at = _next_header(data, at + 1)
