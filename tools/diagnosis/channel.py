"""What one channel shows by itself: numbers from samples, without judgement.

x is float (n), full scale 1; samples are int16 (n) as recorded; rate is in Hz.
"""
import numpy as np

ACTIVE_POWER = 1e-6             # a frame above -60 dB of full scale counts as active
ABRUPT = 0.02                   # of the active power: sound that stops or starts at once
SHORTEST_GAP_S = 0.004          # a shorter run of equal samples may be a quiet wave's crest,
LONGEST_GAP_S = 0.5             # a longer one a pause;
MOST_GAPS = 0.2                 # of the time: more than that are beeps


def decibels(power):
    """10 log10, no lower than -120 dB."""
    return 10 * np.log10(np.maximum(power, 1e-12))


def frame_size(rate):
    """Samples in a frame of 16 ms."""
    return rate * 2 // 125


def frame_powers(x, rate):
    """Mean power of each frame (frames), its mean taken out first."""
    frame = frame_size(rate)
    return x[:len(x) // frame * frame].reshape(-1, frame).var(axis=1)


def active_power(x, rate):
    """Mean power of the active frames, 0 when there is none."""
    powers = frame_powers(x, rate)
    active = powers > ACTIVE_POWER
    return float(powers[active].mean()) if active.any() else 0.0


def floor_db(x, rate):
    """Level in dBFS that 5 % of the frames stay below."""
    return float(decibels(np.percentile(frame_powers(x, rate), 5)))


def _entropy(values):
    """Bits that a byte of values (uint8) carries."""
    counts = np.bincount(values, minlength=256)
    share = counts[counts > 0] / len(values)
    return float(-(share * np.log2(share)).sum())


def bytes_look_swapped(samples):
    """The high bytes carry less than the low ones: a signal is seldom at its peak. The
    other way round the bytes are swapped. Samples of fewer than 16 bits, moved up, have
    an idle lowest bit and are let through."""
    if len(samples) == 0 or not samples.any() or not (samples & 1).any() or (samples & 1).all():
        return False
    swapped = samples.byteswap()
    quieter = np.square(swapped, dtype=float).mean() * 4 < np.square(samples, dtype=float).mean()
    low, high = (samples & 255).astype(np.uint8), (samples >> 8 & 255).astype(np.uint8)
    return bool(quieter and _entropy(high) > _entropy(low) + 0.3)


def clipped_share(samples):
    """Share of samples in runs of 3 or more at the channel's own largest value; a square
    wave is always there."""
    size = np.abs(samples.astype(int))
    largest = int(size.max())
    if largest < 1000:
        return 0.0
    at_limit = size >= largest - 1
    inner = at_limit[1:-1] & at_limit[:-2] & at_limit[2:]
    share = float(inner.sum() / len(samples))
    return share if share < 0.9 else 0.0


def offset(samples):
    """The mean, of full scale, of the quarter that has least of it; 0 where they do not agree."""
    means = [float(quarter.mean()) / 32768 for quarter in np.array_split(samples, 4)]
    return min(means, key=abs) if min(means) * max(means) > 0 else 0.0


def still_share(x, rate):
    """Share of frames in which every sample is the same, digital silence, between the first and the
    last that are not: any capture may start late."""
    still = frame_powers(x, rate) == 0
    inside = np.flatnonzero(~still)
    return float(still[inside[0]:inside[-1] + 1].mean()) if len(inside) else 1.0


def drop_outs(samples, rate):
    """Times and lengths in s of runs of equal samples that cut into sound: [(s, s)]. A
    channel that is silent between sounds fades, and is let through, as is one at its
    limits."""
    power = active_power(samples / 32768, rate) * 32768 ** 2
    changes = np.flatnonzero(np.diff(samples)) + 1
    if power == 0 or len(changes) < 2:
        return []
    runs = np.stack([changes[:-1], changes[1:]], 1)         # neither the first nor the last
    lengths = runs[:, 1] - runs[:, 0]
    runs = runs[(lengths >= SHORTEST_GAP_S * rate) & (lengths <= LONGEST_GAP_S * rate)]
    beside = int(0.003 * rate)

    def cuts(a, b):
        sides = samples[max(0, a - beside):a], samples[b:b + beside]
        return abs(int(samples[a])) < 16384 and all(
            np.square(side - float(samples[a])).mean() > ABRUPT * power for side in sides)
    found = [(a / rate, (b - a) / rate) for a, b in runs.tolist() if cuts(a, b)]
    return found if sum(length for _, length in found) < MOST_GAPS * len(samples) / rate else []


def pieces_of(x, size, step):
    """All pieces (pieces x size) of x (n) that begin at multiples of step. NumPy has its own from
    1.20 on."""
    count = max(0, (len(x) - size) // step + 1)
    return np.lib.stride_tricks.as_strided(x, (count, size), (step * x.strides[0], x.strides[0]), writeable=False)


def frame_spectra(x, rate, size=1024):
    """Power spectra of the active pieces (pieces x bins), half overlapped, and their
    frequencies in Hz (bins)."""
    pieces = pieces_of(x, size, size // 2)
    pieces = pieces[pieces.var(axis=1) > ACTIVE_POWER]
    pieces = pieces[::max(1, len(pieces) // 1000)]
    frequency = np.fft.rfftfreq(size, 1 / rate)
    if len(pieces) == 0:
        return np.zeros((1, len(frequency))), frequency
    pieces = pieces - pieces.mean(axis=1, keepdims=True)
    return np.abs(np.fft.rfft(pieces * np.hanning(size))) ** 2, frequency


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


def plays_above(x, y, rate, edge):
    """Whether y's spectrum above edge (Hz) follows x's level, and is more than what distortion
    leaves there."""
    size = 1024
    x_pieces, y_pieces = (pieces_of(c, size, size) for c in (x, y))
    powers, frequency = np.abs(np.fft.rfft(y_pieces * np.hanning(size))) ** 2, np.fft.rfftfreq(size, 1 / rate)
    if frequency[-1] <= 1.1 * edge or x_pieces.var() == 0 or y_pieces.var() == 0:
        return False
    high, low = powers[:, frequency > 1.1 * edge].mean(1), powers[:, frequency < edge].mean(1)
    alike = np.corrcoef(decibels(x_pieces.var(axis=1)), decibels(high))[0, 1]
    return bool(alike > 0.6 and high.mean() > 10 ** -3.5 * low.mean())
