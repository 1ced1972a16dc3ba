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
                      "Exchange S16_LE and S16_BE in the capture, or give nax_aec_byte the other "
                      "byte order. The rest of this page is about the corrected samples.")


def roles(m):
    wrong = [(c, one) for c, one in enumerate(m.channels) if one.expected and one.role != "silent"
             and one.role != one.expected]
    if wrong:
        yield Finding("roles", "Channels do not hold what was said: " + ", ".join(
            f"channel {c} looks like a {one.role}" for c, one in wrong) + ".",
            "Put the channels into the order that pos names. The parameters below fit this recording.")


def microphones(m):
    mics = m.of("microphone")
    if not mics:
        yield Finding("no-microphone", "No channel looks like a microphone with sound in it.",
                      "Check the microphone's wiring, gain and mute.")
    if len(mics) > 2:
        yield Finding("microphones", f"{channels_text(mics)} look like microphones. The library takes 2.",
                      "Choose two of them.")


def silent_references(m):
    silent = [c for c in m.of("reference") if c not in m.sounding]
    if not m.sounding:
        yield Finding("reference-silent", "No reference holds any sound above -60 dBFS.",
                      "Check that the loopback is switched on. Take the reference behind the last mixer and "
                      "volume control before the loudspeaker.")
    elif silent:
        yield Finding("reference-silent", f"The reference in {channels_text(silent)} is silent.",
                      "If nothing is ever played there, drop it (drop_channel). Otherwise check the loopback.")


def clipped(m):
    for c, one in enumerate(m.channels):
        if one.clipped > CLIPPED and one.role != "silent":
            yield Finding("clipped", f"The {one.role} in channel {c} is clipped in {100 * one.clipped:.2f} % "
                          "of its samples.",
                          "Lower its gain. No linear filter removes the distortion of clipping.")


def offset(m):
    for c, one in enumerate(m.channels):
        if abs(one.offset) > OFFSET:
            yield Finding("offset", f"Channel {c} has an offset (DC) of {32768 * one.offset:+.0f}, "
                          f"{100 * one.offset:+.1f} % of full scale.",
                          "Switch the converter's high-pass filter on, or look for an input that is not connected. "
                          "An offset takes headroom and makes clicks where sound is cut.")


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
                      "Samples came late and zeros replaced them. Use larger buffers, give the audio thread a "
                      "higher priority, and keep file and network work out of it.")


def copies(m):
    for r, y in m.copies:
        yield Finding("reference-is-microphone", f"The reference in channel {r} is a copy of the microphone "
                      f"in channel {y}.",
                      "Connect the loudspeaker's signal there. With this one the canceller removes the near end.")
    for r, other in m.twice:
        yield Finding("reference-twice", f"The reference in channel {r} is a copy of channel {other}.",
                      "Drop one of them (drop_channel). Two equal references cost more and adapt more slowly.")


def side_tone(m):
    if m.side_tone:
        r, y, share = m.side_tone
        yield Finding("side-tone", f"The reference in channel {r} holds the near end of the microphone in channel "
                      f"{y} in {100 * share:.0f} % of the time. This is side tone.",
                      "Switch the monitor or side-tone path off, or take the reference before the mixer. "
                      "The canceller removes everything that the reference holds, the near end, too.")


def bands(m):
    if m.made_at:
        yield Finding("rate", f"The recording has {m.rate} Hz and no sound above {m.made_at // 2} Hz. It was "
                      f"made at {m.made_at} Hz and resampled.",
                      f"Run the library at {m.made_at} Hz, which costs less, or look for the resampler.")
    for r, edge in m.narrow:
        yield Finding("band", f"The reference in channel {r} ends at {edge / 1000:.1f} kHz. The loudspeaker "
                      "plays higher frequencies.", "Take the reference behind the point where they are added.")


def rates(m):
    if abs(m.ratio - 1) > 0.05:
        yield Finding("rates-differ", f"The reference runs at {m.ratio:.3g} times the rate of the microphone.",
                      "Capture both at one rate. To change the rate in a file's header does not resample it.")
    elif m.ratio != 1:
        off = 100 * (1 / m.ratio - 1)
        yield Finding("rates-differ", f"The rates differ: the microphone runs {abs(off):.2f} % "
                      f"{'fast' if off > 0 else 'slow'} against the reference.",
                      "Clocks drift less than that. Look for a resampler, a wrong rate in a file's header, or "
                      "samples that are lost or doubled all the time.")


