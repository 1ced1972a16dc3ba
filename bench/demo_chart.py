#!/usr/bin/python3
"""Charts what cancel_wav did: waveforms, levels, echo removed and applied delay over time.

Given the near-end talker alone and the record of a scene (bench/scenes.py) it also
prints how the applied delay and the cleaned microphone compare with the truth. Exit
status 3: little was removed wherever a reference is active.
"""
import argparse
import json
import sys

import matplotlib
matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from scipy.io import wavfile

FRAME_S = 0.016
SMOOTHING_FRAMES = 8            # 128 ms, about a syllable
REMOVED_FRAMES = 64             # 1 s: what is removed from a syllable says more of the syllable
LOWEST_DB = -80                 # quieter levels are not drawn
ACTIVE_POWER = 1e-5             # -50 dBFS: the near end talks, the reference plays
LITTLE_DB = 6                   # a second that loses so much of its echo is heard to


def read(path):
    """Rate in Hz and samples (channels x n), full scale 1."""
    rate, samples = wavfile.read(path)
    return rate, samples.reshape(len(samples), -1).T / 32768.0


def frame_powers(x, rate):
    """Mean power of each whole 16 ms frame of x (n) -> (frames)."""
    frame = round(FRAME_S * rate)
    return (x[:len(x) // frame * frame].reshape(-1, frame) ** 2).mean(axis=1)


def smoothed(powers, frames):
    """Running mean of powers (frames) over so many, or over all."""
    frames = min(frames, len(powers))
    return np.convolve(powers, np.ones(frames) / frames, "same")


def levels_db(x, rate):
    """Smoothed level of each frame of x (n) in dBFS -> (frames), not below -90."""
    return 10 * np.log10(smoothed(frame_powers(x, rate), SMOOTHING_FRAMES) + 1e-9)


def removed_db(mic, cleaned, refs, rate):
    """dB by which a second of the microphone became quieter around each frame (frames), not a
    number where the references (channels x n) are silent for most of it."""
    active = np.max([frame_powers(x, rate) for x in refs], axis=0) > ACTIVE_POWER
    before, after = (smoothed(frame_powers(x, rate) * active, REMOVED_FRAMES) for x in (mic, cleaned))
    removed = 10 * np.log10((before + 1e-12) / (after + 1e-12))
    removed[smoothed(active, REMOVED_FRAMES) < 0.5] = np.nan
    return removed


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
    quieter_db = 10 * np.log10((mic[alone] @ mic[alone]) / (cleaned[alone] @ cleaned[alone]))
    print(f"Echo: {quieter_db:.1f} dB removed while the far end talks alone")


def print_near_end(mic, cleaned, near, rate):
    """Says how much of the near end is left and how far it rises above the rest."""
    talks = np.repeat(frame_powers(near, rate) > ACTIVE_POWER, round(FRAME_S * rate))
    mic, cleaned, near = (x[:len(talks)][talks] for x in (mic, cleaned, near))
    kept_db = 20 * np.log10(abs(cleaned @ near) / (near @ near))
    print(f"Near end: kept at {kept_db:+.1f} dB; above echo and noise by "
          f"{si_sdr_db(mic, near):.1f} dB before, {si_sdr_db(cleaned, near):.1f} dB after (SI-SDR)")


def draw_signals(wave, level, signals, near, rate):
    """Waveforms and levels of signals [(name, n, colour)], the louder ones first."""
    for name, x, colour in signals:
        wave.plot(np.arange(len(x)) / rate, x, color=colour, linewidth=0.5, label=name)
    for name, x, style in [*((name, x, dict(color=colour)) for name, x, colour in signals),
                           ("near end alone", near, dict(color="tab:green", linestyle=":"))]:
        if x is not None:
            line = levels_db(x, rate)
            line[line < LOWEST_DB] = np.nan
            level.plot(FRAME_S * np.arange(len(line)), line, linewidth=1, label=name, **style)
    wave.set(title="Waveforms", ylabel="amplitude\n(full scale 1)")
    level.set(title="Levels", ylabel="level (dBFS)")


def draw_removed(axis, curves):
    """Removed over time, curves [(name, frames, colour)]."""
    for name, removed, colour in curves:
        axis.plot(FRAME_S * np.arange(len(removed)), removed, color=colour, linewidth=1, label=name)
    axis.axhline(0, color="0.5", linewidth=0.8)
    axis.set(title="Removed from the microphone over a second while a reference plays "
                   "(a near-end talker stays in)", ylabel="removed (dB)")
    if all(np.isnan(removed).all() for _, removed, _ in curves):
        axis.set(ylim=(-1, 1))
        axis.annotate("no reference plays", (0.5, 0.6), xycoords="axes fraction", ha="center")


def draw_delay(axis, times, delays, knots, rate):
    """The applied delay over time, and the true one where that is known."""
    if knots:
        axis.plot(times, 1e3 * true_delays(knots, times) / rate, color="tab:green", linestyle=":", label="true")
    axis.step(times, 1e3 * delays / rate, where="post", color="tab:blue", label="applied")
    found = f"{delays[-1]:.0f} samples, {1e3 * delays[-1] / rate:.1f} ms"
    moved = np.any(delays != delays[0])
    axis.set(title=f"Delay found: {found} at the end" if moved else f"Delay: {found}, where the search starts",
             ylabel="delay (ms)", xlabel="time (s)")
    top = 1e3 * max(delays.max(), *(delay for _, delay in knots or [(0, 0)])) / rate
    axis.set_ylim(-5, max(10, 1.15 * top))


def main():
    parser = argparse.ArgumentParser(description="Chart what cancel_wav did.")
    parser.add_argument("input", help="what went in, microphones before references (cancel_wav --input)")
    parser.add_argument("cleaned", help="cleaned microphones (WAV)")
    parser.add_argument("delays", help="applied delay per frame (CSV of cancel_wav --delays)")
    parser.add_argument("chart", help="the chart to write (PNG, SVG or PDF)")
    parser.add_argument("--title", default="Echo cancellation")
    parser.add_argument("--suppressed", help="the same behind the suppressor (cancel_wav --suppress)")
    parser.add_argument("--near", help="the near-end talker alone (WAV)")
    parser.add_argument("--truth", help="the scene's record (JSON)")
    options = parser.parse_args()

    rate, all_cleaned = read(options.cleaned)
    channels = read(options.input)[1]
    mic, refs, cleaned = channels[0], channels[len(all_cleaned):], all_cleaned[0]
    if len(mic) < round(FRAME_S * rate):
        sys.exit(f"demo_chart.py: {options.input}: is shorter than a frame, there is nothing to chart")
    near = read(options.near)[1][0][:len(cleaned)] if options.near else None
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
    signals = [("microphone", mic, "0.7"), ("cleaned", cleaned, "tab:blue")]
    if options.suppressed:
        suppressed = read(options.suppressed)[1][0]
        signals.append(("suppressed", suppressed, "tab:orange"))
        if options.truth:
            print("Behind the suppressor")
            print_echo(mic, suppressed, scene["far_only"], rate)
            print_near_end(mic, suppressed, near, rate)

    curves = [(name, removed_db(mic, x, refs, rate), colour) for name, x, colour in signals[1:]]
    figure, (wave, level, over_time, delay) = plt.subplots(
        4, 1, sharex=True, figsize=(11, 10), height_ratios=(2, 2, 1.3, 1.3), layout="constrained")
    figure.suptitle(options.title)
    draw_signals(wave, level, signals, near, rate)
    draw_removed(over_time, curves)
    draw_delay(delay, times, delays, knots, rate)
    for panel in (wave, level, over_time, delay):
        panel.grid(alpha=0.3)
        panel.title.set(fontsize="medium", ha="left", x=0)
        if panel.get_legend_handles_labels()[0]:            # beside the title, clear of the curves
            panel.legend(loc="lower right", bbox_to_anchor=(1, 0.98), ncols=4, fontsize="small", frameon=False)
    delay.set_xlim(0, len(mic) / rate)
    figure.savefig(options.chart, dpi=110)
    return 3 if not np.nanmax(curves[0][1], initial=0) >= LITTLE_DB else 0


if __name__ == "__main__":
    sys.exit(main())
