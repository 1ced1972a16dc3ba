"""How late the echo is, over time.

x is a reference, y a microphone: float (n) at RATE, where all that counts for a delay is
below RATE / 2 and a search of seconds is cheap. Delays are in s; a positive one means that
the echo in y comes after x, so that the reference has to be held back by it.
"""
from dataclasses import dataclass

import numpy as np

from .channel import ACTIVE_POWER, frame_powers, frame_size

RATE = 8000                     # Hz
SEARCH_S = 2.0                  # either way: past what the delay lines hold at any rate
WINDOW_S, HOP_S = 1.0, 0.25     # of the delay over time
MOST_WINDOWS = 240              # beyond 60 s the windows are farther apart
SURE = 8.0                      # a correlation's peak over its root mean square; the largest
CHANCE = 5.0                    # of 30000 values of plain noise stays below that
STEADY_LINES = 25               # lines of 1 Hz: with 99 % of its energy in fewer, a second of
TONAL_LINES = 200               # sound is steady tones; in fewer than these, beeps or held notes;
                                # most seconds of speech take more than 500
ALIKE = 0.97                    # of 1: sound that is so much like itself at another delay repeats;
                                # speech stays below 0.6, most of music below 0.95
APART_S = 0.003                 # a second peak nearer than that is the first one's flank
STEP_S = 0.002                  # a smaller move is another reflection, not another delay
LASTING = 4                     # points of the track; a delay that holds for less is passed over
RETURNING = 8                   # the same where the delay is back at where it was then
FADE = np.linspace(0, 1, RATE // 20)    # of the ends of a window
WRONG_RATES = (1 / 3, 1 / 2, 2 / 3, 44.1 / 48, 48 / 44.1, 3 / 2, 2, 3)   # reference over microphone
NEAR_RATES = 1 + np.arange(-30, 31) * 1e-3      # what differs less than half a step is found as it is


@dataclass
class Track:
    """The delay where it is sure, and of how many windows that could tell it."""
    times: np.ndarray           # s
    delays: np.ndarray          # s
    others: list                # [(s, s)]: time and delay of second peaks that are sure
    windows: int

    @property
    def share(self):
        return len(self.times) / max(1, self.windows)


def low_rate(x, rate, to=RATE):
    """x (n) at rate (Hz) brought down to at most another, by its spectrum."""
    if rate <= to:
        return x
    seconds = -(-len(x) // rate)
    kept = np.fft.rfft(x, seconds * rate)[:seconds * to // 2 + 1]
    return np.fft.irfft(kept, seconds * to)[:len(x) * to // rate] * (to / rate)


def _faded(x):
    """x with its ends drawn to 0, since two cut ends would look alike."""
    x = x.copy()
    x[:len(FADE)] *= FADE
    x[-len(FADE):] *= FADE[::-1]
    return x


def _surroundings(x, start):
    """x from SEARCH_S before a window to as much behind it, drawn to 0 and followed by
    zeros at its ends."""
    search = int(SEARCH_S * RATE)
    first, last = start - search, start + int(WINDOW_S * RATE) + search
    return np.pad(_faded(x[max(0, first):min(len(x), last)]), (max(0, -first), max(0, last - len(x))))


def spectrum_around(x, start):
    """The transform of x around a window, see _surroundings."""
    return np.fft.rfft(_surroundings(x, start))


def correlation(around, y, start):
    """Generalised cross-correlation with phase transform of a window of y at start with all of
    a reference that could be behind it (its _spectrum_around). Index i is the delay
    i / RATE - SEARCH_S."""
    size = 2 * (len(around) - 1)
    cross = around * np.fft.rfft(_faded(y[start:start + int(WINDOW_S * RATE)]), size).conj()
    cross[:100 * size // RATE] = 0                  # offset and mains hum
    power = np.abs(cross)
    cross /= power + 1e-3 * power.mean() + 1e-30
    return np.fft.irfft(cross)[:2 * int(SEARCH_S * RATE) + 1][::-1]


def peaks_of(lags):
    """The two largest values: [(delay in s, how sure)]. Sure is 0 when another delay, more
    than a reflection away, says nearly the same, as steady tones do."""
    size, found = np.abs(lags), []
    scale = np.sqrt(np.mean(size * size)) + 1e-30
    near, flank = int(0.05 * RATE), int(APART_S * RATE)
    left = size.copy()
    for _ in range(2):
        index = int(np.argmax(left[1:-1])) + 1
        before, middle, after = size[index - 1:index + 2]
        off = np.clip(0.5 * (before - after) / min(before - 2 * middle + after, -1e-30), -0.5, 0.5)
        elsewhere = max(left[:max(0, index - near)].max(initial=0), left[index + near:].max(initial=0))
        found.append(((index + off) / RATE - SEARCH_S, middle / scale * (middle > 1.25 * elsewhere)))
        left[max(0, index - flank):index + flank] = 0
    return found


def sureness_at(lags, seconds):
    """How sure a delay is, give or take a quarter of a ms."""
    size, index, near = np.abs(lags), int(round((seconds + SEARCH_S) * RATE)), RATE // 4000
    return float(size[index - near:index + near + 1].max() / (np.sqrt(np.mean(size * size)) + 1e-30))


def active_starts(x, y, hop_s=HOP_S):
    """Starts of the windows in which both channels are active (samples)."""
    window, frame = int(WINDOW_S * RATE), frame_size(RATE)
    hop = int(RATE * max(hop_s, len(y) / RATE / MOST_WINDOWS))
    both = [frame_powers(c, RATE) > ACTIVE_POWER * 0.1 for c in (x, y)]
    return [s for s in range(0, min(len(x), len(y)) - window + 1, hop)
            if all(c[s // frame:(s + window) // frame].mean() > 0.1 for c in both)]


def is_steady(x, lines=STEADY_LINES):
    """Whether a window is steady tones, which look alike at many delays."""
    power = np.square(np.abs(np.fft.rfft((x - x.mean()) * np.hanning(len(x)), RATE)))
    return bool(np.partition(power, -lines)[-lines:].sum() > 0.99 * power.sum())


def telling(x, start, lines=STEADY_LINES):
    """The spectrum_around a window in which x fits one delay only, None where it holds steady
    tones or looks like its surroundings elsewhere."""
    window, near, search = int(WINDOW_S * RATE), int(0.05 * RATE), int(SEARCH_S * RATE)
    own = x[start:start + window]
    if is_steady(own, lines):
        return None
    samples = _surroundings(x, start)
    around = np.fft.rfft(samples)
    cross = np.fft.irfft(around * np.fft.rfft(own, len(samples)).conj())[:2 * search + 1]
    sums = np.concatenate([[0], np.cumsum(samples * samples)])
    energy, power = sums[window:] - sums[:-window], np.dot(own, own)
    alike = cross / np.sqrt(power * np.maximum(energy, 0.1 * power))
    return None if max(alike[:search - near].max(), alike[search + near:].max()) > ALIKE else around


def _confirmed(found):
    """The delay that two windows have within 10 ms and are surest of, and how sure the
    second is: one window alone says too much by chance."""
    def second(delay):
        agreeing = sorted(sure for other, sure in found if abs(other - delay) < 0.01)
        return agreeing[-2] if len(agreeing) > 1 else 0.0
    return max(((delay, second(delay)) for delay, _ in found), key=lambda peak: peak[1], default=(0.0, 0.0))


def spread_out(starts, count):
    """At most count of them, evenly."""
    return starts[::max(1, -(-len(starts) // count))]


def relation(x, y, windows=8):
    """The delay in s at which two channels are most clearly related, and how sure that is,
    from some windows over the whole length."""
    found = []
    for start in spread_out(active_starts(x, y, 0.5), windows):
        around = telling(x, start)
        if around is not None:
            found.append(peaks_of(correlation(around, y, start))[0])
    return _confirmed(found)


def track(x, y):
    """The Track. A delay that none of its neighbours confirms is left out."""
    windows, points, others = 0, [], []
    for start in active_starts(x, y):
        around = telling(x, start)
        if around is None:
            continue
        windows += 1
        time = start / RATE + WINDOW_S / 2
        (delay, sure), (other, other_sure) = peaks_of(correlation(around, y, start))
        if sure > SURE:
            points.append((time, delay))
        if other_sure > SURE:
            others.append((time, other))
    times, delays = np.array(points).reshape(-1, 2).T
    kept = np.array([np.sum(np.abs(delays[max(0, i - 3):i + 4] - d) < STEP_S) >= 3
                     for i, d in enumerate(delays)], bool)
    return Track(times[kept], delays[kept], others, windows)


def sections(times, delays):
    """The track cut at its steps: [(times, delays)]. A step is a move of more than STEP_S
    that lasts; a reflection that is louder for a moment is none."""
    cuts = [0]
    for i in range(1, len(delays) - 2):
        moved = np.abs(delays[i:i + 3] - np.median(delays[max(cuts[-1], i - 3):i])) > STEP_S
        if moved.all() and i > cuts[-1]:
            cuts.append(i)
    parts = [(times[a:b], delays[a:b]) for a, b in zip(cuts, [*cuts[1:], len(delays)]) if b > a]
    if len(parts) > 1:
        parts = [part for part in parts if len(part[0]) >= LASTING] or [(times, delays)]
    i = 1
    while i < len(parts):
        if len(parts[i][0]) < RETURNING and i + 1 < len(parts) and abs(
                np.median(parts[i + 1][1]) - np.median(parts[i - 1][1])) < STEP_S:
            del parts[i]
        if abs(np.median(parts[i][1]) - np.median(parts[i - 1][1])) < STEP_S:
            parts[i - 1:i + 1] = [tuple(np.concatenate(pair) for pair in zip(parts[i - 1], parts[i]))]
            i = max(1, i - 1)
        else:
            i += 1
    return parts


def _slope(times, delays):
    """Median of the slopes between points a third of the track apart."""
    count = len(times)
    pairs = [(i, j) for i in range(count) for j in range(i + count // 3, count) if times[j] > times[i]]
    return float(np.median([(delays[j] - delays[i]) / (times[j] - times[i]) for i, j in pairs])) if pairs else 0.0


def drift_ppm(parts):
    """Drift in parts per million over the longest section, 0 where it cannot be told
    from standing still: shorter than 6 s, less than a quarter of a ms, or no line. Of a
    track that moved once between two reflections, two levels say more than a line."""
    times, delays = max(parts, key=lambda part: part[0][-1] - part[0][0])
    count = len(times)
    if count < 12 or times[-1] - times[0] < 6:
        return 0.0
    slope = _slope(times, delays)

    def spread(values):
        return np.abs(values - np.median(values)).sum()

    off_line = spread(delays - slope * times)
    off_levels = min(spread(delays[:i]) + spread(delays[i:]) for i in range(2, count - 1))
    moved = abs(slope) * (times[-1] - times[0])
    return slope * 1e6 if moved > max(0.00025, 4 * off_line / count) and off_line < off_levels else 0.0


def stretched(x, ratio):
    """x (n) read ratio times as fast."""
    return np.interp(np.arange(int(len(x) / ratio)) * ratio, np.arange(len(x)), x)


def rate_ratio(x, y, found):
    """The rate of x over that of y where they differ by a thousandth or more, else 1: undone,
    the delay stands still for longer than it does in found, the Track as it is."""
    best, surest = 1.0, 1.5 * SURE
    for ratio in (*WRONG_RATES, *(r for r in NEAR_RATES if r != 1)):
        slow, peaks = stretched(x, ratio), []
        for start in spread_out(active_starts(slow, y, 0.5), 5):
            peaks.append(peaks_of(correlation(spectrum_around(slow, start), y, start))[0])
            if len(peaks) == 3 and max(sure for _, sure in peaks) < SURE:
                break                           # most ratios are none, and this is seen soon
        sure = _confirmed(peaks)[1]
        if sure > surest:
            best, surest = ratio, sure
    if best == 1:
        return 1.0
    exact = track(stretched(x, best), y)        # what is left of the mismatch is a drift

    def longest(points):
        return max((len(part[0]) for part in sections(points.times, points.delays)), default=0)
    if longest(exact) < max(4, 0.15 * exact.windows, 1.5 * longest(found)):
        return 1.0
    return best * (1 - _slope(exact.times, exact.delays))
