"""Other sampling rates, over libsamplerate, with the filter that cancel_wav uses."""
from __future__ import annotations

import ctypes
import functools
import math
import pathlib
from typing import TYPE_CHECKING

import numpy as np

from ._samples import FULL_SCALE, rounded
from ._state import RATES

if TYPE_CHECKING:   # NumPy has it from 1.20 on
    from numpy.typing import NDArray

MEDIUM = 1              # SRC_SINC_MEDIUM_QUALITY: 121 dB, nine tenths of the band
HALF_FILTER = 48        # samples of the lower rate that the filter holds back


class _Work(ctypes.Structure):
    _fields_ = [("data_in", ctypes.c_void_p), ("data_out", ctypes.c_void_p),
                ("input_frames", ctypes.c_long), ("output_frames", ctypes.c_long),
                ("input_frames_used", ctypes.c_long), ("output_frames_gen", ctypes.c_long),
                ("end_of_input", ctypes.c_int), ("src_ratio", ctypes.c_double)]


@functools.lru_cache(maxsize=None)
def samplerate_library() -> ctypes.CDLL:
    """libsamplerate beside this file, else the installed one; loaded once."""
    beside = pathlib.Path(__file__).with_name("libsamplerate.so.0")
    lib = ctypes.CDLL(str(beside) if beside.exists() else "libsamplerate.so.0")
    lib.src_new.restype = ctypes.c_void_p
    lib.src_new.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.c_void_p]
    lib.src_process.argtypes = [ctypes.c_void_p, ctypes.POINTER(_Work)]
    lib.src_reset.argtypes = lib.src_delete.argtypes = [ctypes.c_void_p]
    return lib


def library_rate(rate: int) -> int:
    """The rate in Hz that holds what a recording of rate holds, or the highest."""
    return next((r for r in RATES if r >= rate), RATES[-1])


class Converter:
    """A stream of rows of samples from one rate to another; the same rate passes through."""

    def __init__(self, channels: int, from_rate: int, to_rate: int) -> None:
        self.ratio = to_rate / from_rate
        self.channels = channels
        self._state = None
        self.lag = 0            # samples of to_rate that it holds back
        if from_rate != to_rate:
            error = ctypes.c_int()
            self._lib = samplerate_library()
            self._state = self._lib.src_new(MEDIUM, channels, ctypes.byref(error))
            if not self._state:
                raise MemoryError("libsamplerate could not make a converter")
            self.lag = math.ceil(HALF_FILTER * max(1.0, self.ratio))

    def convert(self, rows: NDArray[np.int16], last: bool = False) -> NDArray[np.int16]:
        """The next rows at the other rate, as many as are ready. last: no more follow."""
        if self._state is None:
            return rows
        given = np.ascontiguousarray(rows, np.float32)
        given /= np.float32(FULL_SCALE)
        out = np.empty((math.ceil((len(rows) + 2 * HALF_FILTER) * self.ratio) + 2 * self.lag,
                        self.channels), np.float32)
        work = _Work(given.ctypes.data, out.ctypes.data, len(given), len(out), 0, 0, last, self.ratio)
        if self._lib.src_process(self._state, ctypes.byref(work)) or \
                work.input_frames_used != len(given):
            raise RuntimeError("libsamplerate did not take all samples")
        return rounded(out[:work.output_frames_gen] * np.float32(FULL_SCALE))

    def flush(self) -> NDArray[np.int16]:
        """What it holds back. The next row begins a new stream."""
        rows = self.convert(np.zeros((0, self.channels), np.int16), True)
        if self._state is not None:
            self._lib.src_reset(self._state)
        return rows

    def close(self) -> None:
        state, self._state = self._state, None
        if state is not None:
            self._lib.src_delete(state)

    __del__ = close
