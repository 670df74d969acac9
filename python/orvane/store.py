"""Reading what a server has stored. docs/format.md describes the files."""
import datetime
import os
import re
import zlib
from typing import Dict, Iterator, List, Match, Optional, Union

from .capture import Record, record_at
from .errors import Damaged
from .receipt import End, Receipt
from .stored_file import Segment, StoredFile

_NAME = r"file=(?P<file>-|segment-\d+(?:\.zst)?(?:\.part)?)"
_SUM = r"crc32=(?P<crc32>[0-9a-f]{8})(?: stored=(?P<stored>\d+))?"
_SEGMENT = re.compile(
    r"segment number=(?P<number>\d+) records=(?P<records>\d+) bytes=(?P<bytes>\d+) "
    rf"algorithm=(?P<state>\d+) parameters=(?P<parameters>\d+,\d+,\d+) {_SUM} {_NAME}", re.ASCII)
_UNFINISHED = re.compile(rf"unfinished {_NAME} bytes=(?P<bytes>\d+) {_SUM}", re.ASCII)
_OTHERS = re.compile(r"other-records=(\d+) bytes=(\d+) crc32=([0-9a-f]{8})", re.ASCII)
_HEADER = 48  # bytes of a record's header
_FORMATS = ("format=1", "format=2")
_REQUIRED = ("queue", "stream", "end", "reason")


def _unescaped(word: str) -> str:
    raw = re.sub(rb"%([0-9A-F]{2})", lambda found: bytes([int(found[1], 16)]),
                 word.encode("utf-8", "surrogateescape"))
    return raw.decode("utf-8", "surrogateescape")


def _time(text: Optional[str]) -> Optional[datetime.datetime]:
    if text is None:
        return None
    return datetime.datetime.strptime(text, "%Y-%m-%dT%H:%M:%S.%fZ").replace(
        tzinfo=datetime.timezone.utc)


