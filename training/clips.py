"""Simulated calls, and what the suppressor makes of them: features and truth.

A clip holds a far end played by a loudspeaker in a room, a near-end talker and noise. All
levels, rooms, delays and kinds are drawn from the clip's number alone, so that clips are the
same however the work is divided.
"""
import subprocess

import numpy as np
from scipy import signal

import voices

SECONDS = 20
RATES, RATE_SHARES = (16000, 8000, 48000, 32000), (0.77, 0.13, 0.07, 0.03)
BANDS, FEATURES = 20, 10
RECORD = np.dtype([("inputs", "i1", BANDS * FEATURES), ("near", "<f4", BANDS), ("rest", "<f4", BANDS)])
FULL_SCALE = 32768.0


def decibels(db):
    return 10 ** (db / 20)


def speech(rng, voice, rate, samples, single_words=0.0):
    """A talker (samples) of active level 1: bursts of words with pauses between them, or, with
    the probability single_words, single words with pauses."""
    if rng.random() < 0.06:                     # whispered, or no voice at all
        return syllables(rng, rate, samples)
    files, x = voices.words(voice), np.zeros(samples, np.float32)
    pitch = rng.uniform(0.88, 1.14)
    longest = 0 if rng.random() < single_words else 5       # burst, seconds
    at = int(rng.uniform(0, 2) * rate)
    burst = at + int(rng.uniform(min(1, longest), longest) * rate)
    while at < samples:
        word = voices.word(files[rng.integers(len(files))], rate)
        if len(word):
            word = np.interp(np.arange(0, len(word) - 1, pitch), np.arange(len(word)), word)[:samples - at]
            word *= decibels(rng.uniform(-4, 2))
        x[at:at + len(word)] += word
        at += len(word) + int(rng.uniform(0.02, 0.25) * rate)
        if at > burst:
            at += int(rng.exponential(1.2) * rate)
            burst = at + int(rng.uniform(min(1, longest), longest) * rate)
    return x / voices.active_rms(x, rate)


def syllables(rng, rate, samples):
    """Low-passed noise or a sawtooth in syllables of random length and loudness (samples), active
    level 1."""
    if rng.random() < 0.6:
        x = rng.standard_normal(samples)
    else:
        pitch = rng.uniform(80, 400) * (1 + 0.1 * np.sin(2 * np.pi * rng.uniform(0.1, 1) / rate * np.arange(samples)))
        x = 2 * (np.cumsum(pitch / rate) % 1) - 1
    x = filtered(x, rate, "low", 1, rng.uniform(500, 3000))
    at = 0
    while at < samples:
        length = int(rng.uniform(0.1, 0.4) * rate)
        loudness = 0 if rng.random() < 0.25 else rng.uniform(0.2, 1)
        shape = loudness * np.sin(np.pi * np.arange(length) / length)
        x[at:at + length] *= shape[:samples - at]
        at += length
    return x / voices.active_rms(x, rate)


def music(rng, path, rate, samples):
    """A stretch of a piece (samples), active level 1."""
    x = voices.piece(path, rate)
    start = rng.integers(max(1, len(x) - samples))
    x = np.resize(x[start:start + samples], samples)
    return x / voices.active_rms(x, rate)


def room(rng, rate, loudest_tail_db):
    """A room response (n): a direct sound, early reflections and an exponential tail."""
    seconds = rng.uniform(0.08, 0.5) if rng.random() < 0.8 else rng.uniform(0.4, 1.0)
    time = np.arange(int(seconds * rate)) / rate
    tail = rng.standard_normal(len(time)) * np.exp(-6.9 * time / seconds) * np.minimum(1, time / 0.004)
    tail *= decibels(rng.uniform(-14, loudest_tail_db)) / np.sqrt((tail ** 2).sum())
    for arrival in rng.uniform(0.0005, 0.012, 5):
        tail[int(arrival * rate)] += rng.choice((-1, 1)) * 0.4 * np.exp(-arrival / 0.01)
    tail[0] = 1
    return tail


def filtered(x, rate, kind, order, corner):
    return signal.sosfilt(signal.butter(order, min(corner, 0.45 * rate), kind, fs=rate, output="sos"), x)


def loudspeaker(rng, x, rate):
    """x (n) of active level 1 as a small loudspeaker plays it."""
    kind = rng.choice(("plain", "tanh", "clip", "square", "uneven"), p=(0.4, 0.2, 0.15, 0.15, 0.1))
    limit = rng.uniform(0.7, 3)
    if kind == "tanh":
        x = limit * np.tanh(x / limit)
    elif kind == "clip":
        x = np.clip(x, -limit, limit)
    elif kind == "square":
        x = x + rng.uniform(0.02, 0.25) * (x * x - np.mean(x * x))
    elif kind == "uneven":
        x = np.where(x > 0, x, np.tanh(x / limit) * limit)
    x = filtered(x, rate, "high", int(rng.choice((1, 2, 4))), rng.uniform(80, 700))
    for _ in range(rng.integers(4)):            # resonances of the case
        corner = 100 * (min(8000, 0.4 * rate) / 100) ** rng.random()
        peak = signal.iirpeak(corner, rng.uniform(1, 4), rate)
        x = x + (decibels(rng.uniform(-10, 10)) - 1) * signal.lfilter(*peak, x)
    return filtered(x, rate, "low", 2, rng.uniform(3000, 20000)) if rng.random() < 0.6 else x


