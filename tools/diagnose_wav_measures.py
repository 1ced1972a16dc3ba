"""What diagnose_wav measures: numbers from samples, without judgement.

x is a reference, y a microphone: float arrays of n samples, full scale 1, unless
said otherwise; rate is in Hz. A positive delay means: the echo in y comes that
many samples after x, so the reference has to be held back by them.
"""
import numpy as np

LINE = 12288                    # samples that a delay line of the library holds
FILTER_S = 0.032                # length of the library's filter
ACTIVE_POWER = 1e-6             # a frame above -60 dB of full scale counts as active
SEARCH_SAMPLES = LINE * 5 // 4  # delays looked at, either way: past what the lines hold
WINDOW_S, HOP_S = 1.0, 0.25     # of the delay over time
SURE = 8.0                      # a correlation's peak over its root mean square; the largest
                                # of 30000 values of plain noise stays below 5
LEAD_S = 0.002                  # the first arrival may come that much before the strongest
SETTLE_S = 0.5                  # around a step: the track places it no better
STEADY_LINES = 25               # lines of 1 Hz: with 99 % of its energy in fewer, a second of
TONAL_LINES = 200               # sound is steady tones; in fewer than these, beeps or held notes;
                                # most seconds of speech take more than 500
ALIKE = 0.97                    # of 1: sound that is so much like itself at another delay repeats;
                                # speech stays below 0.6, most of music below 0.95
BLOCK_S = 2                     # a filter is fitted to so much, whole seconds
STEP_S = 0.002                  # a smaller move is another reflection, not another delay


def frame_size(rate):
    """Samples in a frame of 16 ms."""
    return rate * 2 // 125


def reach(rate):
    """The longest delay in samples that the library can apply: a line less a frame."""
    return LINE - frame_size(rate)


def decibels(power):
    """10 log10, no lower than -120 dB."""
    return 10 * np.log10(np.maximum(power, 1e-12))


