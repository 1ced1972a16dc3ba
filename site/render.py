#!/usr/bin/python3
"""The sounds of the page: six scenes, each as it leaves six systems, and what is known of them.

Someone says digits while a device plays speech or music; the far end, the rooms, the rivals
and the recogniser are those of bench/barge_in. Writes into the folder named a FLAC file a
scene and system, and scenes.json, which holds for each scene and system the words that the
recogniser understood and the echo removed over time.

Each file is amplified so that the near end is as loud in it as in the others: a suppressor that
takes 6 dB of the near end away has its whole output 6 dB louder. Gain stops at 12 dB, and where
the peaks reach full scale. speech.flac and music.flac are to be played where the visitor talks over them.

  site/render.py build/site/sounds
"""
import argparse
import json
import pathlib
import subprocess
import sys
import zlib

import numpy as np
from scipy.io import wavfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "bench"))
import peers       # noqa: E402
import recogniser  # noqa: E402
import scenes      # noqa: E402
import sounds      # noqa: E402
import systems     # noqa: E402
import talkers     # noqa: E402

RATE = talkers.RATE
SECONDS = 11
ECHO_DBFS = -27.0               # active level of the echo at the microphone
NEAR_DBFS = -26.0               # active level of the near end in every file
MOST_GAIN_DB = 12.0
FULL = 0.99                     # highest peak of a file
STEP_S = 0.25                   # of the chart of echo removed

SYSTEMS = {                     # name: (how the page calls it, what it is told)
    "microphone": ("Microphone", "nothing is done to it"),
    "speex": ("libspeexdsp and its preprocessor", "told the true delay"),
    "webrtc": ("WebRTC of today", "its canceller AEC3 with its suppressor"),
    "nax_aec": ("nax_aec", "the canceller alone"),
    "nax_res": ("nax_aec and nax_res", "the canceller and the suppressor"),
    "near": ("Near end alone", "as if nothing had been played"),
}

PLAYED = dict(speech="allison", music="coffee")     # name: source of sounds.py
PLAYED_S = 15

# name: title, what happens, near end (voice, first s, dB above the echo), arguments of scenes.build
SCENES = {
    "speech": ("Speech over speech", "A voice prompt plays, and someone speaks over it from second 3, as loud as the "
               "prompt at the microphone.", ("rms", 3, 0), dict(far="allison", delay_ms=120)),
    "music": ("Music", "Music plays, and someone speaks over it from second 3, 6 dB below the music.",
              ("allison", 3, -6), dict(far="coffee", delay_ms=80)),
    "double_talk": ("Double talk", "Both talk from the beginning to the end, equally loud: the canceller never hears "
                    "the echo alone.", ("allison", 0.4, 0), dict(far="reader", delay_ms=60)),
    "path_change": ("Path change", "At second 6 the echo comes 40 ms later and 4 dB louder than before.",
                    ("awb", 2.5, 0), dict(far="allison", delay_ms=100, steps=((6, 40),), echo_gains=((6, 4),))),
    "small_loudspeaker": ("Small loudspeaker", "The loudspeaker has no bass and distorts much. What it "
                          "distorts no linear filter can remove. The speaker is 6 dB above it.", ("slt", 3, 6),
                          dict(far="reader", delay_ms=150, speaker="tiny")),
    "long_delay": ("Long delay", "The echo comes 600 ms after the sound was handed to the sound system, as over a "
                   "wireless loudspeaker. The speaker is 3 dB below it.", ("rms", 3, -3),
                   dict(far="allison", delay_ms=600)),
}


def to_int16(x):
    return np.round(np.clip(x, -0.999, 0.999) * scenes.FULL_SCALE).astype(np.int16)


def made(name, voice, first_s, level_db, build):
    """A case of systems.py, its near end alone (n, full scale 1), and what was said: (first sample, last, word)."""
    rng = np.random.default_rng(zlib.crc32(f"site {name}".encode()))
    scene = scenes.build(f"site_{name}", name, seconds=SECONDS, echo_db=ECHO_DBFS, rt60=0.25, direct_db=6, **build)
    words = rng.permutation(10)[:int((SECONDS - first_s) / 1.5)]
    near, spans = talkers.speak(voice, int(first_s * RATE), SECONDS * RATE, words, rng)
    near *= sounds.active_rms(scene.echo[:, 0], RATE) * 10 ** (level_db / 20)
    n = len(near) // 256 * 256
    noise = scene.microphones - scene.echo
    lpb = to_int16(scene.references[:n])
    delays = np.round(scenes.delay_at(scene.knots, np.arange(n) / RATE))
    case = dict(mic=to_int16(scene.microphones[:n] + near[:n, None]), clean=to_int16(near[:n, None] + noise[:n]),
                lpb=lpb, near=near[:n, None], rate=RATE, frame=256, mics=1, refs=1, kept=1, params={},
                shifted=scenes.held_back(lpb, delays).astype(np.int16))
    return case, near[:n], spans


