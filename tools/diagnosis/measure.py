"""All that is measured of a recording, put together."""
import itertools
from dataclasses import dataclass

import numpy as np

from . import channel, delay, files, library, linear
from .channel import decibels
from .echo import measure_echo
from .record import Channel, Measures

COPY_DB = -30                   # what is left of a copy once the other is taken away
TWICE_DB = -50
WORSE_DB, ENOUGH_DB = 1.5, 20   # by as much a run may differ by chance; nobody hears more


@dataclass
class Recording:
    """The audio: a channel each as recorded and, at a rate of the library's, as float."""
    name: str
    sounds: list                # files.Sound
    rate: int
    expected: list
    swapped: list
    raw: list                   # int16, as recorded
    raw_rates: list
    audio: list                 # float (n), full scale 1
    low: list = None            # the same at delay.RATE or less
    mid: list = None            # the same at linear.RATE or less

    @property
    def mid_rate(self):
        return min(self.rate, linear.RATE)


def recording(name, sounds, expected):
    """The Recording of files, whose channels count through; bytes are put right, rates and
    lengths made one."""
    rate = files.rate_for(sounds[0].rate)
    raw, rates, swapped, audio = [], [], [], []
    for sound in sounds:
        for samples in sound.samples:
            wrong = sound.is_16_bit and channel.bytes_look_swapped(samples)
            raw.append(samples.byteswap() if wrong else samples)
            swapped.append(wrong)
            rates.append(sound.rate)
            audio.append(files.converted(raw[-1] / 32768, sound.rate, rate))
    length = min(map(len, audio))
    audio = [x[:length] for x in audio]
    mid = [delay.low_rate(x, rate, linear.RATE) for x in audio]
    low = [delay.low_rate(x, min(rate, linear.RATE), delay.RATE) for x in mid]
    return Recording(name, sounds, rate, expected, swapped, raw, rates, audio, low, mid)


def copy_error(x, y):
    """Power of y that is not x times a constant, in dB of y's: a copy is far below 0."""
    gain = np.dot(x, y) / (np.dot(x, x) + 1e-30)
    return float(decibels(np.mean((y - gain * x) ** 2) / (np.mean(y * y) + 1e-30)))


def tells(x, y):
    """Whether x holds sound that fits one delay only, while y is active."""
    starts = delay.spread_out(delay.active_starts(x, y), 40)
    return any(delay.telling(x, start, delay.TONAL_LINES) is not None for start in starts)


def measure_channels(audio):
    for c, x in enumerate(audio.audio):
        raw, rate = audio.raw[c], audio.raw_rates[c]
        power = channel.active_power(x, audio.rate)
        peak = max(1, int(np.abs(raw.astype(int)).max())) / 32768
        yield Channel(expected=audio.expected[c], level_db=float(decibels(power)) if power else -120.0,
                      peak_db=float(20 * np.log10(peak)), floor_db=channel.floor_db(x, audio.rate),
                      clipped=channel.clipped_share(raw), offset=channel.offset(raw),
                      drop_outs=channel.drop_outs(raw, rate), edge_hz=channel.band_edge(x, audio.rate),
                      swapped=bool(audio.swapped[c]))


def votes(audio, channels):
    """How much speaks for each channel being a reference (positive) or a microphone."""
    active = [c for c, one in enumerate(channels) if one.sounds]
    still = [channel.still_share(x, audio.rate) for x in audio.audio]
    score = np.zeros(len(channels))
    for a, b in itertools.combinations(active, 2):
        lag, sure = delay.relation(audio.low[a], audio.low[b])
        apart = abs(lag) > 0.001
        if sure < delay.SURE or (not apart and len(active) > 2):
            continue                                        # strangers, or two of a kind
        vote = np.sign(lag) if apart else 0                 # the sound comes first, then its echo
        quieter = channels[b].floor_db - channels[a].floor_db
        vote += np.sign(quieter) if abs(quieter) > 10 else 0
        for one, other, sign in ((a, b, 2), (b, a, -2)):    # no microphone is ever that still
            vote += sign if still[one] > 0.01 and still[other] < 0.001 else 0
        score[a] += vote
        score[b] -= vote
    return score


