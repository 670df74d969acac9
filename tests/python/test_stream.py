"""Sending from Python, to the real server."""
import os
import signal
import threading
import time
import unittest
from array import array
from unittest import mock

import orvane
import orvane.library
from server import LONG, Server, wait_until


class Watched:
    """The library, which says when one of its functions is called."""

    def __init__(self, function):
        self.called = threading.Event()
        self._function = function

    def __getattr__(self, name):
        if name == self._function:
            self.called.set()
        return getattr(orvane.library.library(), name)

    def interrupts(self):
        """Sends the program SIGINT, as Ctrl-C does, once the function is called; returns a list of when."""
        sent = []

        def interrupt():
            self.called.wait(LONG)
            sent.append(time.monotonic())
            os.kill(os.getpid(), signal.SIGINT)
        threading.Thread(target=interrupt).start()
        return sent


class StreamTests:
    def setUp(self):
        self.server = self.enterContext(Server())

    def stream(self, **options):
        stream = orvane.Stream(socket=self.server.socket, transport=self.transport,
                               **{"label": "app.log", **options})
        self.addCleanup(stream.close)
        return stream

    def stored(self):
        return list(orvane.Store(self.server.store).streams())

    def the_only_one(self):
        wait_until(lambda: len(self.stored()) == 1)
        return self.stored()[0]

    def stopped(self, **options):
        """A stream to a server that is stopped."""
        stream = self.stream(**options)
        stream.write(b"x")
        stream.flush()
        wait_until(self.server.streams)
        self.server.stop()
        return stream

    def test_stores_what_was_written(self):
        with self.stream() as stream:
            self.assertEqual(stream.transport, self.transport)
            stream.write(b"hello ")
            stream.write(bytearray(b"big "))
            stream.write(memoryview(b"-wide-")[1:5])
            stream.write(b"")
            stream.end_segment()
            stream.write(array("I", [1, 2]))
            stream.flush()
        self.assertEqual(stream.receipt.bytes, 22)
        self.assertEqual(stream.receipt.segments, 2)
        self.assertEqual(stream.receipt.end, orvane.End.CLOSED)
        found = self.the_only_one()
        self.assertEqual(found.receipt, stream.receipt)
        self.assertEqual(found.label, "app.log")
        self.assertEqual(found.segments[0].read(), b"hello big wide")
        self.assertEqual(found.read(), b"hello big wide" + array("I", [1, 2]).tobytes())

    def test_writes_many_objects(self):
        items = [bytes([n % 256]) * n for n in range(2000)]
        mixed = [b"a", bytearray(b"b"), memoryview(b"c"), array("B", b"d"), b""]
        with self.stream() as stream:
            stream.write_many(items)
            stream.write_many(iter(mixed))
            stream.write_many([])
        self.assertEqual(stream.receipt.records, len(items) - 1 + 4, "two are empty")
        self.assertEqual(self.the_only_one().read(), b"".join(items) + b"abcd")

    def test_writes_more_than_fits_at_once(self):
        data = os.urandom(1 << 20) * 20
        parts = [data[:1 << 20], data[:300_000], b"", data[:131_072]] * 10
        with self.stream() as stream:
            stream.write(data)
            stream.write_many(parts)
            stream.write_many(map(bytearray, parts))
        self.assertEqual(self.the_only_one().read(), data + 2 * b"".join(parts))

    def test_an_exception_stops_the_stream(self):
        with self.assertRaises(KeyError):
            with self.stream() as stream:
                stream.write(b"half")
                raise KeyError
        self.assertIsNone(stream.receipt)
        self.assertEqual(self.the_only_one().end, orvane.End.STOPPED)
        self.assertEqual(self.the_only_one().read(), b"half")

    def test_a_forgotten_stream_is_stopped(self):
        stream = orvane.Stream(socket=self.server.socket, transport=self.transport)
        stream.write(b"half")
        del stream
        self.assertEqual(self.the_only_one().end, orvane.End.STOPPED)

    def test_what_has_no_bytes_is_refused(self):
        with self.stream() as stream:
            for wrong in ("text", 7, None):
                with self.assertRaises(TypeError):
                    stream.write(wrong)
                with self.assertRaises(TypeError):
                    stream.write_many([b"a", wrong])
            with self.assertRaises(BufferError):
                stream.write(memoryview(b"gaps")[::2])
        self.assertEqual(stream.receipt.bytes, 0)

    def test_a_call_after_finish_is_refused(self):
        with self.stream() as stream:
            receipt = stream.finish()
            self.assertEqual(stream.finish(), receipt)
            for call in (lambda: stream.write(b"x"), lambda: stream.write_many([b"x"]),
                         lambda: stream.try_write(b"x"), stream.end_segment, stream.flush):
                with self.assertRaises(orvane.Error) as raised:
                    call()
                self.assertEqual(raised.exception.status, 44)
                self.assertEqual(raised.exception.message,
                                 "The stream takes no more data: finish() was called")
                self.assertEqual(raised.exception.certainty, orvane.Certainty.STORED)
        for call in (lambda: stream.write(b"x"), stream.flush, stream.fileno):
            with self.assertRaises(ValueError):
                call()
        stream.close()

    def test_a_stopped_server_is_a_timeout(self):
        stream = self.stopped(timeout=1)
        data = os.urandom(40_000_000)
        with self.assertRaises(orvane.Timeout) as raised:
            stream.write(data)
        self.assertEqual(raised.exception.status, 15)
        self.assertEqual(raised.exception.message, "Timed out after waiting 1s for room: the server is "
                                                   "busy or was stopped")
        self.assertEqual(raised.exception.certainty, orvane.Certainty.NOT_STORED)
        taken = raised.exception.taken
        self.assertTrue(0 < taken < len(data))
        with self.assertRaises(orvane.Timeout) as raised:
            stream.write_many([data, data])
        taken_then = raised.exception.taken
        self.assertFalse(stream.wait(0.01))
        with self.assertRaises(orvane.Timeout) as raised:
            stream.finish()
        self.assertEqual(raised.exception.message, "Timed out after waiting 1s for the receipt: the "
                         "server is busy or was stopped; call finish() again to wait longer")
        self.assertEqual(raised.exception.certainty, orvane.Certainty.UNKNOWN)
        self.server.signal_all(signal.SIGCONT)
        wait_until(lambda: self.finishes(stream))
        self.assertEqual(self.the_only_one().read(), b"x" + data[:taken] + data[:taken_then])

    def finishes(self, stream):
        try:
            return stream.finish()
        except orvane.Timeout:
            return None

    def test_other_threads_run_while_it_waits(self):
        stream = self.stopped(timeout=LONG)
        stream._library = Watched("orvane_stream_wait")
        items = [os.urandom(n) for n in (100_000, 200_000, 300_000)] * 50
        writer = threading.Thread(target=stream.write_many, args=(items,))
        writer.start()
        self.assertTrue(stream._library.called.wait(LONG))
        self.assertTrue(writer.is_alive())
        self.server.signal_all(signal.SIGCONT)
        writer.join()
        with stream:
            pass
        self.assertEqual(self.the_only_one().read(), b"x" + b"".join(items))

    def test_ctrl_c_ends_a_wait(self):
        stream = self.stopped(timeout=LONG)
        for call in (lambda: stream.write(bytes(40_000_000)), stream.finish):
            stream._library = Watched("orvane_stream_wait")
            sent = stream._library.interrupts()
            with self.assertRaises(KeyboardInterrupt):
                call()
            self.assertLess(time.monotonic() - sent[0], 5)
        self.server.signal_all(signal.SIGCONT)

    def test_ctrl_c_ends_the_wait_for_a_lease(self):
        self.server.stop()
        watched = Watched("orvane_stream_open")
        sent = watched.interrupts()
        with mock.patch("orvane.stream.library", lambda: watched):
            with self.assertRaises(KeyboardInterrupt):
                self.stream(timeout=LONG)
        self.assertLess(time.monotonic() - sent[0], 5)
        self.server.signal_all(signal.SIGCONT)

    def test_a_dead_server_is_an_error(self):
        stream = self.stopped()
        self.server.kill()
        with self.assertRaises(orvane.Error) as raised:
            while True:
                stream.write(bytes(1_000_000))
        # 1008 if any other server that starts meanwhile answers in the queues of the dead one.
        self.assertIn(raised.exception.status, (901, 1008))
        self.assertEqual(raised.exception.certainty, orvane.Certainty.NOT_STORED)
        with self.assertRaises(orvane.Error) as again:
            stream.finish()
        self.assertEqual(again.exception.message, raised.exception.message)

    def test_a_full_disk_is_an_error(self):
        server = self.enterContext(Server(limit=9 << 20))
        stream = orvane.Stream(socket=server.socket, transport=self.transport)
        self.addCleanup(stream.close)
        with self.assertRaises(orvane.Error) as raised:
            stream.write(os.urandom(20_000_000))
            stream.finish()
        self.assertEqual(raised.exception.status, 1003)
        self.assertRegex(raised.exception.message, "^File too large: cannot write ")
        self.assertEqual(raised.exception.certainty, orvane.Certainty.NOT_STORED)

    def test_a_forked_child_cannot_use_it(self):
        stream = self.stream()
        child = os.fork()
        if child == 0:
            try:
                stream.write(b"x")
            except orvane.Error as error:
                os._exit(7 if error.status == 901 else 1)
            os._exit(2)
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), 7)
        with stream:
            stream.write(b"parent")
        self.assertEqual(self.the_only_one().read(), b"parent")

    def test_the_environment_names_a_socket(self):
        with mock.patch.dict(os.environ, ORVANE_SOCKET=str(self.server.socket)):
            with orvane.Stream() as stream:
                stream.write(b"x")
        self.assertEqual(stream.receipt.bytes, 1)

    def test_is_opened_by_any_thread(self):
        found = []
        thread = threading.Thread(target=lambda: found.append(self.stream()))
        thread.start()
        thread.join()
        with found[0] as stream:
            stream.write(b"x")
        self.assertEqual(stream.receipt.bytes, 1)


class RingStreamTest(StreamTests, unittest.TestCase):
    transport = "ring"


class QueueStreamTest(StreamTests, unittest.TestCase):
    transport = "queue"


if __name__ == "__main__":
    unittest.main()
