"""Log lines as a stream."""
import logging
import re
import signal
import time
import unittest

import orvane
from server import LONG, Server, wait_until


class HandlerTests:
    def setUp(self):
        self.server = self.enterContext(Server())
        self.stream = orvane.Stream(socket=self.server.socket, transport=self.transport)
        self.addCleanup(self.stream.close)
        self.log = logging.Logger("test")

    def handler(self, **options):
        handler = orvane.StreamHandler(self.stream, **options)
        self.log.addHandler(handler)
        return handler

    def stored(self):
        return next(orvane.Store(self.server.store).streams()).read().decode()

    def stop_server(self):
        self.stream.flush()
        wait_until(self.server.streams)
        self.server.stop()

    def test_sends_each_line(self):
        handler = self.handler()
        handler.setFormatter(logging.Formatter("%(levelname)s %(message)s"))
        self.log.warning("14 crates of %s", "oranges")
        self.log.info("naïve")
        handler.flush()
        handler.close()
        handler.close()
        self.assertEqual(self.stored(), "WARNING 14 crates of oranges\nINFO naïve\n")

    def test_hands_each_line_to_the_server(self):
        handler = self.handler()
        self.log.warning("first")
        wait_until(lambda: any(file.read_bytes() == b"first\n" for stream in self.server.streams()
                               for file in stream.glob("segment-*")))
        handler.close()

    def test_sends_a_long_line_whole(self):
        handler = self.handler(bound=60)
        line = "x" * 3_000_000
        for _ in range(3):
            self.log.warning(line)
        handler.close()
        self.assertEqual(handler.dropped, 0)
        self.assertTrue(self.stored() == 3 * (line + "\n"))

    def fill(self, handler):
        """Logs until lines are dropped; returns how many were logged."""
        count = 0
        while handler.dropped < 3:
            self.log.warning("x" * 60000)
            count += 1
        return count

    def reported(self):
        """The lines that are stored, and how many others the reports among them count."""
        report = re.compile(r"(\d+) log lines were dropped: the server was too slow\n")
        text = self.stored()
        return report.sub("", text).split("\n")[:-1], sum(map(int, report.findall(text)))

    def test_drops_and_counts_what_does_not_fit(self):
        handler = self.handler()
        self.stop_server()
        logged = self.fill(handler)
        self.server.signal_all(signal.SIGCONT)
        end = time.monotonic() + LONG
        while handler.dropped > 0:
            self.assertLess(time.monotonic(), end)
            self.log.warning("after")
            logged += 1
        handler.close()
        lines, dropped = self.reported()
        self.assertEqual(len(lines) + dropped, logged)
        self.assertGreaterEqual(dropped, 3)
        self.assertEqual(lines[-1], "after")
        self.assertEqual(set(lines), {"x" * 60000, "after"})

    def test_reports_at_the_end_what_was_dropped(self):
        handler = self.handler()
        self.stop_server()
        logged = self.fill(handler)
        self.server.signal_all(signal.SIGCONT)
        handler.close()
        lines, dropped = self.reported()
        self.assertEqual(len(lines) + dropped, logged)
        self.assertTrue(self.stored().endswith(" log lines were dropped: the server was too slow\n"))

    def test_counts_the_lines_after_its_close(self):
        handler = self.handler()
        handler.close()
        self.log.warning("late")
        self.assertEqual(handler.dropped, 1)

    def test_reports_an_error_and_goes_on(self):
        handler = self.handler()
        self.server.kill()
        failed = []
        handler.handleError = failed.append
        wait_until(lambda: self.log.warning("x") or failed)
        self.assertGreater(handler.dropped, 0)
        handler.flush()
        with self.assertRaises(orvane.Error):
            handler.close()


class RingHandlerTest(HandlerTests, unittest.TestCase):
    transport = "ring"


class QueueHandlerTest(HandlerTests, unittest.TestCase):
    transport = "queue"


if __name__ == "__main__":
    unittest.main()