def give_roles(audio, channels):
    """Guesses a role for each channel and settles it: the guess where it is clear, else what
    is expected."""
    score = votes(audio, channels)
    for one, v in zip(channels, score):
        one.guess = "reference" if v > 0 else "microphone" if v < 0 else ""
        clear = one.sounds and abs(v) >= 2 and one.guess
        one.role = (one.guess if clear else "") or one.expected or one.guess
    for one in channels:                                    # what nothing speaks for or against
        taken = any(other.role == "microphone" for other in channels)
        one.role = one.role or ("reference" if taken else "microphone")
        if not one.sounds and one.expected != "reference":
            one.role = "silent"


def measure_copies(audio, m):
    mics, refs = m.of("microphone"), m.sounding
    for i, r in enumerate(refs):
        for y in mics:
            if copy_error(audio.low[r], audio.low[y]) < COPY_DB and tells(audio.low[r], audio.low[y]):
                m.copies.append((r, y))
        m.twice += [(r, o) for o in refs[:i] if copy_error(audio.low[o], audio.low[r]) < TWICE_DB]


def measure_bands(audio, m):
    """Where the spectra end against the rate that the files claim."""
    edges = {c: m.channels[c].edge_hz for c in m.of("microphone") + m.sounding if m.channels[c].sounds}
    top = max(edges.values(), default=0)
    if top < 3000:              # below it a spectrum ends by itself, as that of a hum does
        return
    fitting = min((r for r in files.RATES if r / 2 >= 0.93 * top), default=m.rate)
    if fitting < min(m.rate, *m.recorded):
        m.made_at = fitting
        return
    for r in m.sounding:
        if edges[r] < 0.7 * top and any(
                channel.plays_above(audio.audio[r], audio.audio[y], m.rate, edges[r])
                for y in m.of("microphone")):
            m.narrow.append((r, edges[r]))


def measure_no_echo(audio, m):
    """Why a reference with sound in it is not heard."""
    pairs = [(r, y) for r in m.sounding for y in m.of("microphone") if (r, y) not in m.copies]
    m.tonal = bool(pairs) and not any(tells(audio.low[r], audio.low[y]) for r, y in pairs)
    for r, y in pairs if not m.tonal else []:
        m.ratio = delay.rate_ratio(audio.low[r], audio.low[y], delay.track(audio.low[r], audio.low[y]))
        if m.ratio != 1:
            return


def run_library(audio, m, delay_len=0, seconds=None):
    """The Run of the roles found, or None with the reason noted."""
    mics, refs = m.of("microphone")[:2], m.sounding or m.of("reference")
    if not mics or not refs:
        return None
    length = None if seconds is None else int(seconds * m.rate)
    try:
        samples = {c: np.clip(np.rint(audio.audio[c][:length] * 32768), -32768, 32767).astype(np.int16)
                   for c in mics + refs}
        return library.run(m.rate, [samples[c] for c in mics], [samples[c] for c in refs], delay_len)
    except (ImportError, OSError, ValueError) as error:
        m.not_run = str(error)
        return None


def advise(audio, m):
    """A Run of the first TRIAL_S with the whole frame before the earliest arrival as base
    delay, where that makes the library start aligned, stay so and remove as much."""
    frame = channel.frame_size(m.rate)
    arrivals = [s.arrival * m.rate for e in m.echoes for s in e.sections if s.sure]
    base = int((min(arrivals, default=0) - library.TOLERATED_S * m.rate) // frame * frame)
    if not m.run or not frame <= base <= library.reach(m.rate):
        return None
    run = run_library(audio, m, base, library.TRIAL_S)
    first, last = run.delays[0], np.median(run.delays[len(run.delays) // 2:])
    holds = library.is_aligned([first, last], min(arrivals), m.rate).all()
    worse = run.trial_db < min(m.run.trial_db - WORSE_DB, ENOUGH_DB)
    return run if holds and first == base and not worse else None


def measured(audio):
    """The Measures of a Recording."""
    m = Measures(audio.name, audio.rate, [s.rate for s in audio.sounds], len(audio.audio[0]) / audio.rate,
                 list(measure_channels(audio)))
    give_roles(audio, m.channels)
    measure_copies(audio, m)
    measure_bands(audio, m)
    m.echoes = [e for e in (measure_echo(audio, m, y) for y in m.of("microphone")[:2]) if e]
    stepping = m.echoes and len(m.echoes[0].sections) > 2 and not m.side_tone
    if not m.echoes or stepping:
        measure_no_echo(audio, m)
        if m.ratio != 1 or m.tonal:
            m.echoes = []
    m.run = run_library(audio, m)
    m.advised = advise(audio, m)
    return m
