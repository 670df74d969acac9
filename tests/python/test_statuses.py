"""Each status that a program in Python can meet."""
import unittest
from unittest import mock

import orvane
from server import FakeServer, Server


class StatusTest(unittest.TestCase):
    def fails(self, status, message, certainty, call):
        with self.assertRaises(orvane.Error) as raised:
            call()
        self.assertEqual(raised.exception.status, status)
        self.assertEqual(raised.exception.message, message)
        self.assertEqual(str(raised.exception), message)
        self.assertEqual(raised.exception.certainty, certainty)

    def test_of_a_missing_server(self):
        self.fails(900, "No server to ask for a lease at /nowhere/socket: No such file or directory; is it "
                        "running, and may this user connect?", orvane.Certainty.NOT_STORED,
                   lambda: orvane.Stream(socket="/nowhere/socket"))

    def test_of_a_wrong_option(self):
        with self.assertRaises(ValueError):
            orvane.Stream(transport="pigeon")
        self.fails(9, "Invalid timeout, specified value 0 was less than minimum allowed value of 1",
                   orvane.Certainty.NOT_STORED,
                   lambda: orvane.Stream(socket="/nowhere/socket", timeout=0))

    def test_of_a_refused_lease(self):
        for status in (1005, 1006, 1007):
            with FakeServer(f"refused {status} the reason".encode()) as server:
                self.fails(status, "the reason", orvane.Certainty.NOT_STORED,
                           lambda: orvane.Stream(socket=server.socket))

    def test_of_messages_without_room_for_data(self):
        with Server("--message-size", "56") as server:
            self.fails(89, "The messages of the server's queue are too small for data",
                       orvane.Certainty.NOT_STORED,
                       lambda: orvane.Stream(socket=server.socket, transport="queue"))

    def test_of_a_stream_that_is_not_stored(self):
        for transport in ("ring", "queue"):
            for status in (1000, 1001, 1002, 1003, 1004, 1008):
                certainty = (orvane.Certainty.UNKNOWN if status == 1008
                             else orvane.Certainty.NOT_STORED)
                self.finish_fails(f"failed {status} the reason", transport, status, "the reason",
                                  certainty)

    def test_of_another_receipt(self):
        for transport in ("ring", "queue"):
            receipt = "receipt stream=x records=1 bytes=2 segments=1 end=closed"
            self.finish_fails(receipt, transport, 902, "The server did not store the whole stream: 1 "
                              "bytes in 1 segments were sent, and the answer is: " + receipt,
                              orvane.Certainty.NOT_STORED)

    def test_of_a_server_that_ended(self):
        reason = "The server ended the lease without a reason: it died or was stopped"
        self.finish_fails("", "queue", 901, reason, orvane.Certainty.UNKNOWN)
        self.finish_fails("", "ring", 901, "The stream is stored, but its receipt is lost: " + reason,
                          orvane.Certainty.STORED)

    def finish_fails(self, says, transport, status, message, certainty):
        with Server() as real, FakeServer(says.encode(), real) as server:
            stream = orvane.Stream(socket=server.socket, transport=transport)
            stream.write(b"x")
            self.fails(status, message, certainty, stream.finish)
            stream.close()

    def test_of_a_missing_library(self):
        with mock.patch("ctypes.CDLL", side_effect=OSError("no such file")):
            orvane.library.library.cache_clear()
            with self.assertRaisesRegex(OSError, "^no such file: install liborvane1 to send streams$"):
                orvane.Stream()


if __name__ == "__main__":
    unittest.main()
