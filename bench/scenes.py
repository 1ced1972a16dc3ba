#!/usr/bin/python3
"""Synthetic echo scenes from real speech and music in simulated rooms.

Every scene is made from the recordings of sounds.py, by seeded random numbers, so that it
is the same on every machine.

The far end goes through a delay line (steps, drift), a loudspeaker (band-pass,
perhaps distorting) and a room per microphone (a direct path, some early
reflections, an exponentially decaying tail). The near-end talker, always another
person than the far end, goes through a room of its own. Noise is added.

The true delay is the lag, in samples, of the room response's direct path behind
the reference, bulk delay included: a list of knots (time in s, delay in samples)
to interpolate linearly, a step being two knots at one time.

Every other scene, even in its record's half, may be tuned on; the odd ones are held back.

An active echo frame is a 16 ms frame of the references that the microphones can
hear, held back by the true delay, whose level is above -50 dBFS and at most
30 dB below the references' active level (the mean power of the frames above
-50 dBFS). Seconds of active far end are counted in such frames.
"""
import argparse
import json
import pathlib
import zlib
from dataclasses import dataclass, field

import numpy as np
from scipy import ndimage, signal
from scipy.io import wavfile

from sounds import (FULL_SCALE, active_rms, excerpt, frame_powers, frame_size, gain_curve, levelled,
                    loudspeaker, noise_like, room_response, suppressed)

LINE = 12288                    # samples that a delay line holds
RATES = (8000, 16000, 32000, 48000)
ACTIVE_NOTE = "16 ms frames of heard references at the true delay, over -50 dBFS, within 30 dB of active level"

TALKERS = ("allison", "carlo", "june", "ivr")


def delay_at(knots, time):
    """True delay in samples at time in s; on a step the new value."""
    times, delays = zip(*knots)
    return np.interp(time, times, delays)


def held_back(x, delays):
    """x (n or n x channels) read delays (n, samples, perhaps fractional) earlier."""
    wanted = np.arange(len(delays)) - delays
    if np.all(wanted == np.round(wanted)):
        index = wanted.astype(int)
        inside = (index >= 0) & (index < len(x))
        return (x[np.clip(index, 0, len(x) - 1)].T * inside).T
    if x.ndim == 2:
        return np.stack([held_back(channel, delays) for channel in x.T], axis=1)
    finer = signal.resample_poly(x, 2, 1)
    return ndimage.map_coordinates(finer, [2 * wanted], order=5, mode="constant")


def active_frames(references, delays, rate, heard):
    """Which frames are active echo frames (see the top). references n x R, full scale 1; true delay
    of every sample (n)."""
    frame = frame_size(rate)
    powers = frame_powers(held_back(references[:, list(heard)], delays), frame)
    floor = 1e-5
    active_level = powers[powers > floor].mean() if np.any(powers > floor) else 0.0
    return (powers > floor) & (powers > active_level * 1e-3)


@dataclass
class Scene:
    name: str
    category: str
    rate: int
    microphones: np.ndarray     # n x M, full scale 1
    references: np.ndarray      # n x R
    near: np.ndarray            # n x M, the talker as the microphones hear him, or None
    echo: np.ndarray            # n x M, or None
    knots: list                 # true delay: (s, samples); None where there is no echo
    audible: bool               # is there an echo to hear
    heard: tuple                # the references whose echo the microphones hear
    far_only: list              # spans (s, s) without near-end talker
    params: dict = field(default_factory=dict)  # delay_len, look_ahead, drop_channel, if not 0

    def truth(self):
        """The record for truth.json."""
        times = np.arange(len(self.references)) / self.rate
        delays = np.round(delay_at(self.knots or [(0, 0)], times))
        active = active_frames(self.references, delays, self.rate, self.heard)
        return dict(name=self.name, category=self.category, rate=self.rate,
                    mics=self.microphones.shape[1], refs=self.references.shape[1],
                    seconds=round(len(self.references) / self.rate, 3),
                    knots=self.knots, audible=self.audible, heard=list(self.heard),
                    far_only=self.far_only, near=self.near is not None, params=self.params,
                    far_active_s=round(0.016 * int(active.sum()), 3), far_active_note=ACTIVE_NOTE)


