"""Suppression of what echo the canceller leaves: libnax_res over ctypes."""
from __future__ import annotations

import ctypes
import functools
import operator
import pathlib
from typing import Any, NoReturn

import numpy as np
from numpy.typing import NDArray

from ._library import library
from .canceller import Result, frame_size, like, samples_of


@functools.lru_cache(maxsize=None)
def suppressor_library() -> ctypes.CDLL:
    """libnax_res from the folder of libnax_aec, else the installed one; loaded once."""
    loaded = pathlib.Path(library()._name)
    beside = loaded.with_name(loaded.name.replace("libnax_aec", "libnax_res"))
    lib = ctypes.CDLL(str(beside) if beside.exists() else "libnax_res.so.2")
    lib.nax_res_state_init.restype = ctypes.c_void_p
    lib.nax_res_state_init.argtypes = [ctypes.c_int32] * 3
    lib.nax_res_short.restype = ctypes.c_int32
    lib.nax_res_short.argtypes = [ctypes.c_void_p] * 4
    lib.nax_res_state_destroy.restype = None
    lib.nax_res_state_destroy.argtypes = [ctypes.c_void_p]
    return lib


class Suppressor:
    """One audio stream behind a Canceller: nax_res_state_init, its call, and
    nax_res_state_destroy.

    Use it from one thread at a time, in a `with` block or with close().

    >>> import nax_aec
    >>> with nax_aec.Canceller(16000) as canceller, Suppressor(16000) as suppressor:
    ...     result = canceller.process(np.ones(512), np.zeros(512))
    ...     suppressed = suppressor.process(result)
    >>> bool(np.all(suppressed[:256] == 0)), bool(np.all(suppressed[256:] == result.cleaned[:256]))
    (True, True)
    """

    def __init__(self, sample_rate: int, microphones: int = 1, references: int = 1) -> None:
        """Creates the state, for the canceller's format."""
        self._state = None
        sample_rate, microphones, references = map(
            operator.index, (sample_rate, microphones, references))
        self.sample_rate, self.microphones, self.references = sample_rate, microphones, references
        self.frame_size = frame_size(sample_rate)
        self._state = suppressor_library().nax_res_state_init(sample_rate, microphones, references)
        if not self._state:
            raise ValueError(f"not supported: {sample_rate} Hz, {microphones} microphones, "
                             f"{references} references")

    def close(self) -> None:
        """Releases the state (nax_res_state_destroy). A second call does nothing."""
        if self._state:
            suppressor_library().nax_res_state_destroy(self._state)
            self._state = None

    __del__ = close

    def __enter__(self) -> Suppressor:
        return self

    def __exit__(self, *unused: object) -> None:
        self.close()

    def __reduce__(self) -> NoReturn:
        raise TypeError("a suppressor cannot be copied or pickled: it has one stream")

    def process(self, result: Result) -> NDArray[Any]:
        """The next piece of the stream (nax_res_short), as the canceller gave it: whole frames.
        Returns the microphones in the type and shape of result.cleaned, a frame late."""
        if not self._state:
            raise ValueError("the suppressor is closed")
        cleaned = samples_of(result.cleaned, self.microphones, "cleaned microphones")
        references = samples_of(result.references, self.references, "references")
        echo = np.ascontiguousarray(samples_of(result.echo, self.microphones, "echo"))
        if len(cleaned) % self.frame_size:
            raise ValueError(f"{len(cleaned)} samples are not whole frames of {self.frame_size}")
        aec, out = np.hstack([cleaned, references]), np.zeros_like(echo)
        for start in range(0, len(out), self.frame_size):
            suppressor_library().nax_res_short(self._state, *(a[start:].ctypes.data
                                                              for a in (aec, echo, out)))
        return like(result.cleaned, out)
