"""The files of a stored stream."""
import builtins
import dataclasses
import os
import zlib
from typing import BinaryIO, Iterator, Optional, Tuple

from . import zstd
from .errors import Damaged

_PART = 1 << 20  # bytes that are read at once


@dataclasses.dataclass(frozen=True)
class StoredFile:
    """A file with data, as the stream's manifest lists it."""

    path: Optional[str]
    """None for a segment without data."""
    bytes: int
    """Of data, before it was compressed."""
    crc32: str
    stored: Optional[int]
    """The bytes of the file, if it is compressed."""

    def read(self) -> builtins.bytes:
        """The data. Raises Damaged if it is not what the manifest says, or if it is compressed and
        no module can decompress it."""
        return b"".join(self._checked())

    def open(self) -> BinaryIO:
        """A file object with the data, all of which was compared with the manifest before."""
        for _ in self._checked():
            pass
        return self._opened()

    def _checked(self) -> Iterator[builtins.bytes]:
        """The data, part by part. At its end, it raises Damaged if the data is other data."""
        crc = size = 0
        with self._opened() as file:
            while True:
                try:
                    part = file.read(_PART)
                except zstd.errors() as error:
                    raise Damaged(f"{self.path} is damaged: {error}") from None
                if not part:
                    break
                crc = zlib.crc32(part, crc)
                size += len(part)
                yield part
        if size != self.bytes:
            raise Damaged(f"{self.path} has {size} bytes of data instead of {self.bytes}")
        if f"{crc:08x}" != self.crc32:
            raise Damaged(f"{self.path} has the checksum {crc:08x} instead of {self.crc32}")

    def _opened(self) -> BinaryIO:
        if self.path is None:
            return open(os.devnull, "rb")
        try:
            file = open(self.path, "rb")
        except FileNotFoundError:
            raise Damaged(f"{self.path} is missing") from None
        if self.stored is None:
            return file
        size = os.fstat(file.fileno()).st_size
        try:
            if size == self.stored:
                return zstd.opened(file)
            reason = f"has {size} bytes instead of {self.stored}"
        except zstd.Missing as missing:
            reason = f"is compressed: {missing} to read it"
        file.close()
        raise Damaged(f"{self.path} {reason}")


@dataclasses.dataclass(frozen=True)
class Segment(StoredFile):
    """A segment of a stored stream."""

    number: int
    records: int
    state: int
    parameters: Tuple[int, int, int]
