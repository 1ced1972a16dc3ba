"""Echo cancellation of NumPy arrays, as a stream or in one go."""
from __future__ import annotations

import ctypes
import operator
from typing import Any, NamedTuple, NoReturn, Optional, Sequence

import numpy as np
from numpy.typing import ArrayLike, NDArray

from ._library import DELAY_ESTIMATION, HOST_ENDIAN, LONGEST_DELAY, REMAP, Param, library

FULL_SCALE = 32768.0            # of 16 bits, for floats of full scale 1
MOST_CHANNELS = 256             # in an array: more are the samples of one that lies on its side


class Result(NamedTuple):
    """What came out, each array in the type and with the columns of what went in."""
    cleaned: NDArray[Any]       # n x M: the microphones without the echo
    references: NDArray[Any]    # n x R: as they were held back; the dropped ones are silent
    echo: NDArray[Any]          # n x M: what was taken out of each microphone
    delays: NDArray[np.int32]   # the applied delay in samples, frame by frame


def frame_size(sample_rate: int) -> int:
    """F, the sample instants of a 16 ms frame, from the rate in Hz."""
    return sample_rate * 16 // 1000


class Canceller:
    """One audio stream: nax_aec_state_init, its calls, and nax_aec_state_destroy.

    Use it from one thread at a time, in a `with` block or with close().

    >>> with Canceller(16000) as canceller:
    ...     for _ in range(3):
    ...         result = canceller.process(np.zeros(256, np.int16), np.zeros(256, np.int16))
    >>> result.cleaned.shape, result.cleaned.dtype, result.delays
    ((256,), dtype('int16'), array([0], dtype=int32))
    """

    def __init__(self, sample_rate: int, microphones: int = 1, references: int = 1, *,
                 drop_channel: int = 0, delay_estimation: bool = True, delay_len: int = 0,
                 look_ahead: int = 0, pos: int = 1,
                 array_list: Optional[Sequence[int]] = None) -> None:
        """Creates the state.

        sample_rate   8000, 16000, 32000 or 48000, in Hz
        microphones   M, 1 or 2
        references    R, 1 or more
        drop_channel  D: the last D references are kept from the canceller
        delay_len     base delay in samples, 0 to 12288
        look_ahead    samples, 0 or more; changes nothing in the audio
        pos           order of the bytes given to process_bytes: 0 references
                      first, 1 microphones first
        array_list    M channel numbers that become the microphones, or None
        Raises ValueError where the library would refuse or could not check.
        """
        self._state = None
        sample_rate, microphones, references = map(
            operator.index, (sample_rate, microphones, references))
        if not 0 <= drop_channel <= references:
            raise ValueError(f"drop_channel is {drop_channel}, not 0 to {references}")
        if not 0 <= delay_len <= LONGEST_DELAY:
            raise ValueError(f"delay_len is {delay_len}, not 0 to {LONGEST_DELAY}")
        if look_ahead < 0:
            raise ValueError(f"look_ahead is {look_ahead}, not 0 or more")
        table = None
        if array_list is not None:
            channels = [operator.index(c) for c in array_list]
            if len(channels) != microphones:
                raise ValueError(f"array_list names {len(channels)} channels, not {microphones}")
            if not all(0 <= c < microphones + references for c in channels):
                raise ValueError("array_list names a channel outside 0 to "
                                 f"{microphones + references - 1}")
            table = np.array(channels, np.int16)
        self._table = table         # borrowed by the state as long as it lives
        self.param = Param(pos, drop_channel,
                           DELAY_ESTIMATION * bool(delay_estimation) + REMAP * (table is not None),
                           delay_len, look_ahead, None if table is None else table.ctypes.data)
        self.sample_rate, self.microphones, self.references = sample_rate, microphones, references
        self.kept = references - drop_channel
        self.frame_size = frame_size(sample_rate)
        self._state = library().nax_aec_state_init(sample_rate, 16, microphones, references,
                                                   ctypes.byref(self.param))
        if not self._state:
            raise ValueError(f"not supported: {sample_rate} Hz, {microphones} microphones, "
                             f"{references} references; 8000, 16000, 32000 or 48000 Hz are, "
                             "1 or 2 microphones, 1 reference or more")

    def close(self) -> None:
        """Releases the state (nax_aec_state_destroy). A second call does nothing."""
        if self._state:
            library().nax_aec_state_destroy(self._state)
            self._state = None

    __del__ = close

    def __enter__(self) -> Canceller:
        return self

    def __exit__(self, *unused: object) -> None:
        self.close()

    def __reduce__(self) -> NoReturn:
        raise TypeError("a canceller cannot be copied or pickled: it has one stream")

    def print_param(self) -> None:
        """Writes the parameter block to standard error (nax_aec_param_printf)."""
        library().nax_aec_param_printf(0, 0, ctypes.byref(self.param))

    def process(self, microphones: ArrayLike, references: ArrayLike) -> Result:
        """The next piece of the stream (nax_aec_short), a frame or a whole recording.

        microphones  n x M, int16 or floats of full scale 1; n alone for one microphone
        references   n x R, likewise
        Where n is not a multiple of the frame, silence fills the last one up: pass what
        it is a multiple of until the stream ends.
        """
        self._check_open()
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
        for i in range(frames):
            delays[i] = call(self._state, *(p + i * s for p, s in zip(starts, steps)), length)
        check_delays(delays)
        return Result(like(mic, out[:n, :m]), like(ref, out[:n, m:]), like(mic, echo[:n]), delays)

    def process_bytes(self, data: bytes,
                      byte_order: int = HOST_ENDIAN) -> tuple[Result, NDArray[np.int16]]:
        """One frame of raw bytes (nax_aec_byte).

        data        F x (M + R) x 2 bytes, interleaved in the order that pos gives
        byte_order  LITTLE_ENDIAN, BIG_ENDIAN or HOST_ENDIAN
        Returns the result, int16 with a column per channel, and the samples that were
        processed (F x (M + K), of the K references that are not dropped).
        """
        self._check_open()
        if self.param.pos not in (0, 1):
            raise ValueError(f"pos is {self.param.pos}: nothing is processed unless it is 0 or 1")
        m, frame = self.microphones, self.frame_size
        out = np.zeros((frame, m + self.references), np.int16)
        echo, data = np.zeros((frame, m), np.int16), memoryview(data).tobytes()
        if len(data) != out.nbytes:
            raise ValueError(f"data has {len(data)} bytes, not {out.nbytes}")
        audio = ctypes.cast(ctypes.c_char_p(data), ctypes.c_void_p)
        delays = np.zeros(1, np.int32)
        delays[0] = library().nax_aec_byte(self._state, ctypes.byref(audio), out.ctypes.data,
                                           echo.ctypes.data, len(data), byte_order)
        check_delays(delays)
        samples = np.frombuffer(ctypes.string_at(audio, 2 * frame * (m + self.kept)), np.int16)
        return (Result(out[:, :m], out[:, m:], echo, delays),
                samples.reshape(frame, m + self.kept))

    def _check_open(self) -> None:
        if not self._state:
            raise ValueError("the canceller is closed")