def no_echo(m):
    if m.echoes or m.ratio != 1 or not m.sounding or not m.of("microphone") or m.copies:
        return
    if m.tonal:
        yield Finding("tones", "The references hold steady or repeating sounds only. Their echo fits at many "
                      "delays.", "Record speech or music. With steady sounds the delay shows at their first onset "
                      "only, here and in the library.")
    else:
        yield Finding("no-echo", "No echo of any reference is found in the microphones, up to 2 s late or early.",
                      "If you hear an echo there, the reference is not the loudspeaker's signal. If you do not, "
                      "there is nothing to cancel.")


def reach(m):
    arrivals = [one.arrival for echo in m.echoes[:1] for one in echo.sections]
    if arrivals and min(arrivals) < -0.001:
        yield Finding("reference-late", f"The reference comes {-1e3 * min(arrivals):.1f} ms later than its echo.",
                      "Check that reference and microphone are not exchanged. Then take the reference earlier, or "
                      "delay the microphones by more than that: the library delays the reference only.")
    most = library.reach(m.rate)
    if arrivals and max(arrivals) * m.rate > most:
        yield Finding("delay-too-long", f"The echo is {max(arrivals) * m.rate:.0f} samples late "
                      f"({1e3 * max(arrivals):.1f} ms); the delay lines reach {most} ({1e3 * most / m.rate:.1f} ms).",
                      "Shorten the buffers between the reference and the loudspeaker, take the reference later, or "
                      "delay it by a constant before the call. At a lower sample rate the lines are longer.")


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
                      "Look for overruns and underruns: each lost sample moves the echo for good. The "
                      "library follows a step, and echo is heard until it has.")
    if paths:
        yield Finding("path-changed", "The echo's path changes " + ", ".join(paths[:8]) + ": the response differs, "
                      "not only its delay.",
                      "This is normal when the device or somebody near it moved. The canceller learns the new "
                      "path.")


def drift(m):
    for echo in m.echoes[:1]:
        if abs(echo.drift_ppm) > DRIFT_PPM:
            apart_s = frame_size(m.rate) / m.rate / abs(echo.drift_ppm) * 1e6
            yield Finding("drift", f"The delay drifts by {echo.drift_ppm:+.0f} ppm: two clocks, a frame apart "
                          f"every {apart_s:.0f} s.",
                          "Capture references and microphones with one clock, best as channels of one device. "
                          "With two clocks the alignment moves again and again, and the filter relearns each "
                          "time. A device or person that moves all the time looks the same.")


def swing(m):
    for echo in m.echoes[:1]:
        if echo.swing_db > SWING_DB:
            yield Finding("gain-swings", f"The echo's gain moves by {echo.swing_db:.0f} dB against the reference in "
                          f"channel {echo.ref}.",
                          "Switch automatic gain control off, or put it behind the canceller. Take the reference "
                          "behind the volume control.")


def not_linear(m):
    for echo in m.echoes[:1]:
        most = max(echo.short[1], echo.long[1]) if echo.short and echo.long else 100
        if most < LINEAR_DB:
            yield Finding("not-linear", f"At best {most:.1f} dB of the microphone in channel {echo.mic} could be "
                          "removed by a linear filter. The rest is near end, noise or distortion.",
                          "Record with the far end alone. If the figure stays as low, turn the loudspeaker down, "
                          "look for compressors or equalisers behind the reference, and run the suppressor "
                          "(nax_res.h) behind the library.")


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
    text = (f"The library applies a wrong delay in {100 * wrong.mean():.0f} % of the time: in the end "
            f"{applied[wrong][-1]} samples where the echo comes {late[wrong][-1]:.0f} late")
    if m.run.removed and echo.short:
        text += f"; it removes {m.run.removed[1]:.1f} dB at best, where {echo.short[1]:.1f} dB could be"
    cure = (f"Set delay_len = {m.advised.delay_len}, as below. With it the delay was right from the first frame on."
            if m.advised else
            f"Delay the reference by {max(0, int(late[-1]) // 16 * 16)} samples in the application and switch the "
            "estimation off (model_aec_en without NAX_AEC_DELAY_ESTIMATION).")
    yield Finding("misaligned", text + ".", cure)


ALL = (byte_order, roles, microphones, silent_references, clipped, offset, drop_outs, copies, side_tone, bands,
       rates, no_echo, reach, moves, drift, swing, not_linear, misaligned)


def judged(m):
    """All Findings of Measures."""
    return [finding for judge in ALL for finding in judge(m)]
