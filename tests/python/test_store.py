"""Reading what the server has stored."""
import contextlib
import datetime
import os
import struct
import subprocess
import sys
import tempfile
import unittest
import zlib
from pathlib import Path
from unittest import mock

import orvane
from server import Server, wait_until

MANIFEST = """\
format=2
queue=orders
stream=20261121T023224-4711_0
producer=uid=1000 gid=1000 pid=4712 executable=backup
label=14%20crates
begun=2026-11-21T02:32:24.123Z
segment number=0 records=2 bytes=5 algorithm=0 parameters=7,8,9 crc32=3610a686 file=segment-000000
segment number=1 records=1 bytes=0 algorithm=1 parameters=0,0,0 crc32=00000000 file=-
other-records=1 bytes=2 crc32=CRC
skipped=0
receipt stream=20261121T023224-4711_0 records=4 bytes=7 segments=1 end=closed
records=4
bytes=7
end=closed
ended=2026-11-21T02:32:31.004Z
reason=
"""
OTHER = struct.pack(">IIQQIIIIII", 9, 2, 5, 0, 1, 0, 0, 0, 0, 0xAABBCCDD) + b"hi"


class StoreTest(unittest.TestCase):
    """A store with one stream, whose lines and files a test changes."""

    def setUp(self):
        self.store = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.folder = self.store / "orders-20261121T023224-4711_0"
        self.folder.mkdir()
        (self.folder / "segment-000000").write_bytes(b"hello")
        (self.folder / "other-records").write_bytes(OTHER)
        self.lines = MANIFEST.replace("CRC", f"{zlib.crc32(OTHER):08x}")
        self.write(self.lines)

    def write(self, lines):
        if lines.startswith("format=2"):
            lines += f"crc32={zlib.crc32(lines.encode()):08x}\n"
        (self.folder / "manifest").write_text(lines)

    def stream(self):
        streams = list(orvane.Store(self.store).streams())
        self.assertEqual(len(streams), 1)
        return streams[0]

    def damaged(self, text, call):
        with self.assertRaises(orvane.Damaged) as raised:
            call()
        self.assertEqual(str(raised.exception), text.replace("FOLDER", str(self.folder)))

    def test_reads_the_lines_of_a_manifest(self):
        stream = self.stream()
        self.assertEqual(stream.id, "orders-20261121T023224-4711_0")
        self.assertEqual(stream.queue, "orders")
        self.assertEqual(stream.label, "14 crates")
        self.assertEqual(stream.end, orvane.End.CLOSED)
        self.assertEqual(stream.reason, "")
        self.assertEqual(stream.begun, datetime.datetime(
            2026, 11, 21, 2, 32, 24, 123000, datetime.timezone.utc))
        self.assertEqual(stream.ended.second, 31)
        self.assertEqual(stream.receipt, orvane.Receipt("20261121T023224-4711_0", 4, 7, 1,
                                                        orvane.End.CLOSED))
        self.assertEqual(str(stream.receipt), "receipt stream=20261121T023224-4711_0 records=4 bytes=7 "
                                              "segments=1 end=closed")
        first, empty = stream.segments
        self.assertEqual((first.number, first.records, first.bytes, first.state, first.parameters),
                         (0, 2, 5, 0, (7, 8, 9)))
        self.assertIsNone(empty.path)
        self.assertEqual(stream.fields["skipped"], "0")

    def test_reads_data(self):
        stream = self.stream()
        self.assertEqual(stream.read(), b"hello")
        with stream.segments[0].open() as file:
            self.assertEqual(file.read(2), b"he")
        self.assertEqual(stream.segments[1].read(), b"")
        with stream.segments[1].open() as file:
            self.assertEqual(file.read(), b"")
        self.assertEqual(stream.other_records(),
                         [orvane.Record(9, 5, 0, 1, 0, (0, 0, 0), b"hi")])

    def test_selects_streams(self):
        store = orvane.Store(str(self.store))
        for selection, count in (({"label": "14 crates"}, 1), ({"label": "14"}, 0), ({"queue": "orders"}, 1),
                                 ({"queue": "x"}, 0), ({"end": orvane.End.CLOSED}, 1),
                                 ({"end": orvane.End.BROKEN}, 0)):
            self.assertEqual(len(list(store.streams(**selection))), count, selection)

    def test_leaves_out_what_is_no_stream_that_has_ended(self):
        (self.store / ".new").mkdir()
        (self.store / "open").mkdir()
        (self.store / "file").write_text("")
        self.stream()

    def test_refuses_data_that_differs(self):
        path = self.folder / "segment-000000"
        segment = self.stream().segments[0]
        for content, text in (
                (b"hallo", "FOLDER/segment-000000 has the checksum 13debd6c instead of 3610a686"),
                (b"hell", "FOLDER/segment-000000 has 4 bytes of data instead of 5")):
            path.write_bytes(content)
            self.damaged(text.replace("13debd6c", f"{zlib.crc32(content):08x}"), segment.read)
            self.damaged(text.replace("13debd6c", f"{zlib.crc32(content):08x}"), segment.open)
        path.unlink()
        self.damaged("FOLDER/segment-000000 is missing", self.stream().read)

    def test_refuses_other_records_that_differ(self):
        (self.folder / "other-records").write_bytes(OTHER[:-1])
        self.damaged("FOLDER/other-records has 49 bytes of data instead of 50",
                     self.stream().other_records)

    def test_refuses_a_manifest_that_is_not_valid(self):
        def changed(old, new):
            self.assertIn(old, self.lines)
            return self.lines.replace(old, new)
        for lines, text in (
                (changed("format=2", "format=3"), "'format=3' is not a format that this release reads"),
                (changed("receipt stream", "receipt stem"), "'receipt stem=20261121T023224-4711_0 records=4 "
                 "bytes=7 segments=1 end=closed' is no receipt"),
                (changed("queue=orders\n", ""), "it has no line queue"),
                (changed("\nend=closed", "\nend=broken"), "its end is not that of its receipt"),
                (changed("bytes=5", "bytes=6"), "its receipt has 7 bytes instead of 8"),
                (changed("skipped=0", "skipped"), "'skipped' is no line of a manifest"),
                (changed("file=segment-000000", "file=../segment-000000"), None)):
            self.write(lines)
            if text is None:
                with self.assertRaisesRegex(orvane.Damaged, "is no line of a manifest$"):
                    self.stream()
            else:
                self.damaged("FOLDER/manifest: " + text, self.stream)

    def test_refuses_a_manifest_of_which_any_byte_was_changed(self):
        self.write(self.lines)
        path = self.folder / "manifest"
        content = path.read_bytes()
        for at in range(len(content)):
            path.write_bytes(content[:at] + bytes([content[at] ^ 1]) + content[at + 1:])
            with self.assertRaises(orvane.Damaged, msg=f"byte {at}"):
                self.stream()
        for size in range(len(content)):
            path.write_bytes(content[:size])
            with self.assertRaises(orvane.Damaged, msg=f"{size} bytes"):
                self.stream()

    def test_reads_the_first_format(self):
        lines = "".join(line + "\n" for line in self.lines.splitlines()
                        if not line.startswith(("producer=", "label=", "begun=", "ended=")))
        self.write(lines.replace("format=2", "format=1").replace("closed", "broken").replace(
            "reason=", "reason=File too large: 100%20\nreason=odd"))
        stream = self.stream()
        self.assertEqual(stream.reason, "File too large: 100%20\nreason=odd")
        self.assertEqual(stream.label, "")
        self.assertIsNone(stream.begun)
        self.assertEqual(stream.read(), b"hello")

    def test_reads_what_a_dead_server_left(self):
        (self.folder / "segment-000002.part").write_bytes(b"abc")
        self.write(self.lines.replace("closed", "cut-off").replace("reason=", "reason=the%20server%20died")
                   .replace("other-records=", f"unfinished file=segment-000002.part bytes=3 crc32="
                            f"{zlib.crc32(b'abc'):08x}\nother-records="))
        stream = self.stream()
        self.assertEqual(stream.reason, "the server died")
        self.assertEqual(stream.read(), b"hello")
        self.assertEqual([file.read() for file in stream.unfinished], [b"abc"])

    def test_refuses_data_that_the_server_found_damaged(self):
        self.write(self.lines.replace("closed", "cut-off").replace(
            "other-records=", "damaged file=segment-000000 reason=it%20is%20missing\nother-records="))
        self.damaged("FOLDER: damaged file=segment-000000 reason=it is missing", self.stream().read)


