"""The functions of liborvane_c.so.1."""
import ctypes
import functools
from typing import Any, Optional

TIMED_OUT = 15
NO_MEMORY = 903

TRANSPORTS = {"queue": 0, "ring": 1, "automatic": 2}


class Options(ctypes.Structure):
    _fields_ = [("size", ctypes.c_size_t), ("socket", ctypes.c_char_p), ("label", ctypes.c_char_p),
                ("timeout", ctypes.c_uint), ("transport", ctypes.c_int),
                ("ring_bytes", ctypes.c_uint64)]


class CReceipt(ctypes.Structure):
    _fields_ = [("size", ctypes.c_size_t), ("stream", ctypes.c_char * 128),
                ("records", ctypes.c_uint64), ("bytes", ctypes.c_uint64),
                ("segments", ctypes.c_uint64), ("end", ctypes.c_int)]


class PyBuffer(ctypes.Structure):
    """The interpreter's Py_buffer."""

    _fields_ = [("buf", ctypes.c_void_p), ("obj", ctypes.py_object), ("len", ctypes.c_ssize_t),
                ("itemsize", ctypes.c_ssize_t), ("readonly", ctypes.c_int),
                ("ndim", ctypes.c_int), ("format", ctypes.c_char_p),
                ("shape", ctypes.c_void_p), ("strides", ctypes.c_void_p),
                ("suboffsets", ctypes.c_void_p), ("internal", ctypes.c_void_p)]


_HANDLE = ctypes.c_void_p
_TAKEN = ctypes.POINTER(ctypes.c_size_t)
_PROTOTYPES = {
    "orvane_stream_options_init": (ctypes.c_void_p, [ctypes.POINTER(Options), ctypes.c_size_t]),
    "orvane_stream_open": (ctypes.c_int, [ctypes.POINTER(Options), ctypes.POINTER(_HANDLE)]),
    "orvane_stream_try_write": (ctypes.c_int, [_HANDLE, ctypes.c_void_p, ctypes.c_size_t, _TAKEN]),
    "orvane_stream_try_write_many": (
        ctypes.c_int, [_HANDLE, ctypes.c_void_p, ctypes.c_size_t, _TAKEN]),
    "orvane_stream_try_end_segment": (ctypes.c_int, [_HANDLE]),
    "orvane_stream_try_flush": (ctypes.c_int, [_HANDLE]),
    "orvane_stream_try_finish": (ctypes.c_int, [_HANDLE, ctypes.POINTER(CReceipt)]),
    "orvane_stream_wait": (ctypes.c_int, [_HANDLE, ctypes.c_uint]),
    "orvane_stream_fd": (ctypes.c_int, [_HANDLE]),
    "orvane_stream_transport": (ctypes.c_int, [_HANDLE]),
    "orvane_stream_status": (ctypes.c_int, [_HANDLE]),
    "orvane_stream_message": (ctypes.c_char_p, [_HANDLE]),
    "orvane_stream_certainty": (ctypes.c_int, [_HANDLE]),
    "orvane_stream_close": (None, [_HANDLE]),
}


@functools.lru_cache(maxsize=None)
def library() -> Any:
    """The library, loaded when it is first needed. While one of its functions runs, other threads of
    the interpreter run too."""
    try:
        loaded = ctypes.CDLL("liborvane_c.so.1")
    except OSError as error:
        raise OSError(f"{error}: install liborvane1 to send streams") from None
    for name, (result, arguments) in _PROTOTYPES.items():
        function = getattr(loaded, name)
        function.restype = result
        function.argtypes = arguments
    return loaded


_get_buffer = ctypes.pythonapi.PyObject_GetBuffer
_get_buffer.argtypes = [ctypes.py_object, ctypes.POINTER(PyBuffer), ctypes.c_int]
_get_buffer.restype = ctypes.c_int
_release_buffer = ctypes.pythonapi.PyBuffer_Release
_release_buffer.argtypes = [ctypes.POINTER(PyBuffer)]
_release_buffer.restype = None

_SIMPLE = 0  # PyBUF_SIMPLE: contiguous bytes


class Borrowed:
    """The address and the size of an object's bytes, which stay until release()."""

    def __init__(self, data: Any) -> None:
        self._view = PyBuffer()
        _get_buffer(data, ctypes.byref(self._view), _SIMPLE)  # raises what the object raises
        self.address: Optional[int] = self._view.buf
        self.size: int = self._view.len

    def release(self) -> None:
        _release_buffer(ctypes.byref(self._view))

    def __enter__(self) -> "Borrowed":
        return self

    def __exit__(self, *_: object) -> None:
        self.release()
