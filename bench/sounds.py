"""Real speech and music, and what loudspeakers, rooms, noise and devices make of them.

The recordings are those that Debian packages:

  apt-get install python3-numpy python3-scipy alsa-utils codec2-examples \\
      pocketsphinx-testdata libspandsp2 asterisk-moh-opsound-g722 \\
      asterisk-core-sounds-{en,fr,it,ru}-g722
"""
import ctypes
import functools
import glob
import pathlib
import sys

import numpy as np
from scipy import ndimage, signal
from scipy.io import wavfile

FULL_SCALE = 32768.0
ASTERISK = "/usr/share/asterisk/"
SOURCES = {                     # name: (files, rate in Hz of raw files)
    "allison": (ASTERISK + "sounds/en_US_f_Allison/demo-[ci]*.g722", None),
    "june": (ASTERISK + "sounds/fr_CA_f_June/demo-[ci]*.g722", None),
    "carlo": (ASTERISK + "sounds/it_IT_m_Carlo/demo-[ci]*.g722", None),
    "ivr": (ASTERISK + "sounds/ru_RU_f_IvrvoiceRU/demo-[ci]*.g722", None),
    "reader": ("/usr/share/pocketsphinx/test/data/librivox/*.wav", None),
    "radio": ("/usr/share/codec2/raw/ve9qrp.raw", 8000),
    "names": ("/usr/share/sounds/alsa/[FRS]*_*.wav", None),
    "coffee": (ASTERISK + "moh/manolo_camp-morning_coffee.g722", None),
    "cold": (ASTERISK + "moh/macroform-cold_day.g722", None),
    "simple": (ASTERISK + "moh/macroform-the_simplicity.g722", None),
    "robot": (ASTERISK + "moh/macroform-robot_dity.g722", None),
    "reno": (ASTERISK + "moh/reno_project-system.g722", None),
}


def frame_size(rate):
    """Samples in a 16 ms frame."""
    return rate * 16 // 1000


def decode_g722(path):
    """A G.722 file as int16 at 16 kHz (n)."""
    spandsp = ctypes.CDLL("libspandsp.so.2")
    spandsp.g722_decode_init.restype = ctypes.c_void_p
    data = pathlib.Path(path).read_bytes()[:400000]
    samples = np.zeros(2 * len(data), np.int16)
    decoder = ctypes.c_void_p(spandsp.g722_decode_init(None, 64000, 0))
    n = spandsp.g722_decode(decoder, samples.ctypes.data_as(ctypes.c_void_p), data, len(data))
    spandsp.g722_decode_free(decoder)
    return samples[:n]


@functools.lru_cache(maxsize=None)
def source(name, rate):
    """All recordings of one talker or piece, joined, at rate (n), active level -20 dBFS."""
    pattern, raw_rate = SOURCES[name]
    if not (paths := sorted(glob.glob(pattern))):
        sys.exit(f"sounds.py: no file {pattern}; the packages needed:\n{__doc__.split(chr(10) * 2)[2]}")
    parts = []
    for path in paths:
        if path.endswith(".g722"):
            own_rate, samples = 16000, decode_g722(path)
        elif path.endswith(".raw"):
            own_rate, samples = raw_rate, np.fromfile(path, "<i2")
        else:
            own_rate, samples = wavfile.read(path)
        parts.append(samples.astype(np.float64))
    x = np.concatenate(parts)
    x = signal.resample_poly(x, rate, own_rate)
    x = signal.sosfilt(signal.butter(2, 40, "high", fs=rate, output="sos"), x)
    return x * 0.1 / active_rms(x, rate)


