"""What is wrong with a recording: each judgement is a function from Measures to Findings."""
from dataclasses import dataclass

import numpy as np

from . import library
from .channel import frame_size

CLIPPED = 5e-4                  # share of samples
OFFSET = 0.01                   # of full scale: 330 of 16 bits
SWING_DB = 4.0
DRIFT_PPM = 8.0
LINEAR_DB = 2.0                 # a best block below it is hardly linear echo
PATH_S = 0.010                  # a path that changes by more than that has left the room: 3.4 m
UNLIKE = 0.05                   # of 1: a response that differs by more belongs to another path
SETTLED_S = 2.0                 # after a step: what the library may take to follow
MISALIGNED = 0.3                # share of the time
BRIEF_S = 2.0                   # an unsure delay that lasts no longer is a reflection, no step
KNOWN_S = 1.5                   # a step between moments so near is at a time, else between two


@dataclass
class Finding:
    code: str
    text: str
    cure: str


def channels_text(channels):
    """'channel 1' or 'channels 1, 2'."""
    return ("channel " if len(channels) == 1 else "channels ") + ", ".join(map(str, channels))


def byte_order(m):
    wrong = [c for c, one in enumerate(m.channels) if one.swapped]
    if wrong:
        yield Finding("byte-order", f"The bytes of the samples are swapped in {channels_text(wrong)}: "
                      "the low bytes carry more than the high ones.",
                      "Capture S16_LE where it says S16_BE, or the reverse, or tell nax_aec_byte "
                      "the other byte order. What follows is judged with the bytes put right.")


def roles(m):
    wrong = [(c, one) for c, one in enumerate(m.channels) if one.expected and one.role != "silent"
             and one.role != one.expected]
    if wrong:
        yield Finding("roles", "Not what they should be: " + ", ".join(
            f"channel {c} looks like a {one.role}" for c, one in wrong) + ".",
            "Give the channels in the order that pos says, see the parameters below.")


def microphones(m):
    mics = m.of("microphone")
    if not mics:
        yield Finding("no-microphone", "No channel looks like a microphone with sound in it.",
                      "Check the microphone's wiring, gain and mute.")
    if len(mics) > 2:
        yield Finding("microphones", f"{channels_text(mics)} look like microphones; the library takes 2.",
                      "Give it the two that matter most.")


def silent_references(m):
    silent = [c for c in m.of("reference") if c not in m.sounding]
    if not m.sounding:
        yield Finding("reference-silent", "No reference holds any sound above -60 dBFS.",
                      "Tap the reference behind the last volume control and mixer that the "
                      "loudspeaker's signal passes; check that the loopback is switched on.")
    elif silent:
        yield Finding("reference-silent", f"The reference in {channels_text(silent)} is silent.",
                      "Drop it (drop_channel) if nothing is ever played there, else check the loopback.")


def clipped(m):
    for c, one in enumerate(m.channels):
        if one.clipped > CLIPPED and one.role != "silent":
            yield Finding("clipped", f"The {one.role} in channel {c} is clipped in {100 * one.clipped:.2f} % "
                          "of its samples.",
                          "Lower its gain: what clipping adds is not linear, and no linear filter removes it.")


def offset(m):
    for c, one in enumerate(m.channels):
        if abs(one.offset) > OFFSET:
            yield Finding("offset", f"Channel {c} has an offset (DC) of {32768 * one.offset:+.0f}, "
                          f"{100 * one.offset:+.1f} % of full scale.",
                          "Switch the converter's high-pass on, or find the input that floats: an offset "
                          "takes headroom and clicks where sound is cut.")


def drop_outs(m):
    for c, one in enumerate(m.channels):
        gaps = one.drop_outs
        if not gaps or one.role == "silent":
            continue
        lengths = [1e3 * length for _, length in gaps]
        when = ", ".join(f"{time:.2f}" for time, _ in gaps[:8]) + (" and later" if len(gaps) > 8 else "")
        apart = np.diff([time for time, _ in gaps])
        regular = len(gaps) > 2 and np.ptp(apart) < 0.1 * np.median(apart)
        yield Finding("drop-outs", f"The {one.role} in channel {c} drops out {len(gaps)} time(s), for "
                      f"{np.median(lengths):.0f} ms (up to {max(lengths):.0f}), at {when} s"
                      + (f", every {np.median(apart):.2f} s." if regular else "."),
                      "Zeros stand in for samples that came late: larger buffers, a higher priority for "
                      "the audio thread, no file or network work on it.")


