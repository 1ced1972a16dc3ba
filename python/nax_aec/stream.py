"""Echo cancellation of sound that arrives in pieces, of any length and with jitter."""
from __future__ import annotations

import logging
import operator
import sys
import threading
from typing import TYPE_CHECKING, Any, NamedTuple, NoReturn, Optional, Union

import numpy as np

from ._clock import Clock, Line
from ._library import library
from ._rates import Converter, library_rate
from ._samples import like, samples_of
from ._timeline import LONGEST_S, Fifo, Timeline
from .canceller import Canceller
from .meter import Report, meter_library
from .suppressor import Suppressor, suppressor_library

if TYPE_CHECKING:   # NumPy has it from 1.20 on
    from numpy.typing import NDArray
    Pcm = Union[bytes, bytearray, memoryview, NDArray[Any]]

LOWEST_HZ, HIGHEST_HZ = 1000, 768000
STEP_PIECES = 3         # captured pieces in a row that must be off before a gap is believed


class Counts(NamedTuple):
    """What a Stream did so far. All but the last three are sample instants: of captured sound at
    the rate of the canceller, a supported one."""
    captured: int       # given to captured()
    returned: int       # returned by it
    silent: int         # processed with silence, because no reference was there for them
    late: int           # of reference that came after the captured sound that it belongs to
    discarded: int      # of reference that was interrupted, replaced, or of a gap in the capture
    too_early: int      # of reference that was dropped: more than 60 s ahead
    steps: int          # gaps in the times of what was captured, and jumps of the reference
    drift_ppm: float    # by how much faster the playback's clock runs, as it is made up for
    delay: int          # the applied delay in samples