class CompressedTest(unittest.TestCase):
    """Needs a module that decompresses."""

    @classmethod
    def setUpClass(cls):
        cls.data = b"14 crates of oranges\n" * 200_000
        cls.server = cls.enterClassContext(Server("--compress", "zstd"))
        with orvane.Stream(socket=cls.server.socket) as stream:
            stream.write(cls.data)
            stream.end_segment()
            stream.write(os.urandom(2_000_000))

    def stream(self):
        return next(orvane.Store(self.server.store).streams())

    def test_reads_the_data(self):
        compressed, plain = self.stream().segments
        self.assertLess(compressed.stored, len(self.data))
        self.assertIsNone(plain.stored)
        self.assertEqual(compressed.read(), self.data)
        with compressed.open() as file:
            self.assertEqual(file.read(20), b"14 crates of oranges")
        self.assertEqual(len(plain.read()), 2_000_000)

    def test_refuses_what_was_changed(self):
        segment = self.stream().segments[0]
        path = Path(segment.path)
        content = path.read_bytes()
        try:
            path.write_bytes(content[:-1])
            with self.assertRaisesRegex(orvane.Damaged, f" has {len(content) - 1} bytes instead of "):
                segment.read()
            for at in range(0, len(content), 50):
                path.write_bytes(content[:at] + bytes([content[at] ^ 0x55]) + content[at + 1:])
                with contextlib.suppress(orvane.Damaged):
                    self.assertEqual(segment.read(), self.data, f"byte {at}")
            path.write_bytes(b"\0" * len(content))
            with self.assertRaisesRegex(orvane.Damaged, "segment-000000.zst is damaged: "):
                segment.read()
        finally:
            path.write_bytes(content)

    def test_says_what_is_missing(self):
        with mock.patch.dict(sys.modules, {"zstandard": None, "compression.zstd": None}):
            with self.assertRaisesRegex(orvane.Damaged, "segment-000000.zst is compressed: install the "
                                                        "module zstandard to read it$"):
                self.stream().read()


