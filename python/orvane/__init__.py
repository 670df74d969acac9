"""Sends streams of data to an orvaned on the same machine, and reads what it has stored.

    with orvane.Stream(label="app.log") as stream:
        for line in lines:
            stream.write(line)
    print(stream.receipt)

    for stored in orvane.Store("/var/lib/orvaned/orders").streams(label="app.log"):
        data = stored.read()

Streams need liborvane_c.so.1. The store is read without it.
"""
from .capture import Message, Record, read_capture
from .errors import Certainty, Damaged, Error, Timeout
from .handler import StreamHandler
from .receipt import End, Receipt
from .store import Store, StoredStream
from .stored_file import Segment, StoredFile
from .stream import Stream

__all__ = [
    "Certainty", "Damaged", "End", "Error", "Message", "Receipt", "Record", "Segment", "Store",
    "StoredFile", "StoredStream", "Stream", "StreamHandler", "Timeout", "read_capture"]
