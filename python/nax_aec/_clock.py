"""The times of a stream's pieces as a line over its samples, by weighted least squares.

The times jitter by some milliseconds, the line does not: its slope is the clock's rate. Huber's
weights (P. J. Huber, "Robust estimation of a location parameter", 1964) keep single late pieces
from moving it.
"""
from __future__ import annotations

import math
from typing import NamedTuple, Optional

MEMORY_S = 60.0         # after which a piece counts 1/e: crystals drift with temperature, slowly
PRIOR_DEVIATION = 1e-4  # of a clock's rate from its nominal one: 100 ppm
LEAST_JITTER_S = 1e-5   # by which exact times are rounded
OUTLIER = 3.0           # times the mean jitter
FIRST_JITTER_S = 2e-3   # as long as none was seen
MOST_S, LEAST_S = 0.05, 0.002   # bounds of what may be jitter


class Line(NamedTuple):
    """time = start_s + (index - start) * period_s"""
    start: float            # in samples
    start_s: float
    period_s: float         # of a sample
    uncertain: float        # standard deviation of the period, as a share of it

    def time(self, index: float) -> float:
        return self.start_s + (index - self.start) * self.period_s

    def index(self, time: float) -> float:
        return self.start + (time - self.start_s) / self.period_s


class Clock:
    """The line of a stream of nominal rate (Hz). Sums are relative to the newest piece."""

    def __init__(self, rate: float) -> None:
        self.rate = rate
        self.line: Optional[Line] = None
        self._slope, self._weight = 0.0, 0.0    # what was known of the slope before the anchor
        self._jitter, self._seen = FIRST_JITTER_S, 0    # mean, of so many pieces

    def is_step(self, index: float, at: float) -> bool:
        """Whether a time is further off than by jitter."""
        off = abs(self.off(index, at))
        if off < MOST_S:
            self._seen += 1
            share = max(0.02, 1 / (self._seen + 2))
            self._jitter = max(self._jitter + share * (off - self._jitter), LEAST_JITTER_S)
        return off > self.tolerance

    @property
    def tolerance(self) -> float:
        """By how many seconds a time may be off by jitter."""
        return min(MOST_S, LEAST_S + 4 * self._jitter)

    def anchor(self, index: float, at: float) -> None:
        """Begins a line with this piece. The rate of the clock stays known."""
        if self.line:
            self._slope = self.line.period_s * self.rate - 1
            self._weight = (self._jitter / self.line.uncertain) ** 2
        self._last, self._origin, self._origin_s = index, index, at
        self._n, self._x, self._y, self._xx, self._xy = 1.0, 0.0, 0.0, 0.0, 0.0
        self._fit()

    def off(self, index: float, at: float) -> float:
        """By how many seconds a piece is later than the line has it."""
        return at - self.line.time(index) if self.line else 0.0

    def see(self, index: float, at: float) -> None:
        """Takes in the time of a piece that follows the ones before."""
        step = (index - self._last) / self.rate
        off = self.off(index, at)
        outlier = OUTLIER * self._jitter
        weight = 1.0 if abs(off) <= outlier else outlier / abs(off)
        keep = math.exp(-step / MEMORY_S)
        n, x, y, xx, xy = (keep * s for s in (self._n, self._x, self._y, self._xx, self._xy))
        xx, xy, x = xx - 2 * step * x + step * step * n, xy - step * y, x - step * n
        late = at - self._origin_s - (index - self._origin) / self.rate
        self._n, self._x, self._y, self._xx, self._xy = n + weight, x, y + weight * late, xx, xy
        self._last = index
        self._fit()

    def _fit(self) -> None:
        known = max(self._weight, (self._jitter / PRIOR_DEVIATION) ** 2)
        spread = self._xx - self._x * self._x / self._n + known
        slope = (self._xy - self._x * self._y / self._n + known * self._slope) / spread
        late = (self._y - slope * self._x) / self._n
        now_s = self._origin_s + (self._last - self._origin) / self.rate + late
        self.line = Line(self._last, now_s, (1 + slope) / self.rate,
                         self._jitter / math.sqrt(spread))