def build(name, category, rate=16000, seconds=20, far=None, near=None, near_spans=None, near_db=0.0,
          delay=None, delay_ms=80.0, steps=(), drift_ppm=0.0, mics=1, refs=1, heard=(0,),
          stereo=False, echo_db=None, rt60=None, direct_db=None, floor_db=-65.0, snr_db=None,
          noise="white", speaker="plain", echo_gains=(), far_gains=(), far_pauses=(), far_start=0.0,
          drops_ms=(), audible=True, params=None, hidden_db=0.0, mirrors=(), processing=()):
    """One Scene. processing are functions of what the microphones hear. near_db and snr_db count from the echo's active level; steps are
    (s, ms), drops_ms (s, ms of microphone lost), pauses and spans (s, s)."""
    rng = np.random.default_rng(zlib.crc32(name.encode()))
    drops = [(int(t * rate), int(ms * rate / 1000)) for t, ms in drops_ms]
    n = seconds * rate + sum(lost for _, lost in drops)
    far = far or TALKERS[rng.integers(len(TALKERS))]
    fars = (far,) if isinstance(far, str) else far
    references = np.zeros((n, refs))
    for channel in range(refs):
        references[:, channel] = excerpt(fars[channel % len(fars)], rate, n, rng)
    if stereo:                  # two sources, each louder on its own side
        references = references @ np.array([[1.0, 0.4], [0.35, 1.0]]) / 1.2
    references *= gain_curve(far_gains, n, rate)[:, None] * 10 ** (rng.uniform(-3, 3) / 20)
    for start, end in list(far_pauses) + [(0, far_start)]:
        references[int(start * rate):int(end * rate)] = 0

    delay = int(round(delay_ms * rate / 1000)) if delay is None else delay
    knots, value = [(0.0, delay)], delay
    for time, ms in steps:
        knots += [(time, value), (time, value + int(ms * rate / 1000))]
        value = knots[-1][1]
    knots.append((n / rate, value + drift_ppm * 1e-6 * n))
    played = held_back(references, delay_at(knots, np.arange(n) / rate))

    echo, lags = np.zeros((n, mics)), []
    for m in range(mics):
        for r in heard:
            response = room_response(rng, rate, rt60 or rng.uniform(0.1, 0.4),
                                     rng.uniform(3, 12) if direct_db is None else direct_db,
                                     hidden_db, mirrors)
            lag = (m + (r != heard[0])) * int(0.0001 * rate)
            sound = loudspeaker(played[:, r], rate, speaker)
            echo[lag:, m] += signal.fftconvolve(sound, response)[:n - lag]
    echo_level = rng.uniform(-28, -18) if echo_db is None else echo_db
    target = 10 ** (echo_level / 20)
    echo *= target / active_rms(echo[:, 0], rate) * gain_curve(echo_gains, n, rate)[:, None]
    if not audible:
        echo[:] = 0

    near_sound, far_only = np.zeros((n, mics)), [(0.0, float(seconds))]
    if near:
        near_spans = near_spans or [(0.0, float(seconds))]
        talk = excerpt(near, rate, n, rng)
        mask = np.zeros(n)
        for start, end in near_spans:
            mask[int(start * rate):int(end * rate)] = 1
        edges = [0.0, *(t for span in near_spans for t in span), float(seconds)]
        far_only = [(a, b) for a, b in zip(edges[::2], edges[1::2]) if b > a]
        for m in range(mics):
            response = room_response(rng, rate, rng.uniform(0.15, 0.35), rng.uniform(0, 6))
            near_sound[:, m] = signal.fftconvolve(talk * mask, response)[:n]
        near_sound *= target * 10 ** (near_db / 20) / active_rms(near_sound[:, 0], rate)

    floor = 10 ** (floor_db / 20) if floor_db is not None else 0.0
    microphones = echo + near_sound
    for m in range(mics):
        microphones[:, m] += floor * noise_like("pink", n, rate, rng)
        if snr_db is not None:
            microphones[:, m] += target * 10 ** (-snr_db / 20) * noise_like(noise, n, rate, rng)

    for process in processing:
        microphones = np.stack([process(channel, rate)[:n] for channel in microphones.T], axis=1)

    for at, lost in drops:      # later microphone samples move up: the echo comes earlier
        microphones, echo, near_sound = (np.delete(x, np.s_[at:at + lost], axis=0)
                                         for x in (microphones, echo, near_sound))
        time, value = at / rate, knots[-1][1]
        knots[-1:] = [(time, value), (time, value - lost), (seconds, value - lost)]
    n = seconds * rate
    return Scene(name, category, rate, np.clip(microphones[:n], -1, 1), references[:n],
                 near_sound[:n] if near else None, echo[:n] if audible else None,
                 [[round(float(t), 6), round(float(d), 3)] for t, d in knots] if audible else None,
                 audible, tuple(heard), far_only if audible or near else [], params or {})


