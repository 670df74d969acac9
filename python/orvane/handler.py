"""Log lines as a stream."""
import logging
import time
from typing import Optional

from .errors import Error
from .stream import Stream


class StreamHandler(logging.Handler):
    """Sends each log line to a stream.

        logging.getLogger().addHandler(orvane.StreamHandler(orvane.Stream(label="app.log")))

    It never blocks the program for longer than `bound` seconds for one line. What does not fit then is
    dropped and counted, and reported in the stream when there is room again. The stream belongs to the
    handler, whose close() finishes it."""

    def __init__(self, stream: Stream, bound: float = 0.0, level: int = logging.NOTSET) -> None:
        super().__init__(level)
        self.dropped = 0
        """Lines that were dropped and are not reported yet."""
        self._stream: Optional[Stream] = stream
        self._bound = bound
        self._rest = b""  # of a line that is larger than a record

    def emit(self, record: logging.LogRecord) -> None:
        try:
            line = (self.format(record) + "\n").encode(errors="backslashreplace")
            deadline = time.monotonic() + self._bound
            if self.dropped > 0 and self._send(self._lost(), deadline):
                self.dropped = 0
            if self.dropped > 0 or not self._send(line, deadline):
                self.dropped += 1
            if self._stream is not None:
                self._stream.try_flush()
        except Error:
            self.dropped += 1
            self.handleError(record)
        except Exception:  # as every handler does
            self.handleError(record)

    def flush(self) -> None:
        """Hands to the server what fits now. Every line was handed over already if there was room."""
        self.acquire()
        try:
            if self._stream is not None:
                self._stream.try_flush()
        except Error:
            pass  # close() raises it
        finally:
            self.release()

    def close(self) -> None:
        """Finishes the stream, within the timeouts of its calls. Raises Error if it is not stored."""
        self.acquire()
        try:
            stream, self._stream = self._stream, None
            if stream is not None:
                with stream:
                    stream.write(self._rest + self._lost())
                self.dropped = 0
        finally:
            self.release()
            super().close()

    def _lost(self) -> bytes:
        """The line about the dropped ones."""
        if self.dropped == 0:
            return b""
        return f"{self.dropped} log lines were dropped: the server was too slow\n".encode()

    def _send(self, line: bytes, deadline: float) -> bool:
        """Sends a line. Returns False if it does not fit. If a part of it fits, the rest is sent first
        when there is room again."""
        if self._stream is None or not self._send_rest(deadline):
            return False
        self._rest = line
        if self._send_rest(deadline) or len(self._rest) < len(line):
            return True
        self._rest = b""
        return False

    def _send_rest(self, deadline: float) -> bool:
        stream = self._stream
        while stream is not None and self._rest:
            self._rest = self._rest[stream.try_write(self._rest):]
            if self._rest and not stream.wait(max(0.0, deadline - time.monotonic())):
                return False
        return True