def copies(m):
    for r, y in m.copies:
        yield Finding("reference-is-microphone", f"The reference in channel {r} is a copy of the microphone "
                      f"in channel {y}.",
                      "The canceller would remove the near end: wire the loudspeaker's signal there.")
    for r, other in m.twice:
        yield Finding("reference-twice", f"The reference in channel {r} is a copy of channel {other}.",
                      "Drop one (drop_channel): two equal references cost time and adapt more slowly.")


def side_tone(m):
    if m.side_tone:
        r, y, share = m.side_tone
        yield Finding("side-tone", f"The reference in channel {r} holds the near end of the microphone in channel "
                      f"{y} as well, in {100 * share:.0f} % of the time: side tone.",
                      "Switch the monitor or side-tone path off, or tap the reference before it is mixed in: "
                      "the canceller removes all that the reference holds.")


def bands(m):
    if m.made_at:
        yield Finding("rate", f"The recording claims {m.rate} Hz, but nothing in it is above what "
                      f"{m.made_at} Hz holds: it was made at {m.made_at} Hz and resampled.",
                      f"Run the library at {m.made_at} Hz, at a fraction of the cost, or find what "
                      "resamples on the way.")
    for r, edge in m.narrow:
        yield Finding("band", f"The reference in channel {r} ends at {edge / 1000:.1f} kHz, the loudspeaker "
                      "plays more.", "Tap the reference where that is added.")


def rates(m):
    if abs(m.ratio - 1) > 0.05:
        yield Finding("rates-differ", f"The reference runs at {m.ratio:.3g} times the rate of the microphone.",
                      "Capture both at one rate; a file's header does not resample.")
    elif m.ratio != 1:
        off = 100 * (1 / m.ratio - 1)
        yield Finding("rates-differ", f"The rates do not match: the microphone runs {abs(off):.2f} % "
                      f"{'fast' if off > 0 else 'slow'} against the reference.",
                      "That is more than clocks drift: look for a resampler, a file with the wrong rate in its "
                      "header, or samples that are lost or doubled all the time.")


def no_echo(m):
    if m.echoes or m.ratio != 1 or not m.sounding or not m.of("microphone") or m.copies:
        return
    if m.tonal:
        yield Finding("tones", "The references hold nothing but steady or repeating sounds, which fit their "
                      "echo at many delays.", "Record speech or music: by such sounds neither this page nor "
                      "the library finds the delay, but at their first onset.")
    else:
        yield Finding("no-echo", "No echo of any reference is found in the microphones, up to 2 s late or early.",
                      "If an echo can be heard there, the reference is another signal than the "
                      "loudspeaker's; if not, there is nothing to cancel.")


def reach(m):
    arrivals = [one.arrival for echo in m.echoes[:1] for one in echo.sections]
    if arrivals and min(arrivals) < -0.001:
        yield Finding("reference-late", f"The reference comes {-1e3 * min(arrivals):.1f} ms later than its echo.",
                      "See first that the two are not exchanged. The library can only hold the reference back: "
                      "tap it earlier, or delay the microphones by more than that.")
    most = library.reach(m.rate)
    if arrivals and max(arrivals) * m.rate > most:
        yield Finding("delay-too-long", f"The echo is {max(arrivals) * m.rate:.0f} samples late "
                      f"({1e3 * max(arrivals):.1f} ms); the delay lines reach {most} ({1e3 * most / m.rate:.1f} ms).",
                      "Shorten the buffers between the reference's tap and the loudspeaker, tap it later, or hold "
                      "it back by a constant before the call; a lower sample rate has longer lines.")