class Stream:
    """Cancels the echo of sound that arrives in pieces: for servers, and for programs whose
    playback and capture are two callbacks.

    >>> loudspeaker = 0.1 * np.random.default_rng(1).standard_normal(3 * 16000)
    >>> microphone = 0.5 * np.concatenate([np.zeros(1000), loudspeaker[:-1000]])
    >>> with Stream(16000) as stream:
    ...     cleaned = []
    ...     for start in range(0, len(microphone), 700):
    ...         stream.played(loudspeaker[start:start + 700])
    ...         cleaned.append(stream.captured(microphone[start:start + 700]))
    ...     cleaned.append(stream.finish())
    >>> cleaned = np.concatenate(cleaned)
    >>> len(cleaned), bool(np.std(cleaned[-16000:]) < 0.1 * np.std(microphone[-16000:]))
    (48000, True)

    Give played() what the loudspeaker plays and captured() what the microphone hears. Both take
    pieces of any length. captured() returns the cleaned samples that are ready: the n-th sample
    returned is the n-th captured, cleaned. finish() returns the rest.

    Latency. It is constant: captured() returns what is at least `latency` old, in whole frames
    of 16 ms. What has not been returned is always less than 16 ms + latency, with suppress less
    than 32 ms + latency. Another rate than 8000, 16000, 32000 or 48000 Hz, and a reference of
    another rate than the microphone's, each add up to 12 ms.
    Let latency be 0 where the reference is always given before its echo is captured, as it is
    by a program that plays the sound itself. Where it comes later, for instance over a network,
    let it be the longest time by which it is later.

    Without times, the order of arrival counts. A played piece follows the one before it
    without a gap; after a pause it begins at the first captured sample that has not been
    processed. So the n-th played sample belongs with the n-th captured one as long as played()
    is ahead, and a constant distance between the two is found by the canceller. Playback may be
    given in bursts, up to 60 s ahead. While nothing is played, nothing needs to be given.

    With times, the order of arrival does not count. `at` is when the first sample of the piece
    was or will be played, or was captured, in seconds of one clock that runs on, such as
    time.monotonic() of one machine. Give it to all pieces or to none. It may be off by some
    ms: a line is fitted. Times that count samples are better: after a gap or an interrupt a
    time that is off by ms moves the echo, and the canceller loses some dB until it has followed.
    A played piece that is further off the ones before than by their jitter (2 to 50 ms) is taken
    for a gap or a new playback. Clocks of playback and capture that run at different rates are
    made up for by resampling the reference.

    What cannot be placed is not guessed: it is counted in `counts`, and the logger "nax_aec"
    warns when the count of late or dropped samples begins, and each time it has doubled.

    Threads. Any method may be called from any thread; a call waits while another one runs.
    In an asyncio program call them directly: a piece of 20 ms takes a fraction of a ms.
    """

    def __init__(self, sample_rate: int, microphones: int = 1, references: int = 1, *,
                 reference_rate: Optional[int] = None, suppress: bool = False,
                 latency: float = 0.0, **options: Any) -> None:
        """Begins a stream.

        sample_rate     of what is captured and returned, 1000 to 768000 Hz. A rate other
                        than 8000, 16000, 32000 or 48000 is brought to the next of these for
                        the canceller, by libsamplerate
        microphones     M, 1 or 2
        references      R, 1 to 256
        reference_rate  of what is played, 1000 to 768000 Hz; None: sample_rate
        suppress        whether echo that the canceller leaves is suppressed
        latency         seconds, 0 to 10, by which a reference may come late
        options         those of Canceller, such as delay_len
        Raises ValueError, TypeError and OSError as Canceller does.
        """
        rates = [operator.index(r) for r in (sample_rate, reference_rate or sample_rate)]
        if not all(LOWEST_HZ <= rate <= HIGHEST_HZ for rate in rates):
            raise ValueError(f"rates are {rates[0]} and {rates[1]}, not {LOWEST_HZ} to {HIGHEST_HZ} Hz")
        if not 0 <= latency <= 10:
            raise ValueError(f"latency is {latency}, not 0 to 10 s")
        self.rate = library_rate(rates[0])      # of the canceller
        self._canceller = Canceller(self.rate, microphones, references, **options)
        self._suppressor = Suppressor(self.rate, microphones, references) if suppress else None
        m, frame, kept = self._canceller.microphones, self._canceller.frame_size, self._canceller.kept
        self._to_rate = Converter(m, rates[0], self.rate)
        self._back = Converter(m, self.rate, rates[0])
        self._timeline = Timeline(self.rate, kept, frame, Converter(kept, rates[1], self.rate))
        self._latency = round(latency * self.rate) + self._timeline.converter.lag
        self._mic, self._clock, self._off = Fifo(m), Clock(rates[0]), 0
        self._in = np.zeros((frame, m + kept), np.int16)
        self._out = np.zeros((frame, m + self._canceller.references), np.int16)
        self._echo, self._suppressed = np.zeros((2, frame, m), np.int16)
        self._pointers = [a.ctypes.data for a in (self._in, self._out, self._echo, self._suppressed)]
        self._given = self._returned = 0        # sample instants at the rate of the capture
        self._ahead = frame if suppress else 0  # samples of silence that the suppressor gives first
        self._steps = self._delay = self._told = 0
        self._timed: Optional[bool] = None
        self._rest = {"played": b"", "captured": b""}   # bytes of half a sample instant
        self._like: NDArray[Any] = np.zeros((0, m), np.int16)
        self._bytes = False
        self._closed = False
        self._lock = threading.Lock()

    def played(self, pcm: Pcm, at: Optional[float] = None) -> None:
        """Takes a piece of what the loudspeaker plays.

        pcm  bytes of interleaved 16-bit samples, the low byte first, or an array n x R of int16
             or floats of full scale 1; n alone for one reference
        at   when its first sample is played, in seconds, or None
        Raises ValueError or TypeError for other arrays, for a time where the pieces before had
        none or the reverse, and when the stream is closed.
        """
        with self._lock:
            rows, _ = self._take("played", pcm, self._canceller.references, at)
            if len(rows) == 0:
                return
            rows = rows[:, :self._canceller.kept]
            if at is None:
                self._timeline.append(rows)
            else:
                self._timeline.insert(rows.copy(), at, self._line())
            self._tell()

    def captured(self, pcm: Pcm, at: Optional[float] = None) -> Any:
        """Takes a piece of what the microphones hear and returns the cleaned samples that are
        ready, n x M in the kind, type and dimensions of pcm; often none or more than were given.

        pcm  as for played(), with M columns
        at   when its first sample was captured, in seconds, or None
        Raises as played() does.
        """
        with self._lock:
            rows, self._like = self._take("captured", pcm, self._canceller.microphones, at)
            self._bytes = self._like.dtype == np.uint8
            if at is not None and len(rows):
                self._see(at)
            self._given += len(rows)
            self._mic.append(self._to_rate.convert(rows))
            cleaned = self._back.convert(self._process(self._mic.end - self._latency))
            return self._given_as(cleaned)

    def interrupt(self, at: Optional[float] = None) -> None:
        """Says that playback stopped: what was given to be played from a time on was not.

        at   when it stopped, in seconds; None in a stream without times: now, which is after
             what was captured last
        """
        with self._lock:
            if self._timed and at is None:
                raise ValueError("in a stream with times an interrupt has one")
            self._check_time(at)
            self._timeline.interrupt(at, self._mic.end)

    def finish(self) -> Any:
        """Ends the stream and returns the cleaned samples that were not yet returned, as
        captured() does. References that are still missing are taken for silence."""
        with self._lock:
            self._check_open()
            self._mic.append(self._to_rate.flush())
            frame = self._canceller.frame_size
            self._mic.append(np.zeros((-self._mic.end % frame, self._canceller.microphones), np.int16))
            cleaned = self._process(self._mic.end)
            if self._suppressor:        # a frame of silence brings out the last one
                self._out[:] = self._echo[:] = 0
                cleaned = np.concatenate([cleaned, self._suppress()])
            cleaned = np.concatenate([self._back.convert(cleaned), self._back.flush()])
            rest = self._given - self._returned     # of which conversion may round one away
            cleaned = np.concatenate([cleaned, np.zeros((rest, cleaned.shape[1]), np.int16)])[:rest]
            result = self._given_as(cleaned)
        self.close()
        return result

    @property
    def counts(self) -> Counts:
        """What was captured, returned, and could not be placed."""
        with self._lock:
            line, scale = self._timeline, self.rate / self._clock.rate
            return Counts(round(self._given * scale), round(self._returned * scale), line.silent,
                          line.late, line.discarded, line.too_early, self._steps + line.steps,
                          1e6 * line.drift, self._delay)

    def report(self) -> Report:
        """How the canceller does, before suppression: levels, echo removed, and a verdict. Any
        thread may ask at any time. Raises ValueError when the stream is closed."""
        return self._canceller.report()

    def close(self) -> None:
        """Releases everything. A second close does nothing."""
        with self._lock:
            self._closed = True
            self._canceller.close()
            if self._suppressor:
                self._suppressor.close()
            for converter in (self._to_rate, self._back, self._timeline.converter):
                converter.close()

    def __enter__(self) -> Stream:
        return self

    def __exit__(self, *unused: object) -> None:
        self.close()

    def __reduce__(self) -> NoReturn:
        raise TypeError("a stream cannot be copied or pickled")

    # Below, the caller holds the lock.

    def _check_open(self) -> None:
        if self._closed:
            raise ValueError("the stream is closed")

    def _check_time(self, at: Optional[float]) -> None:
        self._check_open()
        if at is not None and not abs(at) < 1e15:
            raise ValueError(f"at is {at}, no time in seconds")
        if self._timed is None:
            self._timed = at is not None
        elif self._timed != (at is not None):
            raise ValueError("give a time with every piece of a stream or with none")

    def _take(self, name: str, pcm: Pcm, channels: int,
              at: Optional[float]) -> tuple[NDArray[np.int16], NDArray[Any]]:
        """A piece as n x channels, and an array of the kind in which it was given."""
        if isinstance(pcm, np.ndarray):
            rows = samples_of(pcm, channels, name)
            self._check_time(at)
            return rows, pcm[:0]
        self._check_time(at)
        data = self._rest[name] + memoryview(pcm).tobytes()
        whole = len(data) // (2 * channels) * (2 * channels)
        self._rest[name] = data[whole:]
        rows = np.frombuffer(data[:whole], "<i2").reshape(-1, channels)
        return rows, np.zeros(0, np.uint8)

    def _given_as(self, rows: NDArray[np.int16]) -> Any:
        self._returned += len(rows)
        if self._bytes:
            return (rows if sys.byteorder == "little" else rows.byteswap()).tobytes()
        return like(self._like, rows)

    def _see(self, at: float) -> None:
        """Takes in the time of a captured piece; a step is believed when it stays."""
        if not self._clock.line:
            self._clock.anchor(self._given, at)
        elif not self._clock.is_step(self._given, at):
            self._off = 0
            self._clock.see(self._given, at)
        else:
            self._off += 1
            if self._off == STEP_PIECES:
                self._clock.anchor(self._given, at)
                self._off, self._steps = 0, self._steps + 1

    def _line(self) -> Optional[Line]:
        """The times of the captured samples at the canceller's rate."""
        line, scale = self._clock.line, self._clock.rate / self.rate
        if line is None or scale == 1:
            return line
        return line._replace(start=line.start / scale, period_s=line.period_s * scale)

    def _process(self, end: int) -> NDArray[np.int16]:
        """Processes whole frames up to a captured sample. Returns the cleaned ones."""
        timeline, frame, m = self._timeline, self._canceller.frame_size, self._canceller.microphones
        first = timeline.done
        count = max(0, (end - first) // frame)
        cleaned = np.empty((count * frame, m), np.int16)
        if count == 0:
            return cleaned
        line = self._line()
        with self._canceller._in_use() as state:
            call, length = library().nax_aec_short, frame * self._out.shape[1]
            measure, meter = meter_library().nax_meter_short, self._canceller._meter.state
            into, out, echo, _ = self._pointers
            for i in range(count):
                start = first + i * frame
                self._in[:, :m] = self._mic.rows(start, start + frame)
                timeline.read(self._in[:, m:], line)
                self._delay = call(state, into, out, echo, length)
                measure(meter, into, out, self._delay)
                cleaned[i * frame:(i + 1) * frame] = \
                    self._suppress() if self._suppressor else self._out[:, :m]
        self._mic.drop(timeline.done)
        skipped = min(self._ahead, len(cleaned)) if first == 0 else 0
        return cleaned[skipped:]

    def _suppress(self) -> NDArray[np.int16]:
        """The frame before the canceller's last one, suppressed."""
        assert self._suppressor
        with self._suppressor._in_use() as state:
            suppressor_library().nax_res_short(state, *self._pointers[1:])
        return self._suppressed

    def _tell(self) -> None:
        """Warns of samples that could not be placed."""
        lost = self._timeline.late + self._timeline.too_early
        if lost > 2 * self._told:
            self._told = lost
            logging.getLogger("nax_aec").warning(
                "%.3f s of reference came too late and %.3f s more than %.0f s too early",
                self._timeline.late / self.rate, self._timeline.too_early / self.rate, LONGEST_S)
