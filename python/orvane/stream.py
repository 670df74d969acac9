"""Sending a stream."""
import ctypes
import os
import threading
import time
import types
from array import array
from typing import Any, Callable, Iterable, List, Optional, Type, Union

from .errors import Certainty, Error, Timeout
from .library import (NO_MEMORY, TIMED_OUT, TRANSPORTS, Borrowed, CReceipt, Options, library)
from .receipt import ENDS, Receipt

_SLICE_MS = 50  # a wait is interrupted that often, so that Ctrl-C ends it
_WORD = ctypes.sizeof(ctypes.c_size_t)


class Stream:
    """One stream to the server.

        with orvane.Stream(socket="/run/orvaned/orders/socket", label="app.log") as stream:
            for line in lines:
                stream.write(line)
        print(stream.receipt)

    At the end of the block everything is stored. Leaving the block by an exception stops the stream
    instead, and the store marks it as stopped. One thread uses a stream at a time; other threads run
    while a call waits, and Ctrl-C ends the wait. In a forked child every call raises Error.
    """

    receipt: Optional[Receipt]
    """What the server has stored; None until finish() has returned."""

    def __init__(self, socket: Union[str, "os.PathLike[str]", None] = None, label: str = "",
                 timeout: int = 30, transport: str = "automatic",
                 ring_bytes: Optional[int] = None) -> None:
        """Starts a stream at the server that listens at `socket`; without one, at that of the
        environment's ORVANE_SOCKET, or else at the only one that matches /run/orvaned/*/socket.
        `timeout` is the longest that one call waits, in seconds. `transport` is "automatic",
        "ring" or "queue"; a ring has `ring_bytes` bytes, a power of two. Raises Error."""
        self.receipt = None
        self._handle = ctypes.c_void_p()
        self._timeout = timeout
        self._count = ctypes.c_size_t()
        if transport not in TRANSPORTS:
            raise ValueError(f"transport is one of {', '.join(TRANSPORTS)}, and not {transport}")
        self._library = library()
        path = os.fspath(socket) if socket is not None else os.environ.get("ORVANE_SOCKET", "")
        options = Options()
        self._library.orvane_stream_options_init(ctypes.byref(options), ctypes.sizeof(options))
        options.socket = os.fsencode(path) if path else None
        options.label = label.encode()
        options.timeout = timeout
        options.transport = TRANSPORTS[transport]
        if ring_bytes is not None:
            options.ring_bytes = ring_bytes
        status = self._open(options)
        if status != 0:
            error = self._error(status)
            self.close()
            raise error

    def write(self, data: Any) -> None:
        """Appends the bytes of any object with the buffer protocol to the current segment, without
        a copy of its own. Raises Timeout, which knows how many bytes were taken."""
        taken = 0
        if type(data) is bytes:  # ctypes passes its address
            taken = self._try_write(data, len(data))
            if taken == len(data):
                return
        with Borrowed(data) as view:
            self._write_rest(view, taken)

    def write_many(self, items: Iterable[Any]) -> None:
        """Appends many objects, each as a record of its own. It is much faster than many calls of
        write(). The bytes that a Timeout counts are those of all of them."""
        items = list(items)
        if set(map(type, items)) <= {bytes}:
            pointers = (ctypes.c_char_p * len(items))(*items)
            self._write_buffers(array("Q", bytes(pointers)), array("Q", map(len, items)))
            return
        views: List[Borrowed] = []
        try:
            for item in items:
                views.append(Borrowed(item))
            self._write_buffers(array("Q", (view.address or 0 for view in views)),
                                array("Q", (view.size for view in views)))
        finally:
            for view in views:
                view.release()

    def end_segment(self) -> None:
        """Ends the current segment, which the server stores as a file; the next data starts another."""
        self._repeat(lambda: int(self._library.orvane_stream_try_end_segment(self._open_handle())),
                     "room")

    def flush(self) -> None:
        """Hands to the server what was written. Raises Error if the server has refused the stream."""
        self._repeat(lambda: int(self._library.orvane_stream_try_flush(self._open_handle())), "room")

    def finish(self) -> Receipt:
        """Ends the stream, and returns its receipt when everything is stored. After a Timeout it may
        be called again, and waits again. Any other Error says what is certain."""
        if self.receipt is None:
            found = CReceipt()
            found.size = ctypes.sizeof(found)
            self._repeat(lambda: int(self._library.orvane_stream_try_finish(
                self._open_handle(), ctypes.byref(found))), "the receipt")
            self.receipt = Receipt(found.stream.decode(), found.records, found.bytes,
                                   found.segments, ENDS[found.end])
        return self.receipt

    def try_write(self, data: Any) -> int:
        """Appends what there is room for now, and returns how many bytes were taken. Never waits for
        room. At most 131072 bytes are taken as a whole or not at all, unless a queue's messages are
        smaller than that."""
        with Borrowed(data) as view:
            return self._try_write(view.address, view.size)

    def try_flush(self) -> bool:
        """Hands to the server what was written. Does not wait, and returns False if there is no room."""
        status: int = self._library.orvane_stream_try_flush(self._open_handle())
        if status not in (0, TIMED_OUT):
            raise self._error(status)
        return status == 0

    def wait(self, seconds: float) -> bool:
        """Waits until there is room, after a call that found none. Returns False after so long."""
        deadline = time.monotonic() + seconds
        while True:
            left = deadline - time.monotonic()
            status: int = self._library.orvane_stream_wait(
                self._open_handle(), min(_SLICE_MS, max(0, int(left * 1000))))
            if status != TIMED_OUT:
                return True  # the next call raises what is wrong
            if left <= 0:
                return False

    def fileno(self) -> int:
        """The descriptor for an event loop; see orvane_stream(3)."""
        fd: int = self._library.orvane_stream_fd(self._open_handle())
        if fd < 0:
            raise self._error(self._library.orvane_stream_status(self._handle))
        return fd

    @property
    def transport(self) -> str:
        """What the stream uses: "ring" or "queue"."""
        number = self._library.orvane_stream_transport(self._open_handle())
        return next(name for name, value in TRANSPORTS.items() if value == number)

    def close(self) -> None:
        """Frees the stream. One that is not finished is stopped, which waits at most 1 s."""
        handle, self._handle = self._handle, ctypes.c_void_p()
        if handle:
            self._library.orvane_stream_close(handle)

    def __enter__(self) -> "Stream":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[types.TracebackType]) -> None:
        try:
            if kind is None:
                self.finish()
        finally:
            self.close()

    def __del__(self) -> None:
        if getattr(self, "_handle", None):
            self.close()

    def _open(self, options: Options) -> int:
        """Opens the stream; in another thread, because a signal is for the main thread, and ends
        its wait for that thread but not its call of the library."""
        if threading.current_thread() is not threading.main_thread():
            return int(self._library.orvane_stream_open(ctypes.byref(options),
                                                        ctypes.byref(self._handle)))
        opening = _Opening(self._library, options)
        opening.start()
        try:
            while opening.is_alive():
                opening.join(_SLICE_MS / 1000)
        except BaseException:
            opening.abandon()
            raise
        self._handle = opening.handle
        return opening.status

    def _open_handle(self) -> ctypes.c_void_p:
        if not self._handle:
            raise ValueError("the stream is closed")
        return self._handle

    def _error(self, status: int, taken: int = 0) -> Error:
        if not self._handle:
            return Error(NO_MEMORY, "There is not enough memory")
        message = self._library.orvane_stream_message(self._handle).decode(errors="replace")
        certainty = Certainty(self._library.orvane_stream_certainty(self._handle))
        if status == TIMED_OUT:
            return Timeout(status, message, certainty, taken)
        return Error(status, message, certainty)

    def _timed_out(self, what: str, taken: int = 0) -> Timeout:
        text = f"Timed out after waiting {self._timeout}s for {what}: the server is busy or was stopped"
        if what == "room":
            return Timeout(TIMED_OUT, text, Certainty.NOT_STORED, taken)
        return Timeout(TIMED_OUT, text + "; call finish() again to wait longer", Certainty.UNKNOWN)

    def _wait_until(self, deadline: float) -> bool:
        """Waits for room or the receipt, for a slice of time. Returns False after the deadline."""
        left = deadline - time.monotonic()
        if left <= 0:
            return False
        self._library.orvane_stream_wait(self._open_handle(),
                                         max(1, min(_SLICE_MS, int(left * 1000))))
        return True

    def _repeat(self, call: Callable[[], int], what: str) -> None:
        deadline = time.monotonic() + self._timeout
        while True:
            status = call()
            if status == 0:
                return
            if status != TIMED_OUT:
                raise self._error(status)
            if not self._wait_until(deadline):
                raise self._timed_out(what)

    def _try_write(self, address: Any, size: int) -> int:
        status = self._library.orvane_stream_try_write(self._open_handle(), address, size,
                                                       ctypes.byref(self._count))
        if status != 0:
            raise self._error(status)
        return int(self._count.value)

    def _write_rest(self, view: Borrowed, taken: int) -> None:
        deadline = time.monotonic() + self._timeout
        while True:
            taken += self._try_write((view.address or 0) + taken, view.size - taken)
            if taken == view.size:
                return
            if not self._wait_until(deadline):
                raise self._timed_out("room", taken)

    def _write_buffers(self, addresses: "array[int]", sizes: "array[int]") -> None:
        """Writes what begins at these addresses. The library reads pairs of an address and a size."""
        pairs = array("Q", bytes(2 * _WORD * len(sizes)))
        with memoryview(pairs) as words:
            words[0::2] = memoryview(addresses)
            words[1::2] = memoryview(sizes)
        begin = pairs.buffer_info()[0]
        deadline = time.monotonic() + self._timeout
        first = taken = 0
        while True:
            status = self._library.orvane_stream_try_write_many(
                self._open_handle(), begin + 2 * _WORD * first, len(sizes) - first,
                ctypes.byref(self._count))
            if status != 0:
                raise self._error(status)
            part = self._count.value
            taken += part
            while first < len(sizes) and pairs[2 * first + 1] <= part:
                part -= pairs[2 * first + 1]
                first += 1
            if first == len(sizes):
                return
            pairs[2 * first] += part
            pairs[2 * first + 1] -= part
            if not self._wait_until(deadline):
                raise self._timed_out("room", taken)


class _Opening(threading.Thread):
    """A call of orvane_stream_open() whose result may not be wanted any more."""

    def __init__(self, functions: Any, options: Options) -> None:
        super().__init__(daemon=True)
        self.handle = ctypes.c_void_p()
        self.status = NO_MEMORY
        self._library = functions
        self._options = options
        self._lock = threading.Lock()
        self._is_wanted = True

    def run(self) -> None:
        handle = ctypes.c_void_p()
        status = self._library.orvane_stream_open(ctypes.byref(self._options), ctypes.byref(handle))
        with self._lock:
            self.status, self.handle = status, handle
            if not self._is_wanted:
                self._library.orvane_stream_close(handle)

    def abandon(self) -> None:
        """Nobody takes the handle any more."""
        with self._lock:
            self._is_wanted = False
            if self.handle:
                self._library.orvane_stream_close(self.handle)
