"""How much of the microphone is linear echo, and by what filter.

x is a reference, y a microphone: float (n) at a rate in Hz of at most RATE, above which
an echo holds next to nothing. Times and delays are in s.
"""
import functools
from dataclasses import dataclass

import numpy as np

from .channel import ACTIVE_POWER, decibels, frame_powers, frame_size, pieces_of

RATE = 16000                    # Hz
FILTER_S = 0.032                # length of the library's filter
LONGEST_S = 4 * FILTER_S        # of those that are fitted
LEAD_S = 0.002                  # the first arrival may come that much before the strongest
EARLY_S = 0.030                 # a reflection that much later may be louder than the first arrival
SETTLE_S = 0.5                  # around a step: the track places it no better
BLOCK_S = 2                     # a filter is fitted to so much, whole seconds
MOST_BLOCKS = 15                # of these; long recordings are judged by a part of theirs
AUDIBLE = 10 ** -1.2            # of the strongest tap's energy: an arrival


def hold_back(x, parts, drift_ppm, rate, lead_s=LEAD_S):
    """x held back by the track, less a lead, so that its echo comes with the filter's first
    taps: by the median delay of each section and, where the clocks drift, moving along."""
    time, held = np.arange(len(x)) / rate, np.zeros(len(x))
    starts = [0, *(int(rate * (a[0][-1] + b[0][0]) / 2) for a, b in zip(parts, parts[1:]))]
    for (times, delays), first, last in zip(parts, starts, [*starts[1:], len(x)]):
        middle = np.median(times)
        off = np.median(delays - drift_ppm * 1e-6 * (times - middle))
        shift = np.round((off - lead_s) * rate)
        if drift_ppm:
            at = np.arange(first, last) - shift - drift_ppm * 1e-6 * rate * (time[first:last] - middle)
            held[first:last] = _read(x, at)
        else:
            begin, end = (min(max(0, int(i - shift)), len(x)) for i in (first, last))
            held[begin + int(shift):end + int(shift)] = x[begin:end]
    return held


def _read(x, at):
    """x at places between its samples, 0 outside, by a windowed sinc."""
    whole = np.floor(at).astype(int)
    read, half = np.zeros(len(at)), 8
    for k in range(1 - half, half + 1):
        off = at - whole - k
        weight = np.sinc(off) * np.cos(np.pi * off / (2 * half)) ** 2
        inside = (whole + k >= 0) & (whole + k < len(x))
        read += weight * x[np.clip(whole + k, 0, len(x) - 1)] * inside
    return read


def settled(parts, seconds):
    """Where each section is sure to stand: [(s, s)], not around the steps."""
    steps = [(a[0][-1] + b[0][0]) / 2 for a, b in zip(parts, parts[1:])]
    return list(zip([0.0, *(s + SETTLE_S for s in steps)], [*(s - SETTLE_S for s in steps), seconds]))


def best_filters(references, y, lengths):
    """The filters (references x taps), one for each number of taps, that leave least of y, and
    what they leave (n). The normal equations are solved by conjugate gradients; their Toeplitz
    blocks multiply by way of the Fourier transform."""
    longest = max(lengths)
    size = _smooth(len(y) + longest)
    spectra = np.array([np.fft.rfft(x, size) for x in references])
    lags = np.fft.irfft(spectra[:, np.newaxis].conj() * spectra, size)
    wanted = np.fft.irfft(spectra.conj() * np.fft.rfft(y, size), size)[:, :longest]
    filters = [_solution(lags, wanted[:, :taps]) for taps in lengths]
    return [(h, y - np.fft.irfft((spectra * np.fft.rfft(h, size)).sum(0), size)[:len(y)]) for h in filters]


