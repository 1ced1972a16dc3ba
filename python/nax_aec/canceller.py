"""Echo cancellation of NumPy arrays, as a stream or in one go."""
from __future__ import annotations

import ctypes
from typing import TYPE_CHECKING, Any, NamedTuple, Optional, Sequence

import numpy as np

from ._library import (BIG_ENDIAN, DELAY_ESTIMATION, HOST_ENDIAN, LITTLE_ENDIAN, LONGEST_DELAY,
                       REMAP, Param, library)
from ._samples import columns, like, samples_of
from ._state import State, whole
from .meter import Meter, Report, meter_library

if TYPE_CHECKING:   # NumPy has it from 1.20 on
    from numpy.typing import ArrayLike, NDArray

ANY_WORD = (-2**31, 2**31 - 1)  # what a parameter word of 32 bits holds


class Result(NamedTuple):
    """The output. Each array has the type and the number of columns of its input."""
    cleaned: NDArray[Any]       # n x M: the microphones without the echo
    references: NDArray[Any]    # n x R: held back by the delay; dropped ones are silent
    echo: NDArray[Any]          # n x M: the echo that was taken out of each microphone
    delays: NDArray[np.int32]   # the applied delay of each frame, in samples


class Canceller(State):
    """One audio stream: nax_aec_state_init, its calls, and nax_aec_state_destroy.

    Use it in a `with` block, or end it by close(). Cancellers are independent of each other
    and may be created and used on any threads. One canceller serves one thread at a time:
    another thread's call waits for the call that runs, and so does close().

    >>> with Canceller(16000) as canceller:
    ...     for _ in range(3):
    ...         result = canceller.process(np.zeros(256, np.int16), np.zeros(256, np.int16))
    >>> result.cleaned.shape, result.cleaned.dtype, result.delays.tolist()
    ((256,), dtype('int16'), [0])
    """

    def __init__(self, sample_rate: int, microphones: int = 1, references: int = 1, *,
                 drop_channel: int = 0, delay_estimation: bool = True, delay_len: int = 0,
                 look_ahead: int = 0, pos: int = 1,
                 array_list: Optional[Sequence[int]] = None) -> None:
        """Creates the state.

        sample_rate       8000, 16000, 32000 or 48000, in Hz
        microphones       M, 1 or 2
        references        R, 1 to 256
        drop_channel      D, 0 to R: the canceller does not get the last D references
        delay_estimation  False: the references are not held back
        delay_len         the delay in samples where the search starts, 0 to 12288
        look_ahead        0 to 12288 samples; changes nothing in the audio
        pos               channel order of the bytes given to process_bytes:
                          0 references first, 1 microphones first
        array_list        M channel numbers, 0 to M + R - 1, that become the
                          microphones; None: the first M
        Raises ValueError when an argument is out of these bounds, TypeError when one is no
        whole number, OSError when the library is not found.
        """
        super().__init__(sample_rate, microphones, references)
        mics, refs = self.microphones, self.references
        drop_channel = whole("drop_channel", drop_channel, 0, refs)
        delay_len = whole("delay_len", delay_len, 0, LONGEST_DELAY)
        look_ahead = whole("look_ahead", look_ahead, 0, LONGEST_DELAY)
        pos = whole("pos", pos, *ANY_WORD)
        table = None
        if array_list is not None:
            channels = [whole("array_list", c, 0, mics + refs - 1) for c in array_list]
            if len(channels) != mics:
                raise ValueError(f"array_list names {len(channels)} channels, not {mics}")
            table = np.array(channels, np.int16)
        self._table = table         # the state borrows it
        self.param = Param(pos, drop_channel,
                           DELAY_ESTIMATION * bool(delay_estimation) + REMAP * (table is not None),
                           delay_len, look_ahead, None if table is None else table.ctypes.data)
        self.kept = refs - drop_channel
        lib = library()
        self._meter = Meter(self.sample_rate, mics, refs, drop_channel)
        self._keep(lib.nax_aec_state_init(self.sample_rate, 16, mics, refs,
                                          ctypes.byref(self.param)), lib.nax_aec_state_destroy)

    def close(self) -> None:
        """Releases the state. Waits for another thread's call. A second close does nothing."""
        is_open = self._state is not None
        super().close()
        if is_open:
            self._meter.close()

    __del__ = close

    def report(self) -> Report:
        """How the canceller does: levels, echo removed, and a verdict, brought up to date every
        4 frames (64 ms). Any thread may ask at any time, also while another one is in process().
        Raises ValueError when the canceller is closed.

        >>> loudspeaker = 0.1 * np.random.default_rng(1).standard_normal(10 * 16000)
        >>> with Canceller(16000) as canceller:
        ...     result = canceller.process(0.5 * np.roll(loudspeaker, 1000), loudspeaker)
        ...     canceller.report().verdict
        'cancelling'
        """
        return self._meter.read()

    def print_param(self) -> None:
        """Writes the parameter block to standard error (nax_aec_param_printf)."""
        library().nax_aec_param_printf(0, 0, ctypes.byref(self.param))

    def process(self, microphones: ArrayLike, references: ArrayLike) -> Result:
        """The next piece of the stream (nax_aec_short), a frame or a whole recording.

        microphones  n x M, int16 or floats of full scale 1; n alone for one microphone
        references   n x R, likewise
        Where n is no multiple of the frame, silence fills up the last frame: pass multiples
        of the frame until the stream ends. Raises ValueError or TypeError for other arrays
        and ValueError when the canceller is closed.
        """
        mic, ref = np.asarray(microphones), np.asarray(references)
        mic_samples = samples_of(mic, self.microphones, "microphones")
        ref_samples = samples_of(ref, self.references, "references")
        n, m, frame = len(mic_samples), self.microphones, self.frame_size
        if len(ref_samples) != n:
            raise ValueError(f"{n} samples of microphones, {len(ref_samples)} of references; "
                             "a row is a sample instant")
        frames = -(-n // frame)
        stream = np.zeros((frames * frame, m + self.kept), np.int16)
        stream[:n, :m], stream[:n, m:] = mic_samples, ref_samples[:, :self.kept]
        out = np.zeros((frames * frame, m + self.references), np.int16)
        echo, delays = np.zeros((frames * frame, m), np.int16), np.zeros(frames, np.int32)
        starts = [a.ctypes.data for a in (stream, out, echo)]
        steps = [a.nbytes // max(frames, 1) for a in (stream, out, echo)]
        call, length = library().nax_aec_short, frame * (m + self.references)
        measure = meter_library().nax_meter_short
        with self._in_use() as state:
            for i in range(frames):
                into, cleaned, taken = (p + i * s for p, s in zip(starts, steps))
                delays[i] = delay = call(state, into, cleaned, taken, length)
                measure(self._meter.state, into, cleaned, delay)
        check_delays(delays)
        return Result(like(mic, out[:n, :m]), like(ref, out[:n, m:]), like(mic, echo[:n]), delays)

    def process_bytes(self, data: bytes,
                      byte_order: int = HOST_ENDIAN) -> tuple[Result, NDArray[np.int16]]:
        """One frame of raw bytes (nax_aec_byte).

        data        F x (M + R) x 2 bytes, interleaved in the order that pos gives
        byte_order  LITTLE_ENDIAN, BIG_ENDIAN or HOST_ENDIAN
        Returns the result, int16 with a column per channel, and the samples that were
        processed (F x (M + K) for the K references that are not dropped). Raises ValueError
        for another length or byte order, for a pos other than 0 and 1, and when the
        canceller is closed.
        """
        if self.param.pos not in (0, 1):
            raise ValueError(f"pos is {self.param.pos}: nothing is processed unless it is 0 or 1")
        byte_order = whole("byte_order", byte_order, LITTLE_ENDIAN, HOST_ENDIAN)
        m, frame = self.microphones, self.frame_size
        out = np.zeros((frame, m + self.references), np.int16)
        echo, data = np.zeros((frame, m), np.int16), memoryview(data).tobytes()
        if len(data) != out.nbytes:
            raise ValueError(f"data has {len(data)} bytes, not {out.nbytes}")
        audio = ctypes.cast(ctypes.c_char_p(data), ctypes.c_void_p)
        delays = np.zeros(1, np.int32)
        with self._in_use() as state:
            delays[0] = library().nax_aec_byte(state, ctypes.byref(audio), out.ctypes.data,
                                               echo.ctypes.data, len(data), byte_order)
            check_delays(delays)
            meter_library().nax_meter_short(self._meter.state, audio, out.ctypes.data,
                                            int(delays[0]))
            samples = np.frombuffer(ctypes.string_at(audio, 2 * frame * (m + self.kept)), np.int16)
        return (Result(out[:, :m], out[:, m:], echo, delays),
                samples.reshape(frame, m + self.kept))


def cancel(microphones: ArrayLike, references: ArrayLike, sample_rate: int,
           **options: Any) -> Result:
    """Cancels the echo of a whole recording: a Canceller and one call of its process.

    microphones  n x M, int16 or floats of full scale 1; n alone for one microphone
    references   n x R, likewise
    sample_rate  8000, 16000, 32000 or 48000, in Hz
    options      those of Canceller, such as drop_channel
    It may run on any number of threads at once.
    """
    mic, ref = np.asarray(microphones), np.asarray(references)
    counts = [columns(audio, name).shape[1]
              for audio, name in ((mic, "microphones"), (ref, "references"))]
    with Canceller(sample_rate, *counts, **options) as canceller:
        return canceller.process(mic, ref)


def check_delays(delays: NDArray[np.int32]) -> None:
    if np.any(delays < 0):
        raise RuntimeError("the library refused a frame; standard error has its reason")
