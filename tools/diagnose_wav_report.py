"""What diagnose_wav found: the page, the parameters as C and the chart."""
import textwrap

import numpy as np

import diagnose_wav_measures as measure


def filled(text, first, indent=10):
    """A paragraph of 92 columns behind a title."""
    return textwrap.fill(text, 92, initial_indent=first.ljust(indent), subsequent_indent=" " * indent,
                         break_on_hyphens=False)


def channel_lines(recording):
    """A line a channel: role and figures."""
    for c, (x, samples) in enumerate(zip(recording.audio, recording.samples)):
        level = measure.decibels(measure.active_power(x, recording.rate))
        floor = measure.decibels(np.percentile(measure.frame_powers(x, recording.rate), 5))
        peak = 20 * np.log10(max(1, np.abs(samples.astype(int)).max()) / 32768)
        if level < -119:
            yield f"  {c}  {recording.roles[c]:<11} no sound above -60 dBFS, peak {peak:.1f} dBFS"
            continue
        yield (f"  {c}  {recording.roles[c]:<11} active level {level:6.1f} dBFS  peak {peak:6.1f}  quietest "
               f"{floor:7.1f}  clipped {100 * measure.clipped_share(samples):.2f} %  "
               f"band to {measure.band_edge(x, recording.rate) / 1000:.1f} kHz")


def echo_lines(recording, echo):
    """The delay and what is linear, of one microphone."""
    rate = recording.rate
    yield f"Echo in channel {echo.mic}, of the reference in channel {echo.ref}"
    for times, delays in echo.sections:
        low, high = np.percentile(delays, (10, 90))
        yield (f"  from {times[0]:6.1f} s: {np.median(delays):8.1f} samples, {1e3 * np.median(delays) / rate:7.1f} ms"
               f" late (mostly {low:.0f} to {high:.0f})")
    yield f"  drift {echo.drift_ppm:+.1f} ppm; the delay lines reach from 0 to {measure.reach(rate)} samples"
    for part, text in ((echo.short, " 32 ms, the library's,"), (echo.long, "128 ms")):
        if part:
            yield (f"  a linear filter of {text:<22} could remove {part[0]:5.1f} dB, {part[1]:5.1f} dB over the "
                   f"best {measure.BLOCK_S} s")
    yield "  (of all that the microphone holds while a reference is active, near end included)"


def layout(recording):
    """How nax_aec_byte can take the channels as they are: pos, M, D, table; None if it
    cannot. The references that it keeps are neighbours behind or before the microphones;
    the microphones may be anywhere."""
    channels, mics = len(recording.roles), recording.of("microphone")[:2]
    refs = [c for c in recording.of("reference") if measure.active_power(recording.audio[c], recording.rate) > 0]
    refs = refs or recording.of("reference")
    for count in range(len(mics), 0, -1):
        for pos in (1, 0):
            first_ref, first_mic = (count, 0) if pos == 1 else (0, channels - count)
            kept = len(refs)
            if refs == list(range(first_ref, first_ref + kept)) and kept <= channels - count:
                table = mics[:count]
                usual = list(range(first_mic, first_mic + count))
                return pos, count, channels - count - kept, None if table == usual else table
    return None