def _solution(lags, wanted):
    """The filters (references x taps) whose normal equations have these correlations (references
    x references x lags) and right side (references x taps), by conjugate gradients; each
    reference is whitened by a circulant near to its block: T. Chan, An optimal circulant
    preconditioner for Toeplitz systems, 1988."""
    taps = wanted.shape[1]
    size, one = _smooth(2 * taps), np.arange(len(lags))
    own, tap = lags[one, one, :taps], np.arange(taps)
    around = np.concatenate([lags[..., :taps], np.zeros((*lags.shape[:2], size - 2 * taps + 1)),
                             lags[..., 1 - taps:]], axis=-1)
    blocks = np.fft.rfft(around)
    load = 1e-5 * own[:, 0].max()
    near = np.fft.rfft(((taps - tap) * own + tap * np.roll(own[:, ::-1], 1, axis=1)) / taps).real
    near = np.maximum(near, 0) + load + 1e-30

    def product(filters):
        transformed = np.fft.rfft(filters, size)
        moved = blocks[0] * transformed if len(lags) == 1 else np.einsum("ijf,jf->if", blocks, transformed)
        return np.fft.irfft(moved, size)[:, :taps] + load * filters

    def whitened(left):
        return np.fft.irfft(np.fft.rfft(left) / near, taps)

    filters, left, enough = np.zeros(wanted.shape), wanted.copy(), 1e-6 * np.sum(wanted * wanted)
    direction = whitened(left)
    power = np.sum(left * direction)
    for _ in range(60):
        moved = product(direction)
        step = power / (np.sum(direction * moved) + 1e-30)
        filters += step * direction
        left -= step * moved
        if np.sum(left * left) <= enough:
            break
        white = whitened(left)
        power, before = np.sum(left * white), power
        direction = white + power / (before + 1e-30) * direction
    return filters


@functools.lru_cache(maxsize=None)
def _smooth(length):
    """The next even length that transforms fast: of factors of 2, 3 and 5 alone."""
    def rest(n):
        for factor in (2, 3, 5):
            while n % factor == 0:
                n //= factor
        return n
    return next(n for n in range(length + length % 2, 2 * length + 2, 2) if rest(n) == 1)


def filtered(x, response):
    """x through a response, as long as x."""
    size = _smooth(len(x) + len(response))
    return np.fft.irfft(np.fft.rfft(x, size) * np.fft.rfft(response, size), size)[:len(x)]


@dataclass
class Fit:
    """The best filter of a block."""
    section: int
    filters: np.ndarray         # references x taps
    before: float               # power of the microphone over the active frames
    after: float                # and of what the filter leaves

    @property
    def share(self):
        """Of the microphone's power: what the filter explains."""
        return max(0.0, 1 - self.after / max(self.before, 1e-12))


