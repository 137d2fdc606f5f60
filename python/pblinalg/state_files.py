"""States in files: NumPy's .npy format, written whole or not at all and read through the memory
map, so that no second copy is held."""

from __future__ import annotations

import os
import secrets
from collections.abc import Callable
from pathlib import Path
from typing import Any, Union

import numpy as np
from numpy.lib import format as npy
from numpy.typing import NDArray

FilePath = Union[str, "os.PathLike[str]"]

_HEADERS = {(1, 0): npy.read_array_header_1_0, (2, 0): npy.read_array_header_2_0}
_DTYPES = (np.dtype("<c8"), np.dtype("<c16"))


def write_state(
    path: FilePath, shape: tuple[int, ...], dtype: Any, fill: Callable[[NDArray[Any]], object]
) -> None:
    """Has `fill` write an array in the file itself. Until it is whole the file has another name;
    what stood at `path` is kept if anything fails."""
    target = _path(path)
    temporary = target.with_name(f".{target.name}.{secrets.token_hex(8)}")
    element = np.dtype(dtype)
    try:
        with open(temporary, "xb+") as file:
            header = {"descr": element.str, "fortran_order": False, "shape": shape}
            npy.write_array_header_1_0(file, header)
            begin = file.tell()
            end = begin + int(np.prod(shape)) * element.itemsize
            file.truncate(end)
            file.flush()
            if hasattr(os, "posix_fallocate"):
                # A full disk is an error here and would be a deadly signal below.
                os.posix_fallocate(file.fileno(), 0, end)
            array = np.memmap(file, element, "r+", begin, shape)
            fill(array)
            array.flush()
        os.replace(temporary, target)
    except BaseException:
        temporary.unlink(missing_ok=True)
        raise


def read_state(path: FilePath, dimensions: int) -> NDArray[Any]:
    """The array of a file, mapped read-only: complex64 or complex128, 2^n elements along each of
    its dimensions. ValueError names the file and what is wrong with it."""
    source = _path(path)
    with open(source, "rb") as file:
        try:
            read_header: Any = _HEADERS[npy.read_magic(file)]
            shape, fortran, dtype = read_header(file)
        except (ValueError, KeyError, SyntaxError) as error:
            raise ValueError(f"{source} is no .npy file of an array: {error}") from None
        if dtype not in _DTYPES:
            raise ValueError(
                f"{source} holds elements of {dtype.str!r}; expected little-endian complex64 "
                "('<c8') or complex128 ('<c16')"
            )
        size = shape[0] if shape else 0
        powers = size > 0 and size & (size - 1) == 0
        if shape != (size,) * dimensions or not powers or (fortran and dimensions > 1):
            order = " in Fortran order" if fortran else ""
            raise ValueError(
                f"{source} holds an array of shape {shape}{order}; expected "
                f"({', '.join(['2^n'] * dimensions)}{',' * (dimensions == 1)})"
            )
        begin = file.tell()
        expected = begin + size**dimensions * dtype.itemsize
        held = os.fstat(file.fileno()).st_size
        if held != expected:
            raise ValueError(
                f"{source} holds {held} bytes; expected {expected} for shape {shape}: the file was "
                "cut or written over"
            )
        return np.memmap(file, dtype, "r", begin, shape)


def _path(path: FilePath) -> Path:
    if not isinstance(path, (str, os.PathLike)):
        raise TypeError(f"path must be a str or a path, got {path!r}")
    return Path(path)