def frame_powers(x, rate):
    """Mean power of each frame (frames), its mean taken out first."""
    frame = frame_size(rate)
    frames = x[:len(x) // frame * frame].reshape(-1, frame)
    return frames.var(axis=1)


def active_power(x, rate):
    """Mean power of the active frames, 0 when there is none."""
    powers = frame_powers(x, rate)
    active = powers > ACTIVE_POWER
    return powers[active].mean() if active.any() else 0.0


# ---- one channel ---------------------------------------------------------------------

def entropy(values):
    """Bits that a byte of values (uint8) carries."""
    counts = np.bincount(values, minlength=256)
    share = counts[counts > 0] / len(values)
    return float(-(share * np.log2(share)).sum())


def bytes_look_swapped(samples):
    """Of int16 samples the high bytes carry less than the low ones: a signal is seldom
    at its peak. The other way round the bytes are swapped. Samples of fewer than 16
    bits, moved up, have an idle lowest bit and are let through."""
    if len(samples) == 0 or not samples.any() or not (samples & 1).any() or (samples & 1).all():
        return False
    swapped = samples.byteswap()
    quieter = np.square(swapped, dtype=float).mean() * 4 < np.square(samples, dtype=float).mean()
    low, high = (samples & 255).astype(np.uint8), (samples >> 8 & 255).astype(np.uint8)
    return bool(quieter and entropy(high) > entropy(low) + 0.3)


def clipped_share(samples):
    """Share of int16 samples in runs of 3 or more at the channel's own largest value; a
    square wave is always there."""
    largest = int(np.abs(samples.astype(int)).max())
    if largest < 1000:
        return 0.0
    at_limit = np.abs(samples.astype(int)) >= largest - 1
    inner = at_limit[1:-1] & at_limit[:-2] & at_limit[2:]
    share = float(inner.sum() / len(samples))
    return share if share < 0.9 else 0.0


def still_share(x, rate):
    """Share of frames in which every sample is the same: digital silence."""
    return float((frame_powers(x, rate) == 0).mean())


def is_steady(x, rate, lines=STEADY_LINES):
    """Whether a window is steady tones, which look alike at many delays."""
    power = np.square(np.abs(np.fft.rfft((x - x.mean()) * np.hanning(len(x)), rate)))
    return bool(np.sort(power)[-lines:].sum() > 0.99 * power.sum())


def frame_spectra(x, rate, size=1024):
    """Power spectra of the active pieces (pieces x bins), half overlapped, and their
    frequencies in Hz (bins)."""
    starts = range(0, max(1, len(x) - size + 1), size // 2)
    pieces = [x[s:s + size] for s in starts]
    pieces = [p - p.mean() for p in pieces if len(p) == size and p.var() > ACTIVE_POWER]
    frequency = np.fft.rfftfreq(size, 1 / rate)
    if not pieces:
        return np.zeros((1, len(frequency))), frequency
    return np.abs(np.fft.rfft(np.array(pieces) * np.hanning(size))) ** 2, frequency


def spectrum(x, rate):
    """Mean power spectrum of the active frames in dB (bins) and its frequencies in Hz."""
    powers, frequency = frame_spectra(x, rate)
    return decibels(powers.mean(axis=0)), frequency


def band_edge(x, rate):
    """Frequency in Hz above which a resampler left nothing, or rate / 2. Only a cliff
    counts: 25 dB within a twentieth of the band, and nothing higher up; sounds by
    themselves fall off in slopes. The octave below it is filled, by loud consonants for
    example; a cliff behind single lines is where a tone ends."""
    powers, frequency = frame_spectra(x, rate)
    level = decibels(powers.mean(axis=0))
    width = len(level) // 20
    for bin in range(2 * width, len(level) - 2 * width):
        below = level[bin - width:bin].mean()
        above = level[bin + width:]
        if above.max() < below - 25 and above.mean() < below - 30:
            octave = powers[:, bin // 2:bin]
            is_filled = np.median(octave, axis=1).sum() > 0.03 * octave.mean(axis=1).sum()
            return float(frequency[bin + width // 2]) if is_filled else rate / 2
    return rate / 2


# ---- two channels --------------------------------------------------------------------

def faded(x, rate):
    """x with its ends drawn to 0, since two cut ends would look alike."""
    edge = rate // 20
    x = x.copy()
    x[:edge] *= np.linspace(0, 1, edge)
    x[-edge:] *= np.linspace(1, 0, edge)
    return x


def surroundings(x, start, rate):
    """x (n) from SEARCH_SAMPLES before a window to as many behind it, drawn to 0 and
    followed by zeros at its ends."""
    first, last = start - SEARCH_SAMPLES, start + int(WINDOW_S * rate) + SEARCH_SAMPLES
    return np.pad(faded(x[max(0, first):min(len(x), last)], rate), (max(0, -first), max(0, last - len(x))))


def correlation(x, y, start, rate):
    """Generalised cross-correlation with phase transform (2 SEARCH_SAMPLES + 1) of a
    window of y at start with all of x that could be behind it. Index i is the delay
    i - SEARCH_SAMPLES."""
    window = int(WINDOW_S * rate)
    x_part = surroundings(x, start, rate)
    y_part = faded(y[start:start + window], rate)
    size = 1 << int(np.ceil(np.log2(len(x_part) + window)))
    cross = np.fft.rfft(y_part, size) * np.conj(np.fft.rfft(x_part, size))
    cross[:int(100 * size / rate)] = 0              # offset and mains hum
    cross /= np.abs(cross) + 1e-3 * np.abs(cross).mean() + 1e-30
    lags = np.fft.irfft(cross, size)
    return np.roll(lags, 2 * SEARCH_SAMPLES)[:2 * SEARCH_SAMPLES + 1]


def peak_of(lags, rate):
    """The delay of the largest value, to a fraction of a sample, and how sure it is: 0
    when another delay, more than a reflection away, says nearly the same, as steady
    tones do."""
    size = np.abs(lags)
    index = int(np.argmax(size[1:-1])) + 1
    near = int(0.05 * rate)
    elsewhere = max(size[:max(0, index - near)].max(initial=0), size[index + near:].max(initial=0))
    left, middle, right = size[index - 1:index + 2]
    fraction = 0.5 * (left - right) / min(left - 2 * middle + right, -1e-30)
    sure = middle / (np.sqrt(np.mean(size * size)) + 1e-30)
    unique = middle > 1.25 * elsewhere
    return index - SEARCH_SAMPLES + np.clip(fraction, -0.5, 0.5), sure if unique else 0.0


def active_starts(x, y, rate, hop_s=HOP_S):
    """Starts of the windows in which both channels are active (samples)."""
    window, hop, frame = int(WINDOW_S * rate), int(hop_s * rate), frame_size(rate)
    both = [frame_powers(c, rate) > ACTIVE_POWER * 0.1 for c in (x, y)]
    starts = range(0, len(y) - window + 1, hop)
    return [s for s in starts
            if all(c[s // frame:(s + window) // frame].mean() > 0.1 for c in both)]


def is_repeating(x, start, rate):
    """Whether the window of x at start looks like its surroundings elsewhere."""
    window, near = int(WINDOW_S * rate), int(0.05 * rate)
    around, x_part = surroundings(x, start, rate), x[start:start + window]
    size = -(-len(around) // 1024) * 1024           # what wraps comes behind the lags wanted
    cross = np.fft.irfft(np.fft.rfft(around, size) * np.fft.rfft(x_part, size).conj(), size)
    sums = np.concatenate([[0], np.cumsum(around * around)])
    energy, own = sums[window:] - sums[:-window], np.dot(x_part, x_part)
    alike = cross[:len(energy)] / np.sqrt(own * np.maximum(energy, 0.1 * own))
    return bool(max(alike[:SEARCH_SAMPLES - near].max(), alike[SEARCH_SAMPLES + near:].max()) > ALIKE)


def telling(x, starts, rate, lines=STEADY_LINES):
    """Those windows in which x fits one delay only: no steady tones, no repetition."""
    window = int(WINDOW_S * rate)
    return [s for s in starts
            if not is_steady(x[s:s + window], rate, lines) and not is_repeating(x, s, rate)]


def relation(x, y, rate, windows=8):
    """Delay of y behind x in samples where the two are most clearly related, and how
    sure that is, from some windows over the whole length. A delay counts as sure as the
    second window that has it within 10 ms: one window alone says too much by chance."""
    starts = active_starts(x, y, rate, 0.5)
    starts = telling(x, starts[::max(1, len(starts) // (2 * windows))], rate)
    chosen = starts[::max(1, len(starts) // windows)]
    found = [peak_of(correlation(x, y, s, rate), rate) for s in chosen]

    def confirmed(delay):
        agreeing = sorted(sure for other, sure in found if abs(other - delay) < 0.01 * rate)
        return agreeing[-2] if len(agreeing) > 1 else 0.0

    return max(((delay, confirmed(delay)) for delay, _ in found), key=lambda peak: peak[1],
               default=(0.0, 0.0))


def delay_track(x, y, rate):
    """Times in s and delays in samples (points) where the delay is sure, and the number of
    windows that could tell it. A delay that none of its neighbours confirms is left out."""
    starts, points = telling(x, active_starts(x, y, rate), rate), []
    for start in starts:
        delay, sure = peak_of(correlation(x, y, start, rate), rate)
        if sure > SURE:
            points.append((start / rate + WINDOW_S / 2, delay))
    times, delays = np.array(points).reshape(-1, 2).T
    confirmed = np.array([np.sum(np.abs(delays[max(0, i - 3):i + 4] - d) < STEP_S * rate) >= 3
                          for i, d in enumerate(delays)], bool)
    return times[confirmed], delays[confirmed], len(starts)


def sections(times, delays, rate):
    """The track cut at its steps: [(times, delays)]. A step is a move of more than
    STEP_S that lasts."""
    cuts = [0]
    for i in range(1, len(delays) - 2):
        moved = np.abs(delays[i:i + 3] - np.median(delays[max(cuts[-1], i - 3):i])) > STEP_S * rate
        if moved.all() and i > cuts[-1]:
            cuts.append(i)
    cuts.append(len(delays))
    return [(times[a:b], delays[a:b]) for a, b in zip(cuts, cuts[1:]) if b > a]


def drift_ppm(parts, rate):
    """Drift in parts per million over the longest section, 0 where it cannot be told
    from standing still: shorter than 6 s, less than 2 samples, or no line. Of a track
    that moved once between two reflections, two levels say more than a line."""
    times, delays = max(parts, key=lambda part: part[0][-1] - part[0][0])
    count = len(times)
    if count < 12 or times[-1] - times[0] < 6:
        return 0.0
    pairs = [(i, j) for i in range(count) for j in range(i + count // 3, count)]
    slope = np.median([(delays[j] - delays[i]) / (times[j] - times[i]) for i, j in pairs])

    def spread(values):
        return np.abs(values - np.median(values)).sum()

    off_line = spread(delays - slope * times)
    off_levels = min(spread(delays[:i]) + spread(delays[i:]) for i in range(2, count - 1))
    moved = abs(slope) * (times[-1] - times[0])
    is_line = moved > max(2, 4 * off_line / count) and off_line < off_levels
    return float(slope / rate * 1e6) if is_line else 0.0


def copy_error(x, y):
    """Power of y that is not x times a constant, in dB of y's: a copy is far below 0."""
    gain = np.dot(x, y) / (np.dot(x, x) + 1e-30)
    return float(decibels(np.mean((y - gain * x) ** 2) / (np.mean(y * y) + 1e-30)))


# ---- how much is linear --------------------------------------------------------------

def hold_back(x, parts, drift, rate):
    """x (n) held back by the track, less LEAD_S, so that its echo comes with the filter's
    first taps: by the median delay of each section and, where the clocks drift (ppm),
    moving along. And where that is sure (n): not around the steps."""
    time = np.arange(len(x)) / rate
    shift, sure = np.zeros(len(x)), np.ones(len(x), bool)
    for i, (times, delays) in enumerate(parts):
        start = (parts[i - 1][0][-1] + times[0]) / 2 if i else 0
        line = drift * 1e-6 * rate * (time - np.median(times))
        off = np.median(delays - drift * 1e-6 * rate * (times - np.median(times)))
        shift[time >= start] = (np.round(off - LEAD_S * rate) + line)[time >= start]
        sure &= (abs(time - start) > SETTLE_S) | (i == 0)
    at = np.arange(len(x)) - shift
    whole = np.floor(at).astype(int)
    held, half = np.zeros(len(x)), 8 if drift else 1
    for k in range(1 - half, half + 1):             # a windowed sinc
        off = at - whole - k
        weight = np.sinc(off) * np.cos(np.pi * off / (2 * half)) ** 2
        inside = (whole + k >= 0) & (whole + k < len(x))
        held += weight * x[np.clip(whole + k, 0, len(x) - 1)] * inside
    return held, sure


def best_filter(references, y, taps):
    """The filter (references x taps) that leaves least of y, by conjugate gradients on the
    normal equations, whose Toeplitz blocks multiply by way of the Fourier transform."""
    count = len(references)
    size = 1 << int(np.ceil(np.log2(len(y) + taps)))
    spectra = np.array([np.fft.rfft(x, size) for x in references])
    small = 1 << int(np.ceil(np.log2(3 * taps)))
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
        return np.fft.irfft(np.einsum("ijf,jf->if", blocks, transformed), small)[:, :taps] + load * filters

    filters = np.zeros((count, taps))
    left = wanted.copy()
    direction, power = left.copy(), np.sum(left * left)
    for _ in range(100):
        moved = product(direction)
        step = power / (np.sum(direction * moved) + 1e-30)
        filters += step * direction
        left -= step * moved
        power, before = np.sum(left * left), power
        if power < 1e-10 * np.sum(wanted * wanted):
            break
        direction = left + power / (before + 1e-30) * direction
    return filters


def removable(references, y, rate, filter_s):
    """dB of y that a linear filter of filter_s, the best for each BLOCK_S, could remove
    while a reference (list of n, held back) is active: over all, and over the best block.
    A near-end talker counts as not removable; where he pauses is the best block. None
    where nothing is active."""
    taps, block, frame = int(filter_s * rate), BLOCK_S * rate, frame_size(rate)
    powers = []
    for start in range(0, len(y) - block + 1, block):
        parts = [x[start:start + block] for x in references]
        active = np.max([frame_powers(part, rate) for part in parts], axis=0) > ACTIVE_POWER
        active[:taps // frame + 1] = False      # the block's start lacks the echo of before
        if active.mean() < 0.2:
            continue
        y_part = y[start:start + block]
        size = 1 << int(np.ceil(np.log2(block + taps)))
        spectra = [np.fft.rfft(x, size) * np.fft.rfft(h, size)
                   for x, h in zip(parts, best_filter(parts, y_part, taps))]
        left = y_part - np.fft.irfft(np.sum(spectra, axis=0), size)[:block]
        powers.append([frame_powers(c, rate)[active].sum() for c in (y_part, left)])
    if not powers:
        return None
    before, after = np.array(powers).T
    return float(decibels(before.sum() / after.sum())), float(decibels(before / after).max())


def coherence(x, y, rate, window_s=0.128):
    """Magnitude-squared coherence (bins) of x, held back and active, and y, and its
    frequencies in Hz."""
    size = int(window_s * rate)
    window = np.hanning(size)
    s_xx, s_yy, s_xy, used = 0.0, 0.0, 0.0, 0
    for start in range(0, len(y) - size, size // 2):
        x_part, y_part = x[start:start + size], y[start:start + size]
        if x_part.var() < ACTIVE_POWER:
            continue
        x_spectrum, y_spectrum = (np.fft.rfft(c * window) for c in (x_part, y_part))
        s_xx = s_xx + np.abs(x_spectrum) ** 2
        s_yy = s_yy + np.abs(y_spectrum) ** 2
        s_xy = s_xy + x_spectrum.conj() * y_spectrum
        used += 1
    frequency = np.fft.rfftfreq(size, 1 / rate)
    return (np.abs(s_xy) ** 2 / (s_xx * s_yy + 1e-30) if used else np.zeros(len(frequency))), frequency