def moves(m):
    """Steps of the delay, and changes of the path."""
    steps, paths = [], []
    for echo in m.echoes[:1]:
        known = [one for one in echo.sections if one.sure or one.end - one.start > BRIEF_S]
        for before, after in zip(known, known[1:]):
            move = after.arrival - before.arrival
            when = (f"at about {(before.end + after.start) / 2:.1f} s" if after.start - before.end < KNOWN_S
                    else f"between {before.end:.0f} and {after.start:.0f} s")
            other_path = abs(move) < PATH_S and after.unlike > UNLIKE
            (paths if other_path else steps).append(f"{when} ({1e3 * move:+.1f} ms)")
    if steps:
        yield Finding("delay-steps", f"The delay steps {len(steps)} time(s), " + ", ".join(steps[:8]) + ".",
                      "Look for overruns and underruns: lost samples move the echo for good. The "
                      "library follows, each time after a moment of echo.")
    if paths:
        yield Finding("path-changed", "The echo's path changes " + ", ".join(paths[:8]) + ": another response, not "
                      "the same one later.",
                      "Nothing is wrong if the device, or somebody near it, moved there: the canceller learns the "
                      "new path.")


def drift(m):
    for echo in m.echoes[:1]:
        if abs(echo.drift_ppm) > DRIFT_PPM:
            apart_s = frame_size(m.rate) / m.rate / abs(echo.drift_ppm) * 1e6
            yield Finding("drift", f"The delay drifts by {echo.drift_ppm:+.0f} ppm: two clocks, a frame apart "
                          f"every {apart_s:.0f} s.",
                          "Unless something moved all the time, which looks alike: capture references and "
                          "microphones by one clock, best as channels of one device; "
                          "else expect the alignment to move and the filter to relearn.")


def swing(m):
    for echo in m.echoes[:1]:
        if echo.swing_db > SWING_DB:
            yield Finding("gain-swings", f"The echo's gain moves by {echo.swing_db:.0f} dB against the reference in "
                          f"channel {echo.ref}.",
                          "Switch automatic gain control off, or put it behind the canceller; tap the reference "
                          "behind the volume control.")


def not_linear(m):
    for echo in m.echoes[:1]:
        most = max(echo.short[1], echo.long[1]) if echo.short and echo.long else 100
        if most < LINEAR_DB:
            yield Finding("not-linear", f"At best {most:.1f} dB of the microphone in channel {echo.mic} could be "
                          "removed by a linear filter: the rest is near end, noise or distortion.",
                          "Judge with the far end alone. If it stays so, turn the loudspeaker down, look for "
                          "compressors or equalisers behind the reference's tap, and put a residual echo "
                          "suppressor behind the library.")


def misaligned(m):
    """The library's applied delay leaves the echo outside of its filter, after it had time to
    find it, in a good part of the moments of which the truth is sure."""
    echo = m.echoes[0] if m.echoes else None
    if not m.run or not echo or not all(one.sure for one in echo.sections) or any(reach(m)) or m.side_tone:
        return
    if any(not_linear(m)):
        return
    starts, arrivals = np.array([(one.start, one.arrival) for one in echo.sections]).T
    current = np.maximum(np.searchsorted(starts, echo.times, "right") - 1, 0)
    settled = echo.times > starts[current] + SETTLED_S
    late = arrivals[current][settled] * m.rate
    frames = (echo.times[settled] * m.rate / frame_size(m.rate)).astype(int)
    applied = m.run.delays[np.minimum(frames, len(m.run.delays) - 1)]
    wrong = ~library.is_aligned(applied, late, m.rate)
    if len(wrong) == 0 or wrong.mean() < MISALIGNED:
        return
    text = (f"The library goes wrong: in {100 * wrong.mean():.0f} % of the time the delay that it applies misses the "
            f"echo, in the end by {applied[wrong][-1]} samples where the echo comes {late[wrong][-1]:.0f} late")
    if m.run.removed and echo.short:
        text += f"; it removes {m.run.removed[1]:.1f} dB at best, where {echo.short[1]:.1f} dB could be"
    cure = (f"With delay_len = {m.advised.delay_len}, as below, it starts right and stays so." if m.advised else
            f"Hold the reference back by {max(0, int(late[-1]) // 16 * 16)} samples in the application and switch the "
            "estimation off (model_aec_en without NAX_AEC_DELAY_ESTIMATION).")
    yield Finding("misaligned", text + ".", cure)


ALL = (byte_order, roles, microphones, silent_references, clipped, offset, drop_outs, copies, side_tone, bands,
       rates, no_echo, reach, moves, drift, swing, not_linear, misaligned)


def judged(m):
    """All Findings of Measures."""
    return [finding for judge in ALL for finding in judge(m)]