def blocks_of(references, rate, bounds):
    """Blocks of sections within bounds, in which a reference (held back) is active, and which
    frames of each are: [(section, start, end, mask)]. A block's start lacks the echo of
    before it."""
    frame, found = frame_size(rate), []
    for section, (first, last) in enumerate(bounds):
        lasts = last - first
        size = int((BLOCK_S if lasts >= 2 * BLOCK_S else lasts / 2 if lasts > 2.4 else lasts) * rate)
        for start in range(int(first * rate), int(last * rate) - size + 1, size) if size >= rate else []:
            active = np.max([frame_powers(x[start:start + size], rate) for x in references], axis=0) > ACTIVE_POWER
            active[:int(LONGEST_S * rate) // frame + 1] = False
            if active.mean() >= 0.15:
                found.append((section, start, start + size, active))
    return found[::max(1, -(-len(found) // MOST_BLOCKS))]


def fit(references, y, rate, lengths_s, bounds):
    """For each length of a filter in s the Fits of the blocks that tell, which are the same."""
    fitted = [[] for _ in lengths_s]
    for section, start, end, active in blocks_of(references, rate, bounds):
        parts, y_part = [x[start:end] for x in references], y[start:end]
        solved = best_filters(parts, y_part, [int(seconds * rate) for seconds in lengths_s])
        for fits, (filters, left) in zip(fitted, solved):
            powers = (float(frame_powers(c, rate)[active].sum()) for c in (y_part, left))
            fits.append(Fit(section, filters, *powers))
    return fitted


def removable(fitted):
    """dB that the fitted filters could remove: over all, and over the best block. A near-end
    talker counts as not removable; where he pauses is the best block. None where nothing is
    active."""
    if not fitted:
        return None
    before, after = np.array([(f.before, f.after) for f in fitted]).T + 1e-12
    return float(decibels(before.sum() / after.sum())), float(decibels(before / after).max())


def arrival(fitted, section, rate):
    """The first arrival in s from the filter's start, and whether most blocks of a section
    agree on it: the first tap that stands out of what comes before it."""
    chosen = [f for f in fitted if f.section == section]
    best = max((f.share for f in chosen), default=0)
    found = []
    for f in chosen:
        energy = np.square(f.filters[0])
        noise = np.median(energy[:len(energy) // 8])
        if f.share >= 0.5 * best and best > 0:
            found.append((np.argmax(energy > max(AUDIBLE * energy.max(), 8 * noise)) / rate, f.share))
    if not found:
        return 0.0, False
    times, shares = np.array(sorted(found)).T
    middle = times[np.searchsorted(np.cumsum(shares), shares.sum() / 2)]
    agree = shares[np.abs(times - middle) <= 0.001].sum() / shares.sum()
    return float(middle), bool(agree > 0.6 and middle > 0.001)


def _likeness(some, others, rate):
    """Of 1, how much the mean responses of two groups of Fits are the same but for a shift of
    up to 2 ms."""
    first, second = (np.average([f.filters[0] for f in group], axis=0, weights=[f.share + 1e-9 for f in group])
                     for group in (some, others))
    size, near = 2 * len(first), int(0.002 * rate)
    cross = np.fft.irfft(np.fft.rfft(first, size).conj() * np.fft.rfft(second, size))
    return max(cross[:near].max(), cross[-near:].max()) / np.sqrt(first @ first * (second @ second) + 1e-30)


def unlikeness(fitted, section, rate):
    """By how much of 1 the response of a section is less like the one of the section before than
    each is like itself: lost samples leave it as it was, another path does not. 0 where too
    little is known."""
    before, after = ([f for f in fitted if f.section == one] for one in (section - 1, section))
    if not before or not after:
        return 0.0
    own = [_likeness(group[::2], group[1::2], rate) for group in (before, after) if len(group) > 1]
    return float(1 - _likeness(before, after, rate) / np.mean(own or [0.9]))


def gains(x, y, rate, fitted):
    """Gains in dB of the echo over time, against the filter that fits best: in windows of a
    quarter of a second that are echo for the larger part."""
    best = max((f.share for f in fitted), default=0)
    good = [f.filters[0] for f in fitted if f.share >= 0.7 * best and best > 0]
    if not good:
        return np.zeros(0)
    echo, size = filtered(x, np.mean(good, axis=0)), rate // 4
    echo, part = (c[:len(y) // size * size].reshape(-1, size) for c in (echo, y))
    cross, own, all_of = (echo * part).sum(1), (echo * echo).sum(1) + 1e-30, (part * part).sum(1) + 1e-30
    clear = (cross > 0) & (cross ** 2 / own / all_of > 0.7) & (own / size > 0.01 * ACTIVE_POWER)
    return 20 * np.log10(cross[clear] / own[clear])


def swing_db(gains_db):
    """By how many dB the gain swings, 0 where it rather jumps from one moment to the next, as
    what a loudspeaker distorts does, or where too little is known."""
    if len(gains_db) < 20:
        return 0.0
    smooth = np.median(pieces_of(gains_db, 3, 1), axis=1)
    swing = float(np.subtract(*np.percentile(smooth, (90, 10))))
    return swing if np.mean(np.abs(gains_db[1:-1] - smooth)) < 0.15 * swing else 0.0


def coherence(x, y, rate, window_s=0.128):
    """Magnitude-squared coherence (bins) of x, held back and active, and y, and its
    frequencies in Hz."""
    size = int(window_s * rate)
    x_parts, y_parts = (pieces_of(c, size, size // 2) for c in (x, y))
    active = x_parts.var(axis=1) > ACTIVE_POWER
    x_spectra, y_spectra = (np.fft.rfft(c[active] * np.hanning(size)) for c in (x_parts, y_parts))
    s_xx, s_yy = ((np.abs(s) ** 2).sum(0) for s in (x_spectra, y_spectra))
    s_xy = (x_spectra.conj() * y_spectra).sum(0)
    return np.abs(s_xy) ** 2 / (s_xx * s_yy + 1e-30), np.fft.rfftfreq(size, 1 / rate)
