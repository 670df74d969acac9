"""The smallest producer, as README shows it."""
import os
import subprocess
import sys
import unittest
from pathlib import Path

import orvane
from server import LONG, Server

EXAMPLE = Path(__file__).parents[2] / "examples/smallest_producer.py"


def run(socket):
    environment = dict(os.environ, PYTHONPATH=str(Path(orvane.__file__).parents[1]))
    return subprocess.run([sys.executable, "-B", EXAMPLE, socket], capture_output=True, text=True,
                          timeout=LONG, env=environment)


class ExampleTest(unittest.TestCase):
    def test_stores_its_data(self):
        with Server() as server:
            done = run(server.socket)
            self.assertEqual(done.stderr, "")
            stored = next(orvane.Store(server.store).streams(label="oranges"))
            self.assertEqual(done.stdout, f"{stored.receipt}\n")
            self.assertEqual(stored.read(), b"14 crates of oranges")

    def test_reports_a_missing_server(self):
        done = run("/nowhere/socket")
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stderr, "producer: No server to ask for a lease at /nowhere/socket: No such file "
                                      "or directory; is it running, and may this user connect?\n")


if __name__ == "__main__":
    unittest.main()