def excerpt(name, rate, samples, rng):
    """A stretch of a source or of a synthetic signal (samples)."""
    time = np.arange(samples) / rate
    if name == "silence":
        return np.zeros(samples)
    if name == "chord":         # A minor, each note with three harmonics
        x = sum(np.sin(2 * np.pi * f * h * time + rng.uniform(0, 6)) / h
                for f in (220, 261.63, 329.63) for h in (1, 2, 3))
    elif name == "chords":      # another chord each second
        roots = rng.choice([196, 220, 246.94, 261.63, 293.66, 329.63], int(time[-1]) + 1)
        root = np.repeat(roots, rate)[:samples]
        x = sum(np.sin(2 * np.pi * np.cumsum(root * ratio) / rate) for ratio in (1, 1.26, 1.498))
    elif name == "sine_steps":  # one pure tone, another frequency each half second
        tones = np.repeat(rng.uniform(250, 3000, 2 * int(time[-1]) + 2), rate // 2)[:samples]
        x = np.sin(2 * np.pi * np.cumsum(tones) / rate)
    else:
        x = source(name, rate)
        start = rng.integers(0, max(1, len(x) - samples))
        return np.resize(np.roll(x, -start), samples)
    return x * 0.1 / np.sqrt(np.mean(x * x))


def frame_powers(x, frame):
    """Mean power of each whole frame of x (n or n x channels, summed) -> (frames)."""
    power = x * x if x.ndim == 1 else (x * x).sum(axis=1)
    return power[:len(power) // frame * frame].reshape(-1, frame).mean(axis=1)


def active_rms(x, rate):
    """Root mean square over the frames within 30 dB of the loudest."""
    powers = frame_powers(x, frame_size(rate))
    return np.sqrt(powers[powers >= powers.max() * 1e-3].mean()) if powers.any() else 1.0


def room_response(rng, rate, rt60, direct_db, hidden_db=0.0, mirrors=()):
    """Room response (n): the direct path at 0, direct_db above all reflections together. Behind a
    case it is hidden_db weaker below 2 kHz; mirrors (ms, gain) are reflections as plain as it."""
    n = int(rt60 * rate)
    time = np.arange(n) / rate
    tail = rng.standard_normal(n) * np.exp(-6.9 * time / rt60) * (time > 0.003)
    tail *= np.minimum(1, time / 0.01)
    tail /= np.sqrt((tail * tail).sum())
    for arrival in rng.uniform(0.0007, 0.015, 6):
        tail[int(arrival * rate)] += rng.choice([-1, 1]) * 0.5 * np.exp(-arrival / 0.012)
    tail *= 10 ** (-direct_db / 20) / np.sqrt((tail * tail).sum())
    tail[0] = 1.0
    if hidden_db:
        tail[0] = 0
        impulse = np.eye(1, n)[0]
        above, below = (signal.sosfilt(signal.butter(2, 2000, kind, fs=rate, output="sos"), impulse)
                        for kind in ("high", "low"))
        tail += above + 10 ** (-hidden_db / 20) * below
    for ms, gain in mirrors:
        tail[int(ms * rate / 1000)] += gain
    return tail


def loudspeaker(x, rate, kind):
    """x (n) as a small loudspeaker plays it: plain, clip (distorts), thin (no bass) or tiny (no
    bass, and distorts much)."""
    if kind in ("clip", "tiny"):
        limit = (1.5 if kind == "clip" else 0.4) * active_rms(x, rate)
        x = limit * np.tanh(x / limit)
    order, corner = {"thin": (4, 500), "tiny": (4, 900)}.get(kind, (2, 150))
    x = signal.sosfilt(signal.butter(order, corner, "high", fs=rate, output="sos"), x)
    return signal.sosfilt(signal.butter(2, min(7000, 0.42 * rate), fs=rate, output="sos"), x)


def gain_curve(steps, samples, rate):
    """Gain (samples) from steps [(s, dB)]."""
    curve = np.ones(samples)
    for time, level_db in steps:
        curve[int(time * rate):] = 10 ** (level_db / 20)
    return curve


def noise_like(kind, samples, rate, rng):
    """Noise (samples) of power 1: white, pink (falling 3 dB an octave) or rumble (6 dB)."""
    spectrum = np.fft.rfft(rng.standard_normal(samples))
    frequency = np.maximum(np.fft.rfftfreq(samples, 1 / rate), 20)
    spectrum *= frequency ** {"white": 0, "pink": -0.5, "rumble": -1.0}[kind]
    x = np.fft.irfft(spectrum, samples)
    return x / np.sqrt(np.mean(x * x))


def suppressed(x, rate):
    """x (n) behind a noise suppressor: short-time bins near their own floor go down by 20 dB."""
    frame = frame_size(rate)
    _, _, bins = signal.stft(x, rate, nperseg=2 * frame)
    power = ndimage.uniform_filter1d(np.abs(bins) ** 2, 4, axis=1)
    floor = 4 * np.percentile(power, 20, axis=1, keepdims=True)
    gain = np.clip(1 - floor / (power + 1e-20), 0.1, 1)
    return signal.istft(bins * gain, rate, nperseg=2 * frame)[1][:len(x)]


def levelled(x, rate):
    """x (n) behind a level control: -20 dBFS, at most 20 dB up, faster down than up."""
    frame = frame_size(rate)
    gain, gains = 1.0, []
    for rms in np.sqrt(frame_powers(x, frame)):
        wanted = min(0.1 / (rms + 1e-9), 10) if rms > 1e-3 else gain
        gain += (0.3 if wanted < gain else 0.02) * (wanted - gain)
        gains.append(gain)
    return x * np.interp(np.arange(len(x)), (np.arange(len(gains)) + 1) * frame, gains)