def steady(rng, rate, samples):
    """A sound without pauses (samples), active level 1: noise whose loudness swings, as of water, a
    crowd or a fan."""
    x = noise(rng, rate, samples)
    if rng.random() < 0.5:
        x = filtered(x, rate, "low", 1, rng.uniform(300, 4000))
    depth, swing = rng.uniform(0, 1), rng.uniform(0.05, 12)
    x *= 1 + depth * np.sin(2 * np.pi * swing / rate * np.arange(samples) + rng.uniform(0, 6))
    return x / voices.active_rms(x, rate)


def noise(rng, rate, samples):
    """Noise (samples) of rms 1: white to rumble, perhaps with hum."""
    spectrum = np.fft.rfft(rng.standard_normal(samples))
    spectrum *= np.maximum(np.fft.rfftfreq(samples, 1 / rate), 30) ** -rng.uniform(0, 1)
    x = np.fft.irfft(spectrum, samples)
    if rng.random() < 0.2:
        x += x.std() * rng.uniform(0, 1) * np.sin(2 * np.pi * rng.choice((50, 100, 120)) / rate * np.arange(samples))
    return x / x.std()


def echo_of(rng, far, rate):
    """The far end (n) as the microphone hears it: late, in a room whose path may change."""
    samples = len(far)
    played = loudspeaker(rng, far, rate)
    if rng.random() < 0.12:                     # the two clocks differ
        drift = rng.uniform(-150e-6, 150e-6)
        played = np.interp(np.arange(samples) * (1 + drift), np.arange(samples), played)
    paths = [signal.oaconvolve(played, room(rng, rate, -2))[:samples]]
    if rng.random() < 0.25:
        paths.append(decibels(rng.uniform(-6, 6)) * signal.oaconvolve(played, room(rng, rate, -2))[:samples])
        begin, length = rng.uniform(0.2, 0.9) * samples, rng.choice((0.01, 0.5, 3)) * rate
        mix = np.clip((np.arange(samples) - begin) / length, 0, 1)
        paths = [(1 - mix) * paths[0] + mix * paths[1]]
    delay = int(rng.uniform(0, 0.4) * rate)
    x = np.concatenate((np.zeros(delay), paths[0]))[:samples]
    if rng.random() < 0.06:                     # the delay jumps
        at, jump = rng.integers(samples), int(rng.uniform(-0.1, 0.1) * rate)
        x[at:] = np.roll(x, jump)[at:]
    if rng.random() < 0.15:                     # the volume changes
        x[rng.integers(samples):] *= decibels(rng.uniform(-12, 12))
    return x / max(voices.active_rms(x, rate), 1e-9)


def mixture(number, validation):
    """Rate in Hz, and samples (n x 3, int16): microphone, reference, near end in the microphone."""
    rng = np.random.default_rng((number, int(validation)))
    rate = int(rng.choice(RATES, p=RATE_SHARES))
    samples = SECONDS * rate
    known = voices.HELD_OUT_VOICES if validation else [v for v in voices.VOICES if v not in voices.HELD_OUT_VOICES]
    pieces = voices.HELD_OUT_MUSIC if validation else [m for m in voices.MUSIC if m not in voices.HELD_OUT_MUSIC]
    far_voice, near_voice = rng.choice(known, 2, replace=False)
    kind = rng.choice(("speech", "music", "steady", "silence"), p=(0.62, 0.27, 0.07, 0.04))
    if kind == "silence":
        far = np.zeros(samples)
    else:
        if kind == "speech":
            far = speech(rng, far_voice, rate, samples)
        elif kind == "music":
            far = music(rng, rng.choice(pieces), rate, samples)
        else:
            far = steady(rng, rate, samples)
        if rng.random() < 0.1:                  # a telephone, a player without treble
            far = filtered(far, rate, "low", 6, rng.uniform(2500, 5000))
        if rng.random() < 0.5:
            far = far + decibels(rng.uniform(-60, -30)) * noise(rng, rate, samples)
    far_level = decibels(rng.uniform(-48, -14))
    heard = kind != "silence" and rng.random() > 0.08       # or headphones are worn
    echo_level = decibels(rng.uniform(-48, -14))
    echo = echo_level * echo_of(rng, far, rate) if heard else np.zeros(samples)
    near = np.zeros(samples)
    if rng.random() < 0.87:
        near = signal.oaconvolve(speech(rng, near_voice, rate, samples, 0.35), room(rng, rate, -4))[:samples]
        near *= echo_level * decibels(rng.uniform(-14, 14)) / voices.active_rms(near, rate)
        if rng.random() < 0.3:                  # he begins late or stops early
            at = rng.integers(samples)
            near[slice(at) if rng.random() < 0.6 else slice(at, None)] = 0
    room_noise = echo_level * decibels(rng.uniform(-55, -12)) * noise(rng, rate, samples)
    if rng.random() < 0.1:                      # a level control in the microphone
        knots = np.arange(0, samples + rate, rate)
        control = np.interp(np.arange(samples), knots, decibels(rng.uniform(-6, 6, len(knots))))
        echo, near, room_noise = echo * control, near * control, room_noise * control
    mic = echo + near + room_noise
    loudest = np.abs(mic).max() * (rng.uniform(0.3, 0.9) if rng.random() < 0.04 else 1)
    scale = min(1.0, 0.95 / loudest) if loudest > 0 else 1.0       # a few clip
    channels = np.stack((mic * scale, np.clip(far * far_level, -1, 1), near * scale), axis=1)
    return rate, np.clip(np.round(channels * FULL_SCALE), -32768, 32767).astype(np.int16)


def traced(trace, number, validation):
    """The clip's frames by the program trace (frames of RECORD)."""
    rate, samples = mixture(number, validation)
    result = subprocess.run([trace, str(rate)], input=samples.tobytes(), stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL, check=True)
    return np.frombuffer(result.stdout, RECORD)
