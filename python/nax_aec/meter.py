"""Whether the echo is being cancelled, and why not: libnax_meter over ctypes."""
from __future__ import annotations

import ctypes
import functools
import threading
from typing import NamedTuple, Optional, Tuple

from ._library import companion

MOST_REFERENCES = 8     # whose levels are reported


class Report(NamedTuple):
    """How a canceller does. Levels are of the last second, in dBFS, -100 for nothing."""
    verdict: str                            # "cancelling", "reference-silent", ...
    text: str                               # the same as a clause for people
    is_alarm: bool                          # whether somebody should act
    verdict_s: float                        # for which the verdict has stood
    frames: int                             # so far
    far_end_s: float                        # of far end so far
    microphone_dbfs: Tuple[float, ...]      # M levels
    output_dbfs: Tuple[float, ...]          # M levels of what came out
    reference_dbfs: Tuple[float, ...]       # levels of the references, of the first 8 at most
    microphone_clipped: float               # share of samples, 0 to 1, over ten seconds
    reference_clipped: float
    removed_db: float                       # of the microphones, over two seconds of far end
    delay: int                              # applied, in samples
    delay_s: float                          # for which it has stood
    delay_moves: int                        # in the last minute
    likeness: float                         # of the levels of microphone and reference, -1 to 1
    likeness_ms: float                      # by which the microphone is later there


class _Report(ctypes.Structure):
    _fields_ = [("verdict", ctypes.c_int32), ("frames", ctypes.c_int32),
                ("verdict_s", ctypes.c_float), ("far_end_s", ctypes.c_float),
                ("mic_dbfs", ctypes.c_float * 2), ("out_dbfs", ctypes.c_float * 2),
                ("ref_dbfs", ctypes.c_float * MOST_REFERENCES),
                ("mic_clipped", ctypes.c_float), ("ref_clipped", ctypes.c_float),
                ("removed_db", ctypes.c_float), ("delay", ctypes.c_int32),
                ("delay_s", ctypes.c_float), ("delay_moves", ctypes.c_int32),
                ("likeness", ctypes.c_float), ("likeness_ms", ctypes.c_float)]


@functools.lru_cache(maxsize=None)
def meter_library() -> ctypes.CDLL:
    """libnax_meter from the folder of libnax_aec, else the installed one; loaded once."""
    lib = companion("libnax_meter")
    int32, pointer = ctypes.c_int32, ctypes.c_void_p
    lib.nax_meter_state_init.restype = pointer
    lib.nax_meter_state_init.argtypes = [int32] * 3
    lib.nax_meter_drop.argtypes = [pointer, int32]
    lib.nax_meter_short.argtypes = [pointer, pointer, pointer, int32]
    lib.nax_meter_read.argtypes = [pointer, ctypes.POINTER(_Report)]
    lib.nax_meter_name.restype = lib.nax_meter_text.restype = ctypes.c_char_p
    lib.nax_meter_name.argtypes = lib.nax_meter_text.argtypes = [int32]
    lib.nax_meter_is_alarm.argtypes = [int32]
    lib.nax_meter_state_destroy.restype = None
    lib.nax_meter_state_destroy.argtypes = [pointer]
    return lib


class Meter:
    """The meter of one canceller, which takes in each of its frames. Any thread may read it."""

    def __init__(self, sample_rate: int, microphones: int, references: int, dropped: int) -> None:
        lib = meter_library()
        self.microphones, self.references = microphones, references
        self._lock = threading.Lock()       # for the end; a frame and a report do not meet
        self.state: Optional[int] = lib.nax_meter_state_init(sample_rate, microphones, references)
        if not self.state:
            raise MemoryError("the meter could not make a state")
        lib.nax_meter_drop(self.state, dropped)

    def close(self) -> None:
        with self._lock:
            state, self.state = self.state, None
            meter_library().nax_meter_state_destroy(state)

    def read(self) -> Report:
        """Raises ValueError when the meter is closed."""
        lib, raw = meter_library(), _Report()
        with self._lock:
            if lib.nax_meter_read(self.state, ctypes.byref(raw)) != 0:
                raise ValueError("there is no report: the canceller is closed")
        mics, refs = self.microphones, min(self.references, MOST_REFERENCES)
        return Report(lib.nax_meter_name(raw.verdict).decode(),
                      lib.nax_meter_text(raw.verdict).decode(),
                      bool(lib.nax_meter_is_alarm(raw.verdict)), raw.verdict_s, raw.frames,
                      raw.far_end_s, tuple(raw.mic_dbfs[:mics]), tuple(raw.out_dbfs[:mics]),
                      tuple(raw.ref_dbfs[:refs]), raw.mic_clipped, raw.ref_clipped, raw.removed_db,
                      raw.delay, raw.delay_s, raw.delay_moves, raw.likeness, raw.likeness_ms)