class StoredStream:
    """A stream that has ended, in a store. Its manifest is checked when the object is made, the data
    when it is read."""

    def __init__(self, folder: Union[str, "os.PathLike[str]"]) -> None:
        """Raises Damaged if the manifest is not valid."""
        self.folder = os.fspath(folder)
        self.id = os.path.basename(os.path.abspath(self.folder))
        self.segments: List[Segment] = []
        self.unfinished: List[StoredFile] = []
        """Files that were not listed when their server died."""
        self.damages: List[str] = []
        """What the next server found wrong after that."""
        self.fields: Dict[str, str] = {}
        """The other lines of the manifest, as they are."""
        self.receipt: Receipt
        path = os.path.join(self.folder, "manifest")
        with open(path, "rb") as file:
            content = file.read()
        try:
            self._parse(content)
        except ValueError as error:
            raise Damaged(f"{path}: {error}") from None
        except Damaged as error:
            raise Damaged(f"{path}: {error}") from None

    @property
    def end(self) -> End:
        """How the stream ended."""
        return self.receipt.end

    @property
    def queue(self) -> str:
        """The name of the fixed queue, or of the lease."""
        return self.fields["queue"]

    @property
    def label(self) -> str:
        """The label of the lease; empty if it had none."""
        return _unescaped(self.fields.get("label", ""))

    @property
    def reason(self) -> str:
        """Why the stream ended, if its producer did not end it."""
        reason = self.fields["reason"]
        return _unescaped(reason) if self.fields["format"] == "2" else reason

    @property
    def begun(self) -> Optional[datetime.datetime]:
        """When the stream began, if the manifest says it."""
        return _time(self.fields.get("begun"))

    @property
    def ended(self) -> Optional[datetime.datetime]:
        """When the stream ended, if the manifest says it."""
        return _time(self.fields.get("ended"))

    def read(self) -> bytes:
        """The data of all segments, one after the other. Raises Damaged if it is not what the
        manifest says."""
        if self.damages:
            raise Damaged(f"{self.folder}: {self.damages[0]}")
        return b"".join(segment.read() for segment in self.segments)

    def other_records(self) -> List[Record]:
        """The records of the producer's own types. Raises Damaged if they are not what the manifest
        says."""
        line = f"other-records={self.fields.get('other-records', '0 bytes=0 crc32=00000000')}"
        found = _OTHERS.fullmatch(line)
        if found is None:
            raise Damaged(f"{self.folder}: {line!r} is no line of a manifest")
        count, size = int(found[1]), int(found[2])
        if count == 0:
            return []
        path = os.path.join(self.folder, "other-records")
        data = StoredFile(path, count * _HEADER + size, found[3], None).read()
        records, at = [], 0
        while at < len(data):
            record, at = record_at(data, at)
            records.append(record)
        return records

    def _parse(self, content: bytes) -> None:
        text = content.decode("utf-8", "surrogateescape")
        form = text.split("\n", 1)[0]
        if form not in _FORMATS:
            raise Damaged(f"{form!r} is not a format that this release reads")
        if not text.endswith("\n"):
            raise Damaged("its last line is incomplete")
        lines = text[:-1].split("\n")
        if form == "format=2":
            self._require_checksum(content, lines[-1])
        else:  # the rest of the file is the reason
            before, _, reason = text[:-1].partition("\nreason=")
            lines = before.split("\n")
            self.fields["reason"] = reason
        for line in lines:
            self._parse_line(line)
        self._require_sums()

    @staticmethod
    def _require_checksum(content: bytes, last: str) -> None:
        before = content[:len(content) - len(last.encode("utf-8", "surrogateescape")) - 1]
        if last != f"crc32={zlib.crc32(before):08x}":
            raise Damaged("its last line is not the checksum of the others")

    def _parse_line(self, line: str) -> None:
        segment = _SEGMENT.fullmatch(line)
        unfinished = _UNFINISHED.fullmatch(line)
        if segment is not None:
            first, second, third = map(int, segment["parameters"].split(","))
            self.segments.append(Segment(
                *self._file(segment), int(segment["number"]), int(segment["records"]),
                int(segment["state"]), (first, second, third)))
        elif unfinished is not None:
            self.unfinished.append(StoredFile(*self._file(unfinished)))
        elif line.startswith("damaged file="):
            self.damages.append(_unescaped(line))
        elif line.startswith("receipt "):
            receipt = Receipt.parse(line)
            if receipt is None:
                raise Damaged(f"{line!r} is no receipt")
            self.receipt = receipt
        else:
            key, equals, value = line.partition("=")
            if not equals or " " in key:
                raise Damaged(f"{line!r} is no line of a manifest")
            self.fields[key] = value

    def _file(self, found: Match[str]) -> "tuple[Optional[str], int, str, Optional[int]]":
        path = None if found["file"] == "-" else os.path.join(self.folder, found["file"])
        return path, int(found["bytes"]), found["crc32"], int(found["stored"]) if found["stored"] else None

    def _require_sums(self) -> None:
        missing = [name for name in _REQUIRED if name not in self.fields]
        if missing or not hasattr(self, "receipt"):
            raise Damaged(f"it has no line {(missing or ['receipt'])[0]}")
        _time(self.fields.get("begun")), _time(self.fields.get("ended"))
        if self.receipt.end.value != self.fields["end"]:
            raise Damaged("its end is not that of its receipt")
        if self.receipt.end == End.CLOSED and not self.damages:
            others = _OTHERS.fullmatch("other-records=" + self.fields.get("other-records", ""))
            size = sum(segment.bytes for segment in self.segments) + (int(others[2]) if others else 0)
            if size != self.receipt.bytes:
                raise Damaged(f"its receipt has {self.receipt.bytes} bytes instead of {size}")


class Store:
    """A folder in which orvaned keeps streams."""

    def __init__(self, path: Union[str, "os.PathLike[str]"]) -> None:
        self.path = os.fspath(path)

    def streams(self, label: Optional[str] = None, queue: Optional[str] = None,
                end: Optional[End] = None) -> Iterator[StoredStream]:
        """The streams that have ended, in the order of their ids; only those with this label, queue
        or end. Raises Damaged for a manifest that is not valid."""
        for name in sorted(os.listdir(self.path)):
            if name.startswith("."):
                continue
            try:
                stream = StoredStream(os.path.join(self.path, name))
            except (FileNotFoundError, NotADirectoryError):
                continue  # it has not ended, or was removed meanwhile
            if ((label is None or stream.label == label) and (queue is None or stream.queue == queue)
                    and (end is None or stream.end == end)):
                yield stream