def add_devices(add):
    """Scenes as real devices are: the direct sound hidden, mirrored, weak or worked on."""
    hidden = dict(hidden_db=10, mirrors=((1.9, 0.9),), direct_db=6)
    add("hidden_16k", "hidden", delay=666, far="carlo", **hidden)
    add("hidden_8k_long", "hidden", rate=8000, delay=9333, far="june", **hidden)
    add("hidden_48k", "hidden", rate=48000, delay=1998, far="allison", **hidden)
    add("hidden_32k", "hidden", rate=32000, delay=4332, far="ivr", **hidden)
    add("hidden_16k_long", "hidden", delay=9666, far="allison", **hidden)
    add("hidden_music", "hidden", delay=1200, far="robot", **hidden)
    add("hidden_base_640", "hidden", delay=666, far="june", params=dict(delay_len=640), **hidden)
    add("hidden_step", "hidden", delay=700, far="ivr", steps=((10, 150),), **hidden)

    for ms, gain, rate, delay, far in (
            (12, 1.1, 16000, 1032, "carlo"), (12, 0.9, 8000, 3016, "june"), (12, 1.0, 48000, 3096, "ivr"),
            (2, 1.1, 16000, 800, "june"), (5, 1.1, 16000, 5000, "allison"), (20, 1.2, 16000, 2000, "ivr"),
            (8, 1.0, 8000, 9016, "carlo"), (16, 1.1, 32000, 6400, "allison")):
        add(f"mirror_{ms}ms_{rate // 1000}k", "mirror", rate=rate, delay=delay, far=far, mirrors=((ms, gain),))
    add("mirrors_two", "mirror", delay=1500, far="carlo", mirrors=((6, 1.0), (13, -0.9)))
    add("mirror_music", "mirror", delay=1300, far="reno", mirrors=((12, 1.0),))
    add("mirror_step", "mirror", delay=900, far="june", mirrors=((12, 1.0),), steps=((10, 100),))

    add("tiny_speaker_16k", "tiny", speaker="tiny", far="carlo", delay=1700)
    add("tiny_speaker_8k_long", "tiny", rate=8000, speaker="tiny", far="allison", delay=9100)
    add("tiny_speaker_48k", "tiny", rate=48000, speaker="tiny", far="june", delay=9000)
    add("tiny_speaker_music", "tiny", speaker="tiny", far="cold", delay=2300)

    add("weak_16k", "weak", far="ivr", snr_db=-8, noise="pink", delay=1900)
    add("weak_8k_long", "weak", rate=8000, far="carlo", snr_db=-7, noise="pink", delay=9500)
    add("weak_48k", "weak", rate=48000, far="june", snr_db=-8, noise="pink", delay=7000)
    add("weak_music", "weak", far="coffee", snr_db=-4, noise="pink", delay=3400)
    add("weak_step", "weak", far="allison", snr_db=-6, noise="white", delay=800, steps=((10, 120),))
    add("weak_near_floor", "weak", far="june", echo_db=-66, delay=450)

    add("suppressed_16k", "worked_on", far="june", delay=1100, processing=(suppressed,), snr_db=15)
    add("suppressed_8k", "worked_on", rate=8000, far="ivr", delay=4000, processing=(suppressed,), snr_db=10)
    add("suppressed_double_talk", "worked_on", far="carlo", near="allison", delay=525, snr_db=15,
        near_spans=[(3, 20)], processing=(suppressed, levelled))
    add("levelled_48k", "worked_on", rate=48000, far="allison", delay=3300, processing=(levelled,))
    add("levelled_double_talk", "worked_on", far="june", near="carlo", delay=6000, near_db=8,
        processing=(suppressed, levelled))


