"""How much of the microphone is linear echo, and by what filter.

x is a reference, y a microphone: float (n) at a rate in Hz of at most RATE, above which
an echo holds next to nothing. Times and delays are in s.
"""
from dataclasses import dataclass

import numpy as np

from .channel import ACTIVE_POWER, decibels, frame_powers, frame_size

RATE = 16000                    # Hz
FILTER_S = 0.032                # length of the library's filter
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


def best_filter(references, y, taps):
    """The filter (references x taps) that leaves least of y, by conjugate gradients on the
    normal equations, whose Toeplitz blocks multiply by way of the Fourier transform."""
    count = len(references)
    size = _smooth(len(y) + taps)
    spectra = np.array([np.fft.rfft(x, size) for x in references])
    small = 1 << int(np.ceil(np.log2(2 * taps)))
    blocks = np.zeros((count, count, small // 2 + 1), complex)
    for i in range(count):
        for j in range(count):
            lags = np.fft.irfft(spectra[i].conj() * spectra[j], size)
            around = np.zeros(small)
            around[:taps], around[-taps + 1:] = lags[:taps], lags[-taps + 1:]
            blocks[i, j] = np.fft.rfft(around)
    load = 1e-5 * max(np.dot(x, x) for x in references)
    wanted = np.fft.irfft(spectra.conj() * np.fft.rfft(y, size), size)[:, :taps]

    def product(filters):
        transformed = np.fft.rfft(filters, small)
        moved = blocks[0] * transformed if count == 1 else np.einsum("ijf,jf->if", blocks, transformed)
        return np.fft.irfft(moved, small)[:, :taps] + load * filters

    filters = np.zeros((count, taps))
    left = wanted.copy()
    direction, power = left.copy(), np.sum(left * left)
    for _ in range(60):
        moved = product(direction)
        step = power / (np.sum(direction * moved) + 1e-30)
        filters += step * direction
        left -= step * moved
        power, before = np.sum(left * left), power
        if power < 1e-8 * np.sum(wanted * wanted):
            break
        direction = left + power / (before + 1e-30) * direction
    return filters


def _smooth(length):
    """A length of at least so much that transforms fast."""
    return -(-length // 2048) * 2048


def filtered(x, response, size):
    """x through a response, the first size samples of it."""
    whole = _smooth(len(x) + len(response))
    return np.fft.irfft(np.fft.rfft(x, whole) * np.fft.rfft(response, whole), whole)[:size]


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


def blocks_of(references, rate, taps, bounds):
    """Blocks of sections within bounds, in which a reference (held back) is active, and which
    frames of each are: [(section, start, end, mask)]. A block's start lacks the echo of
    before it."""
    frame, found = frame_size(rate), []
    for section, (first, last) in enumerate(bounds):
        lasts = last - first
        size = int((BLOCK_S if lasts >= 2 * BLOCK_S else lasts / 2 if lasts > 2.4 else lasts) * rate)
        for start in range(int(first * rate), int(last * rate) - size + 1, size) if size >= rate else []:
            active = np.max([frame_powers(x[start:start + size], rate) for x in references], axis=0) > ACTIVE_POWER
            active[:taps // frame + 1] = False
            if active.mean() >= 0.2:
                found.append((section, start, start + size, active))
    return found[::max(1, -(-len(found) // MOST_BLOCKS))]


def fit(references, y, rate, taps, bounds):
    """The Fit of each block that tells."""
    fitted = []
    for section, start, end, active in blocks_of(references, rate, taps, bounds):
        parts, y_part = [x[start:end] for x in references], y[start:end]
        filters = best_filter(parts, y_part, taps)
        left = y_part - sum(filtered(x, h, end - start) for x, h in zip(parts, filters))
        fitted.append(Fit(section, filters, *(float(frame_powers(c, rate)[active].sum()) for c in (y_part, left))))
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
    echo, size = filtered(x, np.mean(good, axis=0), len(y)), rate // 4
    echo, part = (c[:len(y) // size * size].reshape(-1, size) for c in (echo, y))
    cross, own, all_of = (echo * part).sum(1), (echo * echo).sum(1) + 1e-30, (part * part).sum(1) + 1e-30
    clear = (cross > 0) & (cross ** 2 / own / all_of > 0.7) & (own / size > 0.01 * ACTIVE_POWER)
    return 20 * np.log10(cross[clear] / own[clear])


def swing_db(gains_db):
    """By how many dB the gain swings, 0 where it rather jumps from one moment to the next, as
    what a loudspeaker distorts does, or where too little is known."""
    if len(gains_db) < 20:
        return 0.0
    smooth = np.median(np.lib.stride_tricks.sliding_window_view(gains_db, 3), axis=1)
    swing = float(np.subtract(*np.percentile(smooth, (90, 10))))
    return swing if np.mean(np.abs(gains_db[1:-1] - smooth)) < 0.15 * swing else 0.0


def coherence(x, y, rate, window_s=0.128):
    """Magnitude-squared coherence (bins) of x, held back and active, and y, and its
    frequencies in Hz."""
    size = int(window_s * rate)
    x_parts, y_parts = (np.lib.stride_tricks.sliding_window_view(c, size)[::size // 2] for c in (x, y))
    active = x_parts.var(axis=1) > ACTIVE_POWER
    x_spectra, y_spectra = (np.fft.rfft(c[active] * np.hanning(size)) for c in (x_parts, y_parts))
    s_xx, s_yy = ((np.abs(s) ** 2).sum(0) for s in (x_spectra, y_spectra))
    s_xy = (x_spectra.conj() * y_spectra).sum(0)
    return np.abs(s_xy) ** 2 / (s_xx * s_yy + 1e-30), np.fft.rfftfreq(size, 1 / rate)