class CaptureTest(unittest.TestCase):
    def setUp(self):
        self.file = Path(self.enterContext(tempfile.TemporaryDirectory())) / "capture"

    def messages(self, content):
        self.file.write_bytes(content)
        return list(orvane.read_capture(self.file))

    def test_is_what_the_server_has_received(self):
        with Server("--capture", self.file) as server:
            with orvane.Stream(socket=server.socket, transport="queue") as stream:
                stream.write(b"hello")
            wait_until(lambda: orvane.read_capture(self.file))
        records = [record for message in orvane.read_capture(self.file) for record in message.records()]
        self.assertEqual([record.type for record in records], [0, 1, 3])
        self.assertEqual(records[1], orvane.Record(1, 2, 0, 0, 0, (0, 0, 0), b"hello"))

    def test_shows_messages_that_are_no_batches(self):
        entry = b"ORVC" + struct.pack(">IQ", 6, 8) + b"ordersrubbish!"
        messages = self.messages(entry * 2)
        self.assertEqual([(message.queue, message.offset, message.bytes) for message in messages],
                         [("orders", 0, b"rubbish!"), ("orders", 30, b"rubbish!")])
        with self.assertRaises(orvane.Damaged):
            messages[0].records()

    def test_skips_what_was_not_written_whole(self):
        batch = struct.pack(">II", 0xFF00EE11, 0)
        entry = b"ORVC" + struct.pack(">IQ", 6, 8) + b"orders" + batch
        messages = self.messages(entry[:25] + entry + entry[:10])
        self.assertEqual([message.offset for message in messages], [25])
        self.assertEqual(messages[0].records(), [])

    def test_refuses_a_batch_that_is_not_whole(self):
        batch = struct.pack(">II", 0xFF00EE11, 1) + OTHER
        self.assertEqual(len(orvane.Message("q", 0, batch).records()), 1)
        for wrong in (batch[:-1], batch + b"x", batch[:40], b"", batch[:4] + b"\0\0\0\2" + batch[8:],
                      batch[:-3] + b"\0" + batch[-2:]):
            with self.assertRaises(orvane.Damaged):
                orvane.Message("q", 0, wrong).records()


class ReceiptTest(unittest.TestCase):
    def test_is_read_and_written(self):
        line = "receipt stream=x records=1 bytes=2 segments=3 end=cut-off"
        receipt = orvane.Receipt.parse(line)
        self.assertEqual(receipt, orvane.Receipt("x", 1, 2, 3, orvane.End.CUT_OFF))
        self.assertEqual(str(receipt), line)
        for wrong in ("", line + " ", line.replace("cut-off", "gone"), line.replace("=2", "=-2")):
            self.assertIsNone(orvane.Receipt.parse(wrong))


class WithoutLibraryTest(unittest.TestCase):
    def test_a_store_is_read(self):
        code = "import sys, ctypes; ctypes.CDLL = None; import orvane; print(list(orvane.Store('.').streams()))"
        with tempfile.TemporaryDirectory() as folder:
            done = subprocess.run([sys.executable, "-B", "-c", code], cwd=folder, capture_output=True,
                                  text=True)
        self.assertEqual((done.stdout, done.stderr), ("[]\n", ""))


if __name__ == "__main__":
    unittest.main()