def outputs_of(case, folder):
    """System -> its output (n, int16)."""
    runs = {
        "microphone": case["mic"],
        "speex": peers.run_speex_preprocessed(case, case["shifted"]),
        "webrtc": peers.run_webrtc_today(case, folder),
        "nax_aec": systems.run_library(case, case["lpb"], True)[0],
        "nax_res": systems.run_suppressed(case, case["lpb"]),
        "near": case["clean"],
    }
    return {system: np.ascontiguousarray(output[:, 0]) for system, output in runs.items()}


def near_gain(output, near):
    """By how much the near end (n) is louder in the output (n) than it was, its sign perhaps turned."""
    talking = np.repeat(sounds.frame_powers(near, 256) > 1e-3 * (near * near).max(), 256)
    x, y = (signal[:len(talking)][talking] for signal in (output, near))
    return abs((x * y).sum()) / (y * y).sum()


def removed(output, mic, near):
    """Echo removed, in dB, in each STEP_S: the power of what is not the near end, before and after; the near end
    counts as loud as it is in that stretch. None where little is played."""
    size = int(STEP_S * RATE)
    before = (mic - near)[:len(mic) // size * size].reshape(-1, size)
    rows = [x[:len(mic) // size * size].reshape(-1, size) for x in (output, near)]
    gains = (rows[0] * rows[1]).sum(axis=1) / ((rows[1] ** 2).sum(axis=1) + 1e-6 * size)
    after = rows[0] - np.clip(gains, -2, 2)[:, None] * rows[1]
    powers = [(x * x).mean(axis=1) + 1e-12 for x in (before, after)]
    heard = powers[0] > 1e-3 * powers[0].max()
    return [round(float(10 * np.log10(b / a)), 1) if h else None for b, a, h in zip(*powers, heard)]


def write_flac(path, samples):
    """samples (n, int16) as FLAC."""
    wave = path.with_suffix(".wav")
    wavfile.write(wave, RATE, samples)
    subprocess.run(["flac", "--silent", "--force", "--best", "-o", path, wave], check=True)
    wave.unlink()


def render(name, folder, out):
    """Writes the files of a scene; returns its record."""
    title, text, (voice, first_s, level_db), build = SCENES[name]
    case, near, spans = made(name, voice, first_s, level_db, build)
    outputs = outputs_of(case, folder)
    heard = recogniser.recognise(list(outputs.values()), spans)
    mic = case["mic"][:, 0] / scenes.FULL_SCALE
    loudness = 10 ** (NEAR_DBFS / 20) / sounds.active_rms(near, RATE)
    tracks = []
    for (system, output), words in zip(outputs.items(), heard):
        x = output / scenes.FULL_SCALE
        makeup = 1 / np.clip(near_gain(x, near), 10 ** (-MOST_GAIN_DB / 20), 1)
        makeup = min(makeup, FULL / (np.abs(x).max() * loudness))
        y = x * makeup * loudness
        write_flac(out / f"{name}_{system}.flac", to_int16(y))
        tracks.append(dict(system=system, file=f"{name}_{system}.flac", gain_db=round(20 * np.log10(makeup), 1),
                           heard=words, removed=None if system in ("microphone", "near") else removed(x, mic, near)))
        print(f"{name:18s} {system:11s} {makeup:5.2f} peak {np.abs(y).max():.2f}", *words, file=sys.stderr)
    said = [dict(word=talkers.WORDS[number], start=round(begin / RATE, 2), end=round(end / RATE, 2))
            for begin, end, number in spans]
    return dict(id=name, title=title, text=text, said=said, tracks=tracks)


def main():
    parser = argparse.ArgumentParser(description="Makes the sounds of the page.")
    parser.add_argument("out", type=pathlib.Path, help="folder for the FLAC files and scenes.json")
    parser.add_argument("--cache", type=pathlib.Path, default=ROOT / "build" / "barge_in",
                        help="folder where npm installs WebRTC of today")
    options = parser.parse_args()
    options.out.mkdir(parents=True, exist_ok=True)
    peers.set_up_webrtc_today(options.cache / "peers")
    records = [render(name, options.cache / "peers", options.out) for name in SCENES]
    for name, source in PLAYED.items():
        x = sounds.source(source, RATE)[RATE:RATE * (1 + PLAYED_S)]
        write_flac(options.out / f"{name}.flac", to_int16(x * min(1, FULL / np.abs(x).max())))
    named = [dict(id=system, name=name, note=note) for system, (name, note) in SYSTEMS.items()]
    page = dict(rate=RATE, seconds=SECONDS, step_s=STEP_S, systems=named, scenes=records)
    (options.out / "scenes.json").write_text(json.dumps(page))


if __name__ == "__main__":
    main()