def parameters(recording, echoes):
    """The parameter block as C, or why there is none."""
    mics, refs = recording.of("microphone")[:2], recording.of("reference")
    if not mics or not refs:
        return "No parameters: they need a microphone and a reference."
    found, note = layout(recording), ""
    if found is None:
        found = (1, len(mics), 0, None)
        note = (f"/* The application has to reorder: channels {', '.join(map(str, mics + refs))}, microphones "
                "first. */\n")
    pos, count, drop, table = found
    frame = measure.frame_size(recording.rate)
    all_refs = len(refs) if note else len(recording.roles) - count
    base, late = 0, "no echo found"
    if echoes:
        delays = np.concatenate([e.delays for e in echoes])
        low, high = np.percentile(delays, (5, 95))
        exact = int(np.clip(low - recording.rate // 1000, 0, measure.reach(recording.rate)))
        past = exact % frame    # as the library chooses between a whole frame and the exact delay
        base = exact - past if past < frame / 2 else exact
        late = f"the echo is {low:.0f} to {high:.0f} samples late"
    flags = "NAX_AEC_DELAY_ESTIMATION" + (" | NAX_AEC_REMAP" if table else "")
    lines = [f"static const int16_t microphones[] = {{{', '.join(map(str, table))}}};"] if table else []
    lines += ["const nax_aec_param param = {",
              f"    .pos = {pos}, /* {'microphones' if pos else 'references'} first */",
              f"    .drop_channel = {drop},",
              f"    .model_aec_en = {flags},",
              f"    .delay_len = {base}, /* {late} */",
              "    .look_ahead = 0,",
              f"    .array_list = {'microphones' if table else 'NULL'},",
              "};",
              f"nax_aec_state *state = nax_aec_state_init({recording.rate}, 16, {count}, {all_refs}, &param);"]
    return note + "\n".join(lines)


def page(recording, findings, echoes):
    """All of it as text."""
    seconds = len(recording.samples[0]) / recording.rate
    lines = [f"{recording.name}: {len(recording.samples)} channels, {recording.rate} Hz, {seconds:.1f} s", "",
             "Channels", *channel_lines(recording), ""]
    for echo in echoes:
        lines += [*echo_lines(recording, echo), ""]
    if not findings:
        lines += ["Nothing wrong found.", ""]
    for finding in findings:
        lines += [filled(f"{finding.text} [{finding.code}]", "Found:"), filled(finding.cure, "  Cure:"), ""]
    return "\n".join(lines + ["Recommended parameters", textwrap.indent(parameters(recording, echoes), "    ")])


def smoothed(share, bins=9):
    """A running mean (n) that keeps the ends."""
    weight = np.ones(bins)
    return np.convolve(share, weight, "same") / np.convolve(np.ones(len(share)), weight, "same")


def draw(recording, echoes, path):
    """The chart: delay over time, spectra, coherence. A channel has one colour throughout."""
    import matplotlib
    matplotlib.use("Agg")
    from matplotlib import pyplot
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "diagnose_wav", "font.size": 9,
                                "axes.spines.top": False, "axes.spines.right": False})
    colours = pyplot.get_cmap("tab10").colors
    rate = recording.rate
    figure, (upper, middle, lower) = pyplot.subplots(3, 1, figsize=(7.5, 7.5))

    reach_ms = 1e3 * measure.reach(rate) / rate
    for i, echo in enumerate(echoes):
        upper.plot(echo.times, 1e3 * echo.delays / rate, ".", color=colours[echo.mic % 10], ms=7 - 4 * i,
                   label=f"channel {echo.mic}")
    top = max([1e3 * e.delays.max() / rate for e in echoes], default=0)
    bottom = min([1e3 * e.delays.min() / rate for e in echoes], default=0)
    span = max(top - bottom, 10)
    upper.set(ylabel="delay, ms", xlabel="time, s", xlim=(0, len(recording.samples[0]) / rate),
              ylim=(bottom - span / 2, top + span / 2))
    upper.ticklabel_format(useOffset=False)
    for bound in (0, reach_ms):
        if upper.get_ylim()[0] < bound < upper.get_ylim()[1]:
            upper.axhline(bound, color="#b03030", lw=1, ls="--")
    upper.annotate(f"the delay lines reach from 0 to {reach_ms:.0f} ms", (0.99, 0.03), xycoords="axes fraction",
                   ha="right", color="#b03030", fontsize=8)
    if not echoes:
        upper.annotate("no echo found", (0.5, 0.6), xycoords="axes fraction", ha="center")

    full_scale = measure.decibels(np.hanning(1024).sum() ** 2 / 4)         # of a sine, in one line
    for c, x in enumerate(recording.audio):
        level, frequency = measure.spectrum(x, rate)
        if level.max() > -119:
            middle.plot(frequency / 1e3, level - full_scale, color=colours[c % 10], lw=1,
                        label=f"{c} {recording.roles[c]}")
    middle.set(ylabel="dBFS a line", xlabel="frequency, kHz", xlim=(0, rate / 2e3))

    for echo in echoes:
        x, _ = measure.hold_back(recording.audio[echo.ref], echo.sections, echo.drift_ppm, rate)
        share, frequency = measure.coherence(x, recording.audio[echo.mic], rate)
        lower.plot(frequency / 1e3, smoothed(share), color=colours[echo.mic % 10], lw=1,
                   label=f"channel {echo.mic} from {echo.ref}")
    lower.set(ylabel="coherence", xlabel="frequency, kHz", xlim=(0, rate / 2e3), ylim=(0, 1.02))

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