def cancel(microphones: ArrayLike, references: ArrayLike, sample_rate: int,
           **options: Any) -> Result:
    """A whole recording in one go: Canceller.process, the channels counted from the arrays.

    options  those of Canceller
    """
    mic, ref = np.asarray(microphones), np.asarray(references)
    counts = [columns(audio, name).shape[1]
              for audio, name in ((mic, "microphones"), (ref, "references"))]
    with Canceller(sample_rate, *counts, **options) as canceller:
        return canceller.process(mic, ref)


def columns(audio: NDArray[Any], name: str) -> NDArray[Any]:
    """Audio with a column per channel, of one channel, too."""
    table = audio[:, np.newaxis] if audio.ndim == 1 else audio
    if table.ndim != 2 or table.shape[1] > MOST_CHANNELS:
        raise ValueError(f"{name} have shape {audio.shape}: a row is a sample instant, "
                         "a column a channel")
    return table


def samples_of(audio: NDArray[Any], channels: int, name: str) -> NDArray[np.int16]:
    """Audio as n x channels of 16 bits; floats are rounded and clipped."""
    table = columns(audio, name)
    if table.shape[1] != channels:
        raise ValueError(f"{name} have shape {audio.shape}, not (n, {channels})")
    if audio.dtype.kind == "i" and audio.dtype.itemsize == 2:       # of either byte order
        return table.astype(np.int16, copy=False)
    if not np.issubdtype(audio.dtype, np.floating):
        raise TypeError(f"{name} are {audio.dtype}, neither int16 nor floats of full scale 1")
    if not np.isfinite(table).all():
        raise ValueError(f"{name} hold samples that are not finite")
    scaled = np.rint(table * FULL_SCALE)
    return np.clip(scaled, -32768, 32767).astype(np.int16)  # type: ignore[no-any-return]


def like(audio: NDArray[Any], samples: NDArray[np.int16]) -> NDArray[Any]:
    """Samples (n x channels) in the type and the dimensions of audio."""
    same_type = (samples if audio.dtype.kind == "i" else samples / FULL_SCALE).astype(audio.dtype)
    return np.ascontiguousarray(same_type[:, 0] if audio.ndim == 1 else same_type)


def check_delays(delays: NDArray[np.int32]) -> None:
    if np.any(delays < 0):
        raise RuntimeError("the library refused a frame; standard error has its reason")
