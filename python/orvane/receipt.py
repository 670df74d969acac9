"""What a server says about a stream that has ended."""
import dataclasses
import enum
import re
from typing import Optional


class End(enum.Enum):
    """How a stream ended."""

    CLOSED = "closed"
    """It is whole."""
    STOPPED = "stopped"
    """Its producer gave it up."""
    CUT_OFF = "cut-off"
    """Its producer or its server ended."""
    BROKEN = "broken"
    """A part of it was lost or could not be stored."""


ENDS = tuple(End)  # in the order of the library's numbers

_LINE = re.compile(
    r"receipt stream=([^ ]+) records=(\d+) bytes=(\d+) segments=(\d+) end=(closed|stopped|cut-off|broken)",
    re.ASCII)


@dataclasses.dataclass(frozen=True)
class Receipt:
    """The server's report on what it stored of one stream."""

    stream: str
    records: int
    bytes: int
    segments: int
    end: End

    def __str__(self) -> str:
        return (f"receipt stream={self.stream} records={self.records} bytes={self.bytes} "
                f"segments={self.segments} end={self.end.value}")

    @staticmethod
    def parse(line: str) -> Optional["Receipt"]:
        """Reads the line that str() writes; None for another one."""
        found = _LINE.fullmatch(line)
        if found is None:
            return None
        return Receipt(found[1], int(found[2]), int(found[3]), int(found[4]), End(found[5]))
