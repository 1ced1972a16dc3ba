"""The reference on the time line of the captured samples."""
from __future__ import annotations

import bisect
import functools
import math
from collections import deque
from typing import TYPE_CHECKING, Deque, List, Optional, Tuple

import numpy as np

from ._clock import MOST_S, Clock, Line
from ._rates import Converter
from ._samples import rounded

if TYPE_CHECKING:   # NumPy has it from 1.20 on
    from numpy.typing import NDArray

LONGEST_S = 60.0        # of reference that is kept for later
MOST_WAITING = 60000    # pieces with times: LONGEST_S in pieces of 1 ms
NEAR_S = 0.005          # the reference may be read so far off its time, because times jitter
CATCH_UP = 3e-5         # share by which it is read faster or slower when it is further off
SURE = 2.0              # standard deviations from which a difference of two clocks is believed
LEAST_DRIFT, MOST_DRIFT = 2e-6, 5e-4    # of two clocks: less the canceller follows, more is none
WING = 16               # samples of the interpolation's filter to each side
PHASES = 2048           # of its filter within a sample


class Fifo:
    """Rows of samples, counted from the first that was ever appended."""

    def __init__(self, channels: int) -> None:
        self._data = np.zeros((4096, channels), np.int16)
        self._head = self._tail = 0     # rows in _data
        self.first = 0                  # the count of the row at _head

    @property
    def end(self) -> int:
        return self.first + self._tail - self._head

    def append(self, rows: NDArray[np.int16]) -> None:
        if self._tail + len(rows) > len(self._data):
            held = self._data[self._head:self._tail]
            if len(held) + len(rows) > len(self._data) // 2:
                self._data = np.zeros((2 * (len(held) + len(rows)), held.shape[1]), np.int16)
            self._data[:len(held)] = held.copy()
            self._head, self._tail = 0, len(held)
        self._data[self._tail:self._tail + len(rows)] = rows
        self._tail += len(rows)

    def rows(self, first: int, end: int) -> NDArray[np.int16]:
        """The rows from first to end, which must be held."""
        at = self._head - self.first
        return self._data[at + first:at + end]

    def drop(self, first: int) -> None:
        """Forgets what is before first."""
        gone = min(max(first - self.first, 0), self._tail - self._head)
        self._head += gone
        self.first += gone

    def cut(self, end: int) -> int:
        """Forgets what is from end on. Returns how many rows that were."""
        gone = min(max(self.end - end, 0), self._tail - self._head)
        self._tail -= gone
        return gone


class Playback:
    """A stretch that was played without a gap, and how far it was read."""

    def __init__(self, channels: int, position: Optional[int], line: Optional[Line]) -> None:
        self.samples = Fifo(channels)
        self.position = position        # without times: of its first row, in captured samples
        self.line = line                # with times
        self.end = 0.0                          # rows that were given, before conversion lags
        self.read: Optional[float] = None       # the next row, once reading began
        self.rate = 1.0                 # rows a captured sample


@functools.lru_cache(maxsize=None)
def kernels() -> NDArray[np.float32]:
    """Hann-windowed sincs: 2 * WING taps that move a signal ahead by 0 to 1.5 samples, in steps
    of 1 / PHASES: that is 68 dB exact at the highest frequency."""
    phases = np.arange(1.5 * PHASES)[:, np.newaxis] / PHASES
    x = np.arange(-WING + 1, WING + 1) - phases
    return (np.sinc(x) * (0.5 + 0.5 * np.cos(np.pi * x / (WING + 2)))).astype(np.float32)


