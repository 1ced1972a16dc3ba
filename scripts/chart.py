#!/usr/bin/python3
"""Charts what cancel_wav did: waveforms, levels and the applied delay over time.

Given the near-end talker alone and the record of a scene (bench/scenes.py) it also
prints how the applied delay and the cleaned microphone compare with the truth.
"""
import argparse
import json

import matplotlib
matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from scipy.io import wavfile

FRAME_S = 0.016
SMOOTHING_FRAMES = 8            # 128 ms, about a syllable
LOWEST_DB = -80                 # quieter levels are not drawn
ACTIVE_POWER = 1e-5             # -50 dBFS: the near end talks


def read(path):
    """Rate in Hz and the first channel (n), full scale 1."""
    rate, samples = wavfile.read(path)
    return rate, samples.reshape(len(samples), -1)[:, 0] / 32768.0


def frame_powers(x, rate):
    """Mean power of each whole 16 ms frame of x (n) -> (frames)."""
    frame = round(FRAME_S * rate)
    return (x[:len(x) // frame * frame].reshape(-1, frame) ** 2).mean(axis=1)


def levels_db(x, rate):
    """Smoothed level of each frame of x (n) in dBFS -> (frames), not below -90."""
    window = np.ones(SMOOTHING_FRAMES) / SMOOTHING_FRAMES
    return 10 * np.log10(np.convolve(frame_powers(x, rate), window, "same") + 1e-9)


def true_delays(knots, times):
    """The true delay in samples at times in s, from knots [(s, samples)]."""
    return np.interp(times, *zip(*knots))


def si_sdr_db(x, truth):
    """Scale-invariant ratio of truth to everything else in x (both n), in dB."""
    part = truth * (x @ truth) / (truth @ truth)
    return 10 * np.log10((part @ part) / ((x - part) @ (x - part)))


def print_delay(times, delays, knots, rate):
    """Says when the applied delay became right: at most one frame below the true one."""
    truth = true_delays(knots, times)
    right = (delays <= truth) & (delays > truth - FRAME_S * rate)
    found = f"right from {times[np.argmax(right)]:.2f} s on" if right.any() else "never right"
    if right.any() and not right[np.argmax(right):].all():
        found = f"right in {100 * right.mean():.0f} % of the frames, the first at " \
                f"{times[np.argmax(right)]:.2f} s"
    print(f"Delay: {found} (true {truth[-1]:.0f} samples, {1e3 * truth[-1] / rate:.1f} ms; "
          f"applied at the end {delays[-1]:.0f})")


def print_echo(mic, cleaned, spans, rate):
    """Says how much quieter the echo became in spans [(s, s)] without a near end."""
    time = np.arange(len(mic)) / rate
    alone = np.any([(time >= start) & (time < end) for start, end in spans], axis=0)
    removed_db = 10 * np.log10((mic[alone] @ mic[alone]) / (cleaned[alone] @ cleaned[alone]))
    print(f"Echo: {removed_db:.1f} dB removed while the far end talks alone")


def print_near_end(mic, cleaned, near, rate):
    """Says how much of the near end is left and how far it rises above the rest."""
    talks = np.repeat(frame_powers(near, rate) > ACTIVE_POWER, round(FRAME_S * rate))
    mic, cleaned, near = (x[:len(talks)][talks] for x in (mic, cleaned, near))
    kept_db = 20 * np.log10(abs(cleaned @ near) / (near @ near))
    print(f"Near end: kept at {kept_db:+.1f} dB; above echo and noise by "
          f"{si_sdr_db(mic, near):.1f} dB before, {si_sdr_db(cleaned, near):.1f} dB after (SI-SDR)")


def draw(path, rate, mic, cleaned, near, times, delays, knots):
    """Writes the chart: three panels over one time axis."""
    figure, (wave, level, delay) = plt.subplots(
        3, 1, sharex=True, figsize=(11, 8), height_ratios=(2, 2, 1), layout="constrained")
    seconds = np.arange(len(mic)) / rate
    wave.plot(seconds, mic, color="0.7", linewidth=0.5, label="microphone")
    wave.plot(seconds, cleaned, color="tab:blue", linewidth=0.5, label="cleaned")
    wave.set_ylabel("amplitude (full scale 1)")

    for x, style in ((mic, dict(color="0.6", label="microphone")),
                     (cleaned, dict(color="tab:blue", label="cleaned")),
                     (near, dict(color="tab:green", linestyle=":", label="near end alone"))):
        if x is not None:
            line = levels_db(x, rate)
            line[line < LOWEST_DB] = np.nan
            level.plot(FRAME_S * np.arange(len(line)), line, linewidth=1, **style)
    level.set_ylabel("level (dBFS)")

    if knots:
        delay.plot(times, 1e3 * true_delays(knots, times) / rate, color="tab:green",
                   linestyle=":", label="true")
    delay.step(times, 1e3 * delays / rate, where="post", color="tab:blue", label="applied")
    delay.set_ylabel("delay (ms)")
    delay.set_xlabel("time (s)")
    delay.set_ylim(bottom=-5)
    delay.set_xlim(0, seconds[-1])
    for panel in (wave, level, delay):
        panel.grid(alpha=0.3)
        panel.legend(loc="lower left", fontsize="small", ncols=3)
    figure.savefig(path, dpi=110)


def main():
    parser = argparse.ArgumentParser(description="Chart what cancel_wav did.")
    parser.add_argument("mic", help="microphone (WAV)")
    parser.add_argument("cleaned", help="cleaned microphone (WAV)")
    parser.add_argument("delays", help="applied delay per frame (CSV of cancel_wav --delays)")
    parser.add_argument("chart", help="the chart to write (PNG, SVG or PDF)")
    parser.add_argument("--near", help="the near-end talker alone (WAV)")
    parser.add_argument("--truth", help="the scene's record (JSON)")
    options = parser.parse_args()

    rate, cleaned = read(options.cleaned)
    mic = read(options.mic)[1][:len(cleaned)]
    near = read(options.near)[1][:len(cleaned)] if options.near else None
    times, delays = np.loadtxt(options.delays, delimiter=",", skiprows=1, ndmin=2).T
    knots = None
    if options.truth:
        with open(options.truth, encoding="utf-8") as file:
            scene = json.load(file)[0]
        knots = scene["knots"]
        print_delay(times, delays, knots, rate)
        print_echo(mic, cleaned, scene["far_only"], rate)
    if near is not None:
        print_near_end(mic, cleaned, near, rate)
    draw(options.chart, rate, mic, cleaned, near, times, delays, knots)


if __name__ == "__main__":
    main()
