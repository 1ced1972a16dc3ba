"""What was measured and found, as text: the page and the parameters as C."""
import textwrap

import numpy as np

from . import library, linear


def _filled(text, first, indent=10):
    """A paragraph of 92 columns behind a title."""
    return textwrap.fill(text, 92, initial_indent=first.ljust(indent), subsequent_indent=" " * indent,
                         break_on_hyphens=False)


def _channel_lines(m):
    for c, one in enumerate(m.channels):
        if not one.sounds:
            yield f"  {c}  {one.role:<11} no sound above -60 dBFS, peak {one.peak_db:.1f} dBFS"
            continue
        yield (f"  {c}  {one.role:<11} active level {one.level_db:6.1f} dBFS  peak {one.peak_db:6.1f}  quietest "
               f"{one.floor_db:7.1f}  clipped {100 * one.clipped:.2f} %  band to {one.edge_hz / 1000:.1f} kHz")


def _delay_text(one, rate):
    first, strongest = one.arrival * rate, one.strongest * rate
    if one.sure:
        text = f"{first:8.0f} samples, {1e3 * one.arrival:7.1f} ms late"
        return text + (f" (a louder reflection at {strongest:.0f})" if strongest - first > 0.003 * rate else "")
    if strongest - first < 1:
        return f"  unsure: perhaps {first:.0f} samples, {1e3 * one.arrival:.1f} ms late"
    return (f"  unsure: {first:.0f} to {strongest:.0f} samples, {1e3 * one.arrival:.1f} to "
            f"{1e3 * one.strongest:.1f} ms late")


def _echo_lines(m, echo):
    yield f"Echo in channel {echo.mic}, of the reference in channel {echo.ref}"
    for one in echo.sections:
        yield f"  from {one.start:6.1f} s: {_delay_text(one, m.rate)}"
    yield f"  drift {echo.drift_ppm:+.1f} ppm; the delay lines reach from 0 to {library.reach(m.rate)} samples"
    for part, text in ((echo.short, " 32 ms, the library's,"), (echo.long, "128 ms")):
        if part:
            yield (f"  a linear filter of {text:<22} could remove {part[0]:5.1f} dB, {part[1]:5.1f} dB over the "
                   f"best {linear.BLOCK_S} s")
    yield "  (of all that the microphone holds while a reference is active, near end included)"


def _library_lines(m):
    if not m.run:
        if m.not_run:
            yield _filled(f"it was not run: {m.not_run}", "Library:")
        return
    last = m.run.delays[-1]
    text = f"applied {last} samples, {1e3 * last / m.rate:.1f} ms at the end"
    moves = int(np.count_nonzero(np.diff(m.run.delays)))
    text += f", after {moves} move(s)" if moves else ", throughout"
    if m.run.removed:
        text += (f"; removed {m.run.removed[0]:.1f} dB in the second half, {m.run.removed[1]:.1f} dB over its best "
                 f"{library.WINDOW_S} s")
    yield _filled(text + ".", "Library:")
    if m.run.verdict:
        yield _filled(m.run.verdict + ".", "Meter:")


def _layout(m):
    """How nax_aec_byte can take the channels as they are: pos, M, D, table; None if it
    cannot. The references that it keeps are neighbours behind or before the microphones;
    the microphones may be anywhere."""
    channels, mics = len(m.channels), m.of("microphone")[:2]
    refs = m.sounding or m.of("reference")
    for count in range(len(mics), 0, -1):
        for pos in (1, 0):
            first_ref, first_mic = (count, 0) if pos == 1 else (0, channels - count)
            kept = len(refs)
            if refs == list(range(first_ref, first_ref + kept)) and kept <= channels - count:
                usual = list(range(first_mic, first_mic + count))
                return pos, count, channels - count - kept, None if mics[:count] == usual else mics[:count]
    return None


def parameters(m):
    """The parameter block as C, or why there is none."""
    mics, refs = m.of("microphone")[:2], m.of("reference")
    if not mics or not refs:
        return "No parameters: they need a microphone and a reference."
    found, note = _layout(m), ""
    if found is None:
        found = (1, len(mics), 0, None)
        order = ", ".join(map(str, mics + refs))
        note = (f"/* The application has to reorder: channels {order}, microphones first. As cancel_wav:\n"
                f" * --channels {','.join(map(str, mics))}:{','.join(map(str, refs))} */\n")
    pos, count, drop, table = found
    all_refs = len(refs) if note else len(m.channels) - count
    base = "0, /* where the search begins */"
    if m.advised:
        base = f"{m.advised.delay_len}, /* tried: aligned from the first frame on */"
    flags = "NAX_AEC_DELAY_ESTIMATION" + (" | NAX_AEC_REMAP" if table else "")
    lines = [f"static const int16_t microphones[] = {{{', '.join(map(str, table))}}};"] if table else []
    lines += ["const nax_aec_param param = {",
              f"    .pos = {pos}, /* {'microphones' if pos else 'references'} first */",
              f"    .drop_channel = {drop},",
              f"    .model_aec_en = {flags},",
              f"    .delay_len = {base}",
              "    .look_ahead = 0,",
              f"    .array_list = {'microphones' if table else 'NULL'},",
              "};",
              f"nax_aec_state *state = nax_aec_state_init({m.rate}, 16, {count}, {all_refs}, &param);"]
    return note + "\n".join(lines)


def page(m, findings):
    """All of it as text."""
    recorded = ", ".join(f"{r}" for r in dict.fromkeys(m.recorded))
    taken = "" if set(m.recorded) == {m.rate} else f" taken as {m.rate} Hz"
    lines = [f"{m.name}: {len(m.channels)} channels, {recorded} Hz{taken}, {m.seconds:.1f} s", "",
             "Channels", *_channel_lines(m), ""]
    for echo in m.echoes:
        lines += [*_echo_lines(m, echo), ""]
    lines += [*_library_lines(m), ""]
    if not findings:
        lines += ["Nothing wrong found.", ""]
    for finding in findings:
        lines += [_filled(f"{finding.text} [{finding.code}]", "Found:"), _filled(finding.cure, "  Cure:"), ""]
    return "\n".join(lines + ["Recommended parameters", textwrap.indent(parameters(m), "    ")])