class Timeline:
    """Places what is played and reads it frame by frame. Counts are in samples at the rate of
    the timeline."""

    def __init__(self, rate: int, channels: int, frame: int, converter: Converter) -> None:
        self.rate, self.channels, self.frame = rate, channels, frame
        self.converter = converter              # of what is played, to rate
        self.clock = Clock(rate)                # of what is played
        self.waiting: List[Tuple[float, int, NDArray[np.int16]]] = []   # time, count, rows; sorted
        self.count = 0                          # of pieces with times
        self.playbacks: Deque[Playback] = deque()
        self.begins_anew = True
        self.done = 0                           # captured samples that were processed
        self.silent = self.late = self.discarded = self.too_early = self.steps = 0
        self.drift = 0.0                        # of the playback's clock, as it is made up for
        self._off = 0.0                         # samples by which it is read before its time
        self._ramp = (np.arange(frame) / frame).astype(np.float32)

    def held(self) -> int:
        """The samples that wait to be read."""
        return sum(len(rows) for _, _, rows in self.waiting) + sum(
            p.samples.end - p.samples.first for p in self.playbacks)

    def append(self, rows: NDArray[np.int16]) -> None:
        """Takes a piece without a time: it follows the last one, or begins now."""
        last = self.playbacks[-1] if self.playbacks else None
        end = last.position + last.samples.end if last and last.position is not None else 0
        if self.begins_anew or not last or end < self.done:
            self._begin(Playback(self.channels, max(self.done, end), None))
        room = max(0, int((LONGEST_S * self.rate - self.held()) / self.converter.ratio))
        self.too_early += self._scaled(max(0, len(rows) - room))
        self._fill(rows[:room])

    def insert(self, rows: NDArray[np.int16], at: float, line: Optional[Line]) -> None:
        """Takes a piece whose first row was or is to be played at a time. line: of the captured
        samples, if any. The piece is placed once the reading comes near it, so that pieces may
        arrive in any order; it replaces what it overlaps by more than half."""
        done_s = line.time(self.done) if line else self.waiting[0][0] if self.waiting else at
        if at - done_s > LONGEST_S or len(self.waiting) > MOST_WAITING:
            self.too_early += self._scaled(len(rows))
            return
        if at + self._seconds(rows) <= done_s:
            self.late += self._scaled(len(rows))
            return
        self.count += 1
        place, end = bisect.bisect(self.waiting, (at, self.count)), at + self._seconds(rows)
        while place < len(self.waiting) and self._middle(place) < end:
            self.discarded += self._scaled(len(self.waiting.pop(place)[2]))
        while place > 0 and self._middle(place - 1) > at:
            place -= 1
            self.discarded += self._scaled(len(self.waiting.pop(place)[2]))
        self.waiting.insert(place, (at, self.count, rows))

    def _seconds(self, rows: NDArray[np.int16]) -> float:
        return len(rows) * self.converter.ratio / self.rate

    def _middle(self, place: int) -> float:
        return self.waiting[place][0] + self._seconds(self.waiting[place][2]) / 2

    def _scaled(self, count: int) -> int:
        return round(count * self.converter.ratio)

    def _begin(self, playback: Playback) -> None:
        if self.playbacks:
            self.playbacks[-1].samples.append(self.converter.flush())
        self.playbacks.append(playback)
        self.begins_anew = False

    def _fill(self, rows: NDArray[np.int16]) -> None:
        """Adds rows to the last playback."""
        last = self.playbacks[-1]
        converted = self.converter.convert(rows)
        if last.read is not None:
            self.late += int(min(len(converted), max(0.0, last.read - last.samples.end)))
        last.samples.append(converted)
        last.end += len(rows) * self.converter.ratio

    def _place(self, done_s: float, until_s: float) -> None:
        """Takes what waits until a time into playbacks, in the order of the times."""
        while self.waiting and self.waiting[0][0] < until_s:
            at, _, rows = self.waiting.pop(0)
            if at + self._seconds(rows) <= done_s:
                self.discarded += self._scaled(len(rows))   # of a gap in what was captured
                continue
            last = self.playbacks[-1] if self.playbacks else None
            if self.begins_anew or not last or self.clock.is_step(last.end, at):
                if last and last.line and last.line.time(last.end) >= at + self._seconds(rows):
                    self.late += self._scaled(len(rows))    # later ones have taken its place
                    continue
                self._cut_from(at)
                self.clock.anchor(0, at + self._typical_off(at, len(rows)))
                self._begin(Playback(self.channels, None, self.clock.line))
            else:
                self.clock.see(last.end, at)
                last.line = self.clock.line
            self._fill(rows)

    def _typical_off(self, at: float, count: int) -> float:
        """The median of how much later the pieces that follow are than the first one's time has
        them: a first time that is off would move all of the playback."""
        offs = [0.0]
        period_s = self.converter.ratio * (self.clock.line.period_s if self.clock.line else 1 / self.rate)
        for time, _, rows in self.waiting[:24]:
            off = time - at - count * period_s
            if abs(off) > self.clock.tolerance:
                break
            offs.append(off)
            count += len(rows)
        return sorted(offs)[len(offs) // 2]

    def _cut_from(self, at: float) -> None:
        for playback in self.playbacks:
            if playback.line:
                self.discarded += playback.samples.cut(math.ceil(playback.line.index(at) - 0.5))

    def interrupt(self, at: Optional[float], end: int) -> None:
        """Discards what was to be played from a time on, or from the captured sample end on."""
        for playback in self.playbacks:
            if playback.position is not None:
                self.discarded += playback.samples.cut(end - playback.position)
        if at is not None:
            self._cut_from(at)
            kept = []
            for time, count, rows in self.waiting:
                left = round(max(0.0, min((at - time) * self.rate / self.converter.ratio, len(rows))))
                self.discarded += self._scaled(len(rows) - left)
                if left:
                    kept.append((time, count, rows[:left]))
            self.waiting = kept
        self.begins_anew = True

    def read(self, into: NDArray[np.int16], line: Optional[Line]) -> None:
        """Writes the reference of the next frame of captured samples, whose line is given where
        there are times."""
        frame, done = self.frame, self.done
        into[:] = 0
        silent = frame
        if line:
            wings_s = WING / self.rate
            self._place(line.time(done), line.time(done + frame) + self.clock.tolerance + wings_s)
        while self.playbacks:
            playback = self.playbacks[0]
            self._steer(playback, line)
            silent -= self._copy(playback, into)
            if playback.samples.end > playback.read or len(self.playbacks) == 1:
                break
            self.playbacks.popleft()
        for playback in list(self.playbacks)[1:]:
            self._steer(playback, line)
            silent -= self._copy(playback, into)
        self.silent += max(silent, 0)
        self.done = done + frame

    def _steer(self, playback: Playback, line: Optional[Line]) -> None:
        """Sets from where, and how fast, the playback is read for this frame."""
        if playback.position is not None:
            playback.read = float(self.done - playback.position)
            return
        assert line is not None and playback.line is not None
        wanted = playback.line.index(line.time(self.done))
        if playback.read is None and wanted > 0:
            self.late += int(min(playback.samples.end, round(wanted)))
        elif playback.read is not None and abs(wanted - playback.read) > MOST_S * self.rate:
            self.steps += 1
            playback.read, self._off = None, 0.0
        if playback.read is None or playback.read < 0:
            begin = wanted - self._off      # as the one before is read: the echo's delay stays
            playback.read = begin if self.drift else float(round(begin))
        off = self._off = wanted - playback.read
        drift = line.period_s / playback.line.period_s - 1
        doubt = SURE * math.hypot(line.uncertain, playback.line.uncertain)
        self.drift = drift if abs(drift) > max(doubt, LEAST_DRIFT) else 0.0
        catch_up = math.copysign(CATCH_UP, off) if abs(off) > NEAR_S * self.rate else 0.0
        self.drift = max(-MOST_DRIFT, min(MOST_DRIFT, self.drift))
        playback.rate = 1 + self.drift + catch_up

    def _copy(self, playback: Playback, into: NDArray[np.int16]) -> int:
        """Adds this frame of a playback. Returns how many samples it holds."""
        read, frame, samples = playback.read, self.frame, playback.samples
        assert read is not None
        playback.read = read + frame * playback.rate
        first, end = max(samples.first, math.floor(read)), min(samples.end, math.ceil(playback.read))
        if end <= first:
            return 0
        if playback.rate == 1.0 and read == math.floor(read):
            at = first - int(read)
            into[at:at + end - first] = samples.rows(first, end)
        else:
            self._interpolate(playback, into, read)
        samples.drop(math.floor(playback.read) - WING)
        return end - first

    def _interpolate(self, playback: Playback, into: NDArray[np.int16], read: float) -> None:
        """A frame from read on, by filters for its start and its end with a ramp from one to the
        other: within a frame the fraction moves by less than a tenth of a sample."""
        frame, samples, moves = self.frame, playback.samples, self.frame * (playback.rate - 1)
        base = math.floor(min(read, read + moves))
        held = np.zeros((self.channels, frame + 2 * WING - 1), np.float32)
        first = base - WING + 1
        low, high = max(first, samples.first), min(first + held.shape[1], samples.end)
        if high <= low:
            return
        held[:, low - first:high - first] = samples.rows(low, high).T
        begins, ends = (kernels()[round((at - base) * PHASES)] for at in (read, read + moves))
        for c in range(self.channels):
            start, moved = np.correlate(held[c], begins), np.correlate(held[c], ends)
            moved -= start
            moved *= self._ramp
            moved += start
            into[:, c] += rounded(moved)
