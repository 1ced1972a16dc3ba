"""Suppression of the echo that the canceller leaves: libnax_res over ctypes."""
from __future__ import annotations

import ctypes
import functools
from typing import TYPE_CHECKING, Any

import numpy as np

from ._library import companion
from ._samples import like, samples_of
from ._state import State
from .canceller import Result

if TYPE_CHECKING:   # NumPy has it from 1.20 on
    from numpy.typing import NDArray


@functools.lru_cache(maxsize=None)
def suppressor_library() -> ctypes.CDLL:
    """libnax_res from the folder of libnax_aec, else the installed one; loaded once."""
    lib = companion("libnax_res")
    lib.nax_res_state_init.restype = ctypes.c_void_p
    lib.nax_res_state_init.argtypes = [ctypes.c_int32] * 3
    lib.nax_res_short.restype = ctypes.c_int32
    lib.nax_res_short.argtypes = [ctypes.c_void_p] * 4
    lib.nax_res_state_destroy.restype = None
    lib.nax_res_state_destroy.argtypes = [ctypes.c_void_p]
    return lib


class Suppressor(State):
    """One audio stream behind a Canceller: nax_res_state_init, its call, and
    nax_res_state_destroy.

    Use it in a `with` block, or end it by close(). Threads: as for Canceller.

    >>> import nax_aec
    >>> with nax_aec.Canceller(16000) as canceller, Suppressor(16000) as suppressor:
    ...     result = canceller.process(np.ones(512), np.zeros(512))
    ...     suppressed = suppressor.process(result)
    >>> bool(np.all(suppressed[:256] == 0)), bool(np.all(suppressed[256:] == result.cleaned[:256]))
    (True, True)
    """

    def __init__(self, sample_rate: int, microphones: int = 1, references: int = 1) -> None:
        """Creates the state for the format of the canceller, dropped references included.
        Raises as Canceller does."""
        super().__init__(sample_rate, microphones, references)
        lib = suppressor_library()
        self._keep(lib.nax_res_state_init(self.sample_rate, self.microphones, self.references),
                   lib.nax_res_state_destroy)

    def process(self, result: Result) -> NDArray[Any]:
        """The next piece of the stream (nax_res_short).

        result  what the canceller gave: n x M cleaned, n x R references, n x M echo, where n
                is a multiple of the frame
        Returns the suppressed microphones in the type and shape of result.cleaned, one frame
        late. Raises ValueError or TypeError for other arrays and ValueError when the
        suppressor is closed.
        """
        with self._in_use() as state:
            m, frame = self.microphones, self.frame_size
            cleaned = samples_of(np.asarray(result.cleaned), m, "cleaned microphones")
            references = samples_of(np.asarray(result.references), self.references, "references")
            echo = samples_of(np.asarray(result.echo), m, "echo")
            n = len(cleaned)
            if len(references) != n or len(echo) != n:
                raise ValueError(f"{n} samples of cleaned microphones, {len(references)} of "
                                 f"references, {len(echo)} of echo; a row is a sample instant")
            if n % frame:
                raise ValueError(f"{n} samples are not whole frames of {frame}")
            aec, out = np.empty((n, m + self.references), np.int16), np.zeros((n, m), np.int16)
            aec[:, :m], aec[:, m:] = cleaned, references
            for start in range(0, n, frame):
                suppressor_library().nax_res_short(state, *(a[start:].ctypes.data
                                                            for a in (aec, echo, out)))
            return like(np.asarray(result.cleaned), out)
