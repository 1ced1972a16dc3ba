#!/usr/bin/python3
"""Cancels the echo in a recording with nax_aec, prints what happened and plots it.

    cancel_and_plot.py MIC.wav REF.wav [--chart CHART.png] [--out CLEANED.wav]
    cancel_and_plot.py                 a scene made here from noise

Each step stands alone, to be taken into a notebook. The WAV files are 16-bit, of one
rate that the library serves; all channels of MIC.wav are microphones, all of REF.wav
references.
"""
import argparse
import pathlib
import sys
import time
import wave

import matplotlib
matplotlib.use("Agg")           # a file, no window; leave it out in a notebook
import matplotlib.pyplot as plt
import numpy as np

try:
    from nax_aec import Canceller
except ImportError:             # not installed: the checkout that this file is in
    sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "python"))
    from nax_aec import Canceller

RATES = (8000, 16000, 32000, 48000)     # Hz
FULL_SCALE = 32768.0
SILENT_DB = -60                 # a quieter reference makes no echo worth counting, dBFS


def read_wav(path):
    """Rate in Hz and samples (n x channels) int16; ends the program without them."""
    try:
        with wave.open(path) as file:
            if file.getsampwidth() != 2:
                raise wave.Error(f"has {8 * file.getsampwidth()} bits, not 16")
            if file.getframerate() not in RATES:
                raise wave.Error(f"has {file.getframerate()} Hz, not one of {RATES}")
            samples = np.frombuffer(file.readframes(file.getnframes()), "<i2").astype(np.int16)
            return file.getframerate(), samples.reshape(-1, file.getnchannels())
    except (OSError, EOFError, wave.Error) as error:
        sys.exit(f"cancel_and_plot.py: {path}: {getattr(error, 'strerror', None) or error}")


def write_wav(path, rate, samples):
    """Writes samples (n x channels) int16."""
    with wave.open(path, "wb") as file:
        file.setnchannels(samples.shape[1])
        file.setsampwidth(2)
        file.setframerate(rate)
        file.writeframes(samples.astype("<i2").tobytes())


def make_scene(rate=16000, seconds=10, delay_ms=60):
    """A reference of noise in syllables, and its echo after delay_ms in a small room with
    a little noise of its own: rate in Hz, microphone and reference (n x 1) int16."""
    rng = np.random.default_rng(1)
    n = seconds * rate
    syllables = np.repeat(rng.uniform(0, 1, n // (rate // 5) + 1) ** 2, rate // 5)[:n]
    reference = 0.1 * rng.standard_normal(n) * syllables
    ms = np.arange(20 * rate // 1000) / (rate / 1000)
    room = np.concatenate([np.zeros(rate * delay_ms // 1000),
                           rng.standard_normal(len(ms)) * ms * np.exp(-ms / 2)])
    echo = np.convolve(reference, 0.3 * room / np.sqrt((room ** 2).sum()))[:n]
    microphone = echo + 0.0003 * rng.standard_normal(n)
    return rate, *((FULL_SCALE * x[:, None]).astype(np.int16) for x in (microphone, reference))


def levels_db(samples, frame):
    """Level of each whole frame of samples (n x channels) in dBFS -> (frames)."""
    x = samples[:len(samples) // frame * frame] / FULL_SCALE
    return 10 * np.log10((x ** 2).reshape(-1, frame * x.shape[1]).mean(axis=1) + 1e-9)


parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
parser.add_argument("files", nargs="*", metavar="WAV",
                    help="MIC.wav and REF.wav (default: a scene made of noise)")
parser.add_argument("--chart", default="cancelled.png", help="chart to write (PNG, SVG, PDF)")
parser.add_argument("--out", help="the cleaned microphones (WAV)")
options = parser.parse_args()
if len(options.files) not in (0, 2):
    parser.error("needs MIC.wav and REF.wav, or no file for a scene made here")

# The recording.
if options.files:
    rate, microphone = read_wav(options.files[0])
    reference_rate, reference = read_wav(options.files[1])
    if reference_rate != rate:
        parser.error(f"{options.files[1]} has {reference_rate} Hz, {options.files[0]} {rate} Hz")
    n = min(len(microphone), len(reference))
    microphone, reference = microphone[:n], reference[:n]
else:
    rate, microphone, reference = make_scene()

# Cancel it. The frames go through one after the other, as they would live.
with Canceller(rate, microphone.shape[1], reference.shape[1]) as canceller:
    start = time.perf_counter()
    cleaned, aligned, echo, delays = canceller.process(microphone, reference)
    seconds = time.perf_counter() - start
    frame = canceller.frame_size

# Print what happened.
microphone = microphone[:len(cleaned)]
mic_db, reference_db, cleaned_db = (levels_db(x, frame) for x in (microphone, reference, cleaned))
for i in np.flatnonzero(np.diff(delays, prepend=-1)):
    print(f"from {i * frame / rate:7.3f} s: reference held back by {delays[i]} samples, "
          f"{1e3 * delays[i] / rate:.1f} ms")
delays = delays[:len(mic_db)]          # without a last frame that silence fills up
active = reference_db[:len(mic_db)] > SILENT_DB
active[:len(active) // 2] = False
if active.any():
    power = [np.mean(10 ** (db[active] / 10)) for db in (mic_db, cleaned_db)]
    print(f"echo removed in the second half: {10 * np.log10(power[0] / power[1]):.1f} dB "
          f"({active.sum()} frames with an active reference; a near-end talker counts in both)")
print(f"{len(cleaned) / rate:.1f} s of audio in {seconds:.3f} s")

# Plot it.
times = np.arange(len(mic_db)) * frame / rate
figure, (level, delay) = plt.subplots(2, 1, sharex=True, figsize=(10, 6), height_ratios=(3, 1),
                                      layout="constrained")
level.plot(times, reference_db[:len(times)], color="0.85", label="reference")
level.plot(times, mic_db, color="0.55", label="microphone")
level.plot(times, cleaned_db, color="tab:blue", label="cleaned")
level.set_ylabel("level (dBFS)")
level.legend(loc="lower right", ncols=3)
delay.step(times, 1e3 * delays / rate, where="post")
delay.set_ylabel("delay (ms)")
delay.set_xlabel("time (s)")
figure.savefig(options.chart, dpi=100)
print(f"chart: {options.chart}")
if options.out:
    write_wav(options.out, rate, cleaned)