def catalogue():
    """Name -> arguments of build, in the order of the report."""
    table = {}

    def add(name, category, **options):
        table[name] = dict(category=category, **options)

    for rate in RATES:
        longest = LINE - frame_size(rate)
        for i, delay in enumerate((0, rate * 7 // 1000 + 1, rate * 45 // 1000 + 5,
                                   rate * 120 // 1000, longest * 3 // 5, longest)):
            far = "names" if rate == 48000 and i == 2 else TALKERS[i % 4]
            add(f"delay_{rate // 1000}k_{delay}", "delay", rate=rate, delay=delay, far=far)
    add("mics_2", "channels", mics=2, far="june", delay_ms=60)
    add("mics_2_48k", "channels", rate=48000, mics=2, far="carlo", delay_ms=150)
    add("refs_2_first_heard", "channels", refs=2, heard=(0,), far=("allison", "carlo"), delay_ms=50)
    add("refs_2_second_heard", "channels", refs=2, heard=(1,), far=("ivr", "june"), delay_ms=130)
    add("refs_2_both_heard", "channels", refs=2, heard=(0, 1), far=("june", "carlo"), delay_ms=90)
    add("refs_2_first_silent", "channels", refs=2, heard=(1,), far=("silence", "carlo"), delay_ms=210)
    add("refs_2_second_silent", "channels", refs=2, heard=(0,), far=("ivr", "silence"), delay_ms=40)
    add("refs_2_stereo_mics_2", "channels", refs=2, mics=2, heard=(0, 1), stereo=True,
        far=("allison", "coffee"), delay_ms=110)
    add("refs_2_stereo_8k", "channels", rate=8000, refs=2, heard=(0, 1), stereo=True,
        far=("radio", "ivr"), delay_ms=300)
    add("refs_2_one_dropped", "channels", refs=2, heard=(0,), far=("allison", "june"), delay_ms=70,
        params=dict(drop_channel=1))

    for ms, delay_ms in ((20, 60), (-20, 60), (60, 50), (-60, 150), (200, 40), (-200, 300)):
        add(f"step_{ms:+d}ms", "step", delay_ms=delay_ms, steps=((10, ms),))
    add("step_+200ms_48k", "step", rate=48000, delay_ms=25, steps=((10, 200),), far="ivr")
    add("step_-60ms_32k", "step", rate=32000, delay_ms=180, steps=((10, -60),), far="carlo")
    add("steps_three_up", "step", delay_ms=40, steps=((3, 20), (5, 60), (7, 200)), far="carlo")
    add("steps_three_down", "step", delay_ms=400, steps=((3, -200), (5, -60), (7, -20)), far="ivr")
    add("steps_three_both_8k", "step", rate=8000, delay_ms=100, steps=((3, 60), (5, -60), (7, 200)),
        far="june")
    add("steps_three_both_48k", "step", rate=48000, delay_ms=100, steps=((3, -60), (5, 20), (7, 100)),
        far="allison")

    for ppm in (50, -50, 100, -100):
        add(f"drift_{ppm:+d}ppm", "drift", seconds=60, delay_ms=100.3, drift_ppm=ppm)

    for db in (-10, -5, 0, 5, 10):
        add(f"double_talk_{db:+d}dB", "double_talk", far="allison", near="carlo", near_db=db,
            near_spans=[(7, 20)], delay_ms=95, echo_db=-26)
    for db, far, near in ((-5, "carlo", "june"), (0, "june", "reader"), (5, "ivr", "carlo")):
        add(f"double_talk_all_along_{db:+d}dB", "double_talk", far=far, near=near, near_db=db,
            delay_ms=140, echo_db=-26)
    add("double_talk_48k", "double_talk", rate=48000, far="carlo", near="names", near_spans=[(8, 20)],
        delay_ms=70, echo_db=-26)
    add("double_talk_step", "double_talk", far="june", near="carlo", near_db=-3, near_spans=[(6, 20)],
        delay_ms=60, steps=((11, 60),), echo_db=-26)

    for i, piece in enumerate(("coffee", "cold", "simple", "robot", "reno")):
        add(f"music_{piece}", "music", far=piece, delay_ms=35 + 40 * i)
    add("music_near_talker", "music", far="reno", near="allison", near_spans=[(8, 20)], delay_ms=180,
        echo_db=-26)
    add("music_8k", "music", rate=8000, far="cold", delay_ms=260)
    add("music_48k_stereo", "music", rate=48000, refs=2, heard=(0, 1), stereo=True,
        far=("robot", "coffee"), delay_ms=60)
    add("tones_chord", "tones", far="chord", delay_ms=90)
    add("tones_chords", "tones", far="chords", delay_ms=90)
    add("tones_sine_steps", "tones", far="sine_steps", delay_ms=120)

    add("noise_white_10dB", "noise", far="june", snr_db=10, delay_ms=100)
    add("noise_pink_10dB", "noise", far="carlo", snr_db=10, noise="pink", delay_ms=55)
    add("noise_rumble_10dB_48k", "noise", rate=48000, far="allison", snr_db=10, noise="rumble",
        delay_ms=140)
    add("noise_white_0dB", "noise", far="ivr", snr_db=0, delay_ms=75)

    add("speaker_distorts", "speaker", far="carlo", speaker="clip", delay_ms=65)
    add("speaker_distorts_music", "speaker", far="robot", speaker="clip", delay_ms=65)
    add("speaker_without_bass", "speaker", far="june", speaker="thin", delay_ms=115)
    add("volume_up_12dB", "volume", far="ivr", echo_db=-30, echo_gains=((10, 12),), delay_ms=85)
    add("volume_down_12dB", "volume", far="allison", echo_db=-18, echo_gains=((10, -12),), delay_ms=85)
    add("volume_of_reference", "volume", far="carlo", far_gains=((7, -12), (13, 0)), delay_ms=85)

    add("pause_10s", "pause", seconds=30, far="allison", far_pauses=((8, 18),), delay_ms=105)
    add("pause_10s_step", "pause", seconds=30, far="june", far_pauses=((8, 18),), delay_ms=105,
        steps=((13, 60),))
    add("pause_10s_near_talker", "pause", seconds=30, far="ivr", near="reader",
        near_spans=[(9, 18)], far_pauses=((8, 18),), delay_ms=105)
    add("late_start", "late_start", far="carlo", far_start=5, near="june", near_spans=[(0, 5)],
        delay_ms=160)
    add("late_start_48k", "late_start", rate=48000, far="allison", far_start=5, near="carlo",
        near_spans=[(0, 7)], delay_ms=120)

    for ms in (5, 20, 40):
        add(f"dropped_{ms}ms", "dropped", far="allison", delay_ms=120, drops_ms=((9, ms),))

    add("no_echo_near_only", "no_echo", far="june", near="carlo", audible=False)
    add("no_echo_near_only_48k", "no_echo", rate=48000, far="carlo", near="names", audible=False)
    add("no_echo_near_only_mics_2", "no_echo", mics=2, far="ivr", near="allison", audible=False)
    add("no_echo_noise_only", "no_echo", far="allison", floor_db=-50, audible=False)
    add("no_echo_music", "no_echo", far="reno", near="june", audible=False)
    add("no_echo_near_far_silent", "no_echo", far="silence", near="ivr", audible=False)
    add("silence_digital", "silence", far="silence", audible=False, floor_db=None)
    add("silence_room", "silence", far="silence", audible=False, floor_db=-55)

    add("base_640", "base", far="ivr", delay=1000, params=dict(delay_len=640))
    add("base_exact", "base", far="june", delay=1600, params=dict(delay_len=1600))
    add("base_odd_48k", "base", rate=48000, far="carlo", delay=5000,
        params=dict(delay_len=1001, look_ahead=768))
    add("look_ahead_512", "base", far="allison", delay_ms=75, params=dict(look_ahead=512))

    add("demo", "demo", seconds=16, far="allison", near="carlo", near_spans=[(8, 16)], delay_ms=150,
        echo_db=-22, rt60=0.15, direct_db=9, near_db=0)
    add_devices(add)
    return table


def half_of(name):
    """even: tuned on; odd: held back. Every other scene of the catalogue."""
    return ("even", "odd")[list(catalogue()).index(name) % 2]


def make(name):
    """The Scene of that name."""
    return build(name, **catalogue()[name])


def write(scene, folder):
    """Writes NAME_lpb.wav, NAME_mic.wav and NAME_near.wav (16 bits); returns the truth."""
    for suffix, audio in (("lpb", scene.references), ("mic", scene.microphones), ("near", scene.near)):
        if audio is not None:
            samples = np.clip(np.round(audio * FULL_SCALE), -32768, 32767).astype(np.int16)
            wavfile.write(folder / f"{scene.name}_{suffix}.wav", scene.rate, samples)
    return scene.truth()


def main():
    parser = argparse.ArgumentParser(description="Make synthetic echo scenes from real recordings.")
    parser.add_argument("--out", type=pathlib.Path, help="folder for the WAV files and truth.json")
    parser.add_argument("--only", nargs="+", metavar="NAME", help="these scenes or categories")
    parser.add_argument("--list", action="store_true", help="print the names and categories")
    options = parser.parse_args()
    table = catalogue()
    names = [n for n in table if not options.only or {n, table[n]["category"]} & set(options.only)]
    if not names or not (options.out or options.list):
        parser.error("no scene of that name" if not names else "--out or --list is needed")
    if options.list:
        print("\n".join(f"{name:32s} {table[name]['category']}" for name in names))
        return
    options.out.mkdir(parents=True, exist_ok=True)
    truths = [dict(write(make(name), options.out), half=half_of(name)) for name in names]
    (options.out / "truth.json").write_text(json.dumps(truths, indent=1) + "\n")
    print(f"{len(truths)} scenes in {options.out}")


if __name__ == "__main__":
    main()
