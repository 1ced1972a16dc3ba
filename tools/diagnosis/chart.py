"""What was measured as a chart: delay, spectra, coherence. A channel has one colour
throughout."""
import os

import matplotlib
import numpy as np

from . import channel, library, linear

LIMIT_COLOUR = "#b03030"


def _draw_delay(axis, m, colours):
    reach_ms = 1e3 * library.reach(m.rate) / m.rate
    for i, echo in enumerate(m.echoes):
        axis.plot(echo.times, 1e3 * echo.delays, ".", color=colours[echo.mic % 10], ms=7 - 4 * i,
                  label=f"channel {echo.mic}")
    shown = [1e3 * d for echo in m.echoes for d in echo.delays]
    if m.run:
        applied = 1e3 * m.run.delays / m.rate
        axis.step(channel.frame_size(m.rate) / m.rate * np.arange(len(applied)), applied, where="post", color="0.45",
                  lw=1, label="applied by the library")
        shown += [applied.min(), applied.max()]
    low, high = min(shown, default=0), max(shown, default=0)
    span = max(high - low, 10)
    axis.set(ylabel="delay, ms", xlabel="time, s", xlim=(0, m.seconds), ylim=(low - span / 2, high + span / 2))
    axis.ticklabel_format(useOffset=False)
    for bound in (0, reach_ms):
        if axis.get_ylim()[0] < bound < axis.get_ylim()[1]:
            axis.axhline(bound, color=LIMIT_COLOUR, lw=1, ls="--")
    axis.annotate(f"the delay lines reach from 0 to {reach_ms:.0f} ms", (0.99, 0.03), xycoords="axes fraction",
                  ha="right", color=LIMIT_COLOUR, fontsize=8)
    if not m.echoes:
        axis.annotate("no echo found", (0.5, 0.6), xycoords="axes fraction", ha="center")


def _draw_spectra(axis, m, audio, colours):
    full_scale = channel.decibels(np.hanning(1024).sum() ** 2 / 4)         # of a sine, in one line
    for c, x in enumerate(audio.audio):
        level, frequency = channel.spectrum(x, m.rate)
        if level.max() > -119:
            axis.plot(frequency / 1e3, level - full_scale, color=colours[c % 10], lw=1,
                      label=f"{c} {m.channels[c].role}")
    axis.set(ylabel="dBFS a line", xlabel="frequency, kHz", xlim=(0, m.rate / 2e3))


def _draw_coherence(axis, m, audio, colours):
    weight = np.ones(9)
    for echo in m.echoes:
        x = linear.hold_back(audio.mid[echo.ref], echo.parts, echo.drift_ppm, audio.mid_rate)
        share, frequency = linear.coherence(x, audio.mid[echo.mic], audio.mid_rate)
        share = np.convolve(share, weight, "same") / np.convolve(np.ones(len(share)), weight, "same")
        axis.plot(frequency / 1e3, share, color=colours[echo.mic % 10], lw=1,
                  label=f"channel {echo.mic} from {echo.ref}")
    axis.set(ylabel="coherence", xlabel="frequency, kHz", xlim=(0, audio.mid_rate / 2e3), ylim=(0, 1.02))


def draw(m, audio, path):
    """Writes the chart of Measures and the Recording that they are of (SVG or PNG)."""
    matplotlib.use("Agg")
    from matplotlib import pyplot
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "diagnose_wav", "font.size": 9,
                                "axes.spines.top": False, "axes.spines.right": False})
    colours = pyplot.get_cmap("tab10").colors
    figure, (upper, middle, lower) = pyplot.subplots(3, 1, figsize=(7.5, 7.8))
    figure.suptitle(f"Diagnosis of {os.path.basename(m.name)}", x=0.01, ha="left", fontsize=11)
    _draw_delay(upper, m, colours)
    _draw_spectra(middle, m, audio, colours)
    _draw_coherence(lower, m, audio, colours)
    for axis, title in ((upper, "Delay of the echo behind the reference"), (middle, "Spectra while active"),
                        (lower, "Coherence: how much is linear echo")):
        axis.set_title(title, loc="left", fontsize=10)
        axis.grid(color="#e4e4e4", lw=0.6)
        axis.set_axisbelow(True)
        count = len(axis.get_legend_handles_labels()[0])
        if count > 4:
            axis.legend(fontsize=8, ncols=4, loc="upper right")
        elif count:                                  # beside the title, clear of the curves
            axis.legend(frameon=False, fontsize=8, ncols=4, handlelength=1.2, columnspacing=1.2,
                        loc="lower right", bbox_to_anchor=(1.01, 0.97))
    figure.align_ylabels()
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None} if str(path).endswith(".svg") else None)
    pyplot.close(figure)
