"""What is in a store, read with no help from the code that wrote it."""

import re
import subprocess
import zlib

from programs import Broken

FOLDER = re.compile(r".+-(?P<id>\d{8}T\d{6}-\d+_\d+)")
TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z")
PRODUCER = re.compile(r"uid=\d+ gid=\d+ pid=\d+( executable=[^ ]+)?")
SEGMENT = re.compile(
    r"segment number=(?P<number>\d+) records=(?P<records>\d+) bytes=(?P<bytes>\d+) "
    r"algorithm=\d+ parameters=\d+,\d+,\d+ crc32=(?P<crc32>[0-9a-f]{8})"
    r"( stored=(?P<stored>\d+))? file=(?P<file>\S+)")
UNFINISHED = re.compile(
    r"unfinished file=(?P<file>\S+) bytes=(?P<bytes>\d+) crc32=(?P<crc32>[0-9a-f]{8})"
    r"( stored=(?P<stored>\d+))?")
OTHERS = re.compile(
    r"other-records=(?P<records>\d+) bytes=(?P<bytes>\d+) crc32=(?P<crc32>[0-9a-f]{8})")
FRAME_END = b"\x01\0\0"  # without it, zstdcat does not print the last block
ENDS = {"closed", "stopped", "cut-off", "broken"}


def is_compressed(name):
    return name.removesuffix(".part").endswith(".zst")


class StoredStream:
    """A stream's folder, each file checked against the manifest."""

    def __init__(self, path):
        self.path = path
        self.contents = {}
        names = FOLDER.fullmatch(path.name)
        if not names:
            raise Broken(f"the store holds {path.name}, which is no stream")
        self.id = names["id"]
        if not (path / "manifest").exists():
            raise Broken(f"{path.name} has no manifest: {sorted(f.name for f in path.iterdir())}")
        self.bytes = (path / "manifest").read_bytes()
        self.lines = self.bytes.decode(errors="replace").split("\n")
        self.queue = self.fact("queue")
        self.end = self.fact("end")
        self.receipt = next((line for line in self.lines if line.startswith("receipt ")), "")
        self.segments = [found for line in self.lines if (found := SEGMENT.fullmatch(line))]
        self.check()

    def fact(self, name):
        start = name + "="
        return next((line[len(start):] for line in self.lines if line.startswith(start)), "")

    def check(self):
        self.check_lines()
        if self.end not in ENDS or f" end={self.end}" not in self.receipt:
            self.fail(f"ends as '{self.end}', its receipt is '{self.receipt}'")
        if any(line.startswith("damaged ") for line in self.lines):
            self.fail("lists damaged files")
        totals = re.search(r" bytes=(\d+) ", self.receipt)
        others = next(filter(None, map(OTHERS.fullmatch, self.lines)), None)
        stored = sum(int(segment["bytes"]) for segment in self.segments)
        if int(totals[1]) != stored + (int(others["bytes"]) if others else 0):
            self.fail(f"has {stored} bytes in segments, its receipt is '{self.receipt}'")
        self.check_files()

    def check_lines(self):
        """The manifest is of format 2, and whole."""
        body, crc32 = self.bytes[:-len("crc32=00000000\n")], self.lines[-2]
        if self.lines[0] != "format=2" or crc32 != f"crc32={zlib.crc32(body):08x}":
            self.fail(f"begins with '{self.lines[0]}' and ends with '{crc32}', not {zlib.crc32(body):08x}")
        if self.fact("stream") != self.id or not self.queue:
            self.fail(f"is of stream '{self.fact('stream')}' and queue '{self.queue}'")
        if not TIME.fullmatch(self.fact("ended")):
            self.fail(f"ended at '{self.fact('ended')}'")
        if not PRODUCER.fullmatch(self.fact("producer") or "uid=0 gid=0 pid=0"):
            self.fail(f"comes from '{self.fact('producer')}'")

    def check_files(self):
        listed = [*self.segments, *filter(None, map(UNFINISHED.fullmatch, self.lines))]
        expected = {"manifest"}
        for line in listed:
            if line["file"] != "-":
                name = self.name_of(line)
                expected.add(name)
                self.check_file(name, line)
        actual = {file.name for file in self.path.iterdir()}
        if actual - {"other-records"} != expected - {"other-records"}:
            self.fail(f"holds {sorted(actual)}, its manifest lists {sorted(expected)}")

    def name_of(self, line):
        """A segment of a broken stream may have been listed, and then not been renamed."""
        name = line["file"]
        part = self.end == "broken" and not (self.path / name).exists()
        return f"{name}.part" if part else name

    def check_file(self, name, line):
        path = self.path / name
        size, crc32, stored = int(line["bytes"]), int(line["crc32"], 16), line["stored"]
        if is_compressed(name) != bool(stored) or (stored and path.stat().st_size != int(stored)):
            self.fail(f"lists {name} with {stored} bytes, which has {path.stat().st_size}")
        content = self.data_of(name)
        if len(content) != size or zlib.crc32(content) != crc32:
            self.fail(f"lists {name} with {size} bytes {crc32:08x}, "
                      f"which has {len(content)} bytes {zlib.crc32(content):08x}")

    def data_of(self, name):
        """Decompressed by another program. A frame may have no end if a full disk broke the stream."""
        path = self.path / name
        if not path.exists() or not is_compressed(name):
            return path.read_bytes() if path.exists() else b""
        ended = subprocess.run(["zstdcat", path], capture_output=True, check=False)
        if ended.returncode != 0 and self.end == "broken" and name.endswith(".part"):
            ended = subprocess.run(["zstdcat"], input=path.read_bytes() + FRAME_END,
                                   capture_output=True, check=False)
        if ended.returncode != 0:
            self.fail(f"has {name}, of which zstdcat says '{ended.stderr.decode().strip()}'")
        return ended.stdout

    def content_of(self, segment):
        """Read once, because each stream is compared with all that was sent."""
        name = self.name_of(segment)
        if name not in self.contents:
            self.contents[name] = b"" if segment["file"] == "-" else self.data_of(name)
        return self.contents[name]

    def holds(self, content):
        """Closed, and byte for byte this."""
        return self.end == "closed" and b"".join(map(self.content_of, self.segments)) == content

    def is_part_of(self, content, segment_size):
        """Each segment is where it belongs, and only one that was not finished is short, or has no
        file."""
        for segment in self.segments:
            start = int(segment["number"]) * segment_size
            whole = content[start:start + segment_size]
            part = self.content_of(segment)
            unfinished = segment["file"] == "-" or segment["file"].endswith(".part")
            if part != whole and not (unfinished and whole.startswith(part)):
                return False
        return True

    def fail(self, what):
        raise Broken(f"{self.path.name} {what}")


def read_store(store):
    """Its streams. Records outside any stream have a file of their own, and are valid."""
    return [StoredStream(path) for path in sorted(store.iterdir())
            if not path.name.endswith("-outside-records")]
