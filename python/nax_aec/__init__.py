"""Acoustic echo cancellation: libnax_aec over ctypes, the audio in NumPy arrays.

A loudspeaker plays noise, a microphone hears it 1000 samples later at half the level:

>>> import numpy as np
>>> import nax_aec
>>> loudspeaker = 0.1 * np.random.default_rng(1).standard_normal(3 * 16000)
>>> microphone = np.zeros_like(loudspeaker)
>>> microphone[1000:] = 0.5 * loudspeaker[:-1000]
>>> result = nax_aec.cancel(microphone, loudspeaker, sample_rate=16000)
>>> result.cleaned.shape, result.cleaned.dtype
((48000,), dtype('float64'))
>>> bool(abs(result.delays[-1] - 1000) < 256)
True
>>> last_second = slice(-16000, None)
>>> bool(np.std(result.cleaned[last_second]) < 0.1 * np.std(microphone[last_second]))
True

Canceller does the same for a stream, call by call. Stream does it for sound that arrives in
pieces, with or without times, on one thread or two. Suppressor suppresses the echo that is left.
Samples are int16, or floats of full scale 1. An array has one row per sample instant and one
column per channel; an array of one dimension is one channel.
"""
from ._library import BIG_ENDIAN, HOST_ENDIAN, LITTLE_ENDIAN, LONGEST_DELAY, library
from ._state import frame_size
from .canceller import Canceller, Result, cancel
from .meter import Report
from .stream import Counts, Stream
from .suppressor import Suppressor

__version__ = "2.0.0"
__all__ = ["BIG_ENDIAN", "HOST_ENDIAN", "LITTLE_ENDIAN", "LONGEST_DELAY", "Canceller", "Counts",
           "Report", "Result", "Stream", "Suppressor", "cancel", "frame_size", "library"]
