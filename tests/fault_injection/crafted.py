"""Stored streams, written with no help from the code that writes them otherwise."""

import struct
import zlib

OTHER_TYPE = 100


def name_of(number):
    return f"segment-{number:06d}"


def segment_line(number, data, file=None):
    return (f"segment number={number} records=1 bytes={len(data)} algorithm=0 parameters=0,0,0 "
            f"crc32={zlib.crc32(data):08x} file={file or name_of(number)}")


def record(number, data):
    """A record of a type of its own, as the file other-records has it."""
    return struct.pack(">IIQQIIIII4s", OTHER_TYPE, len(data), number, 0, 1, 0, 0, 0, 0,
                       bytes.fromhex("aabbccdd")) + data


class Crafted:
    """One stream: add its files, then write it."""

    def __init__(self, store, stream, queue="crafted"):
        self.path = store / f"{queue}-{stream}"
        self.stream = stream
        self.queue = queue
        self.lines = []
        self.files = {}
        self.records = self.bytes = self.segments = 0

    def segment(self, data, file=None):
        self.lines.append(segment_line(self.segments, data, file))
        self.files[file or name_of(self.segments)] = data
        self.records += 1
        self.bytes += len(data)
        self.segments += 1
        return self

    def others(self, *datas):
        content = b"".join(record(2 + number, data) for number, data in enumerate(datas))
        size = sum(map(len, datas))
        self.lines += [f"other-records={len(datas)} bytes={size} crc32={zlib.crc32(content):08x}",
                       "skipped=0"]
        if datas:
            self.files["other-records"] = content
        self.records += len(datas)
        self.bytes += size
        return self

    def unfinished(self, data):
        file = name_of(self.segments) + ".part"
        self.lines.append(f"unfinished file={file} bytes={len(data)} crc32={zlib.crc32(data):08x}")
        self.files[file] = data
        return self

    def write(self, end="closed", ended="2026-01-01T00:00:01.000Z", reason="", version=2):
        facts = [f"format={version}", f"queue={self.queue}", f"stream={self.stream}"]
        if version == 2:
            facts += ["producer=uid=0 gid=0 pid=1", "begun=2026-01-01T00:00:00.000Z"]
        facts += self.lines
        facts += [f"receipt stream={self.stream} records={self.records} bytes={self.bytes} "
                  f"segments={self.segments} end={end}",
                  f"records={self.records}", f"bytes={self.bytes}", f"end={end}"]
        facts += [f"ended={ended}"] if version == 2 else []
        facts += [f"reason={reason}"]
        text = "".join(line + "\n" for line in facts)
        if version == 2:
            text += f"crc32={zlib.crc32(text.encode()):08x}\n"
        # Programs that look into the store meanwhile see all of it or nothing.
        hidden = self.path.with_name(f".{self.path.name}.crafted")
        hidden.mkdir()
        for name, data in self.files.items():
            (hidden / name).write_bytes(data)
        (hidden / "manifest").write_text(text)
        return hidden.rename(self.path)
