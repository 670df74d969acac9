"""Decompression, by a module that not every installation has."""
import importlib
import io
from typing import Any, BinaryIO, Tuple, Type

_WINDOW = 8 << 20  # bytes; no file of a store needs a larger one


class Missing(Exception):
    """No module can decompress."""


def opened(file: BinaryIO) -> BinaryIO:
    """The data of a compressed file, which is closed with it."""
    module = _module()
    if module.__name__ == "zstandard":
        reader: Any = module.ZstdDecompressor(max_window_size=_WINDOW).stream_reader(file)
        return io.BufferedReader(reader)
    options = {module.DecompressionParameter.window_log_max: _WINDOW.bit_length() - 1}
    decompressed: BinaryIO = module.ZstdFile(file, options=options)
    return decompressed


def errors() -> Tuple[Type[Exception], ...]:
    """What reading compressed bytes raises if they are not valid."""
    try:
        return (_module().ZstdError, EOFError)
    except Missing:
        return ()


def _module() -> Any:
    for name in ("compression.zstd", "zstandard"):  # the first is Python's own since 3.14
        try:
            return importlib.import_module(name)
        except ImportError:
            pass
    raise Missing("install the module zstandard")
