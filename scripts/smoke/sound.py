"""What scripts/smoke-plugins plays and records, and what it finds of it in what comes out.

The microphones hear a near end of noise and the echo of what is played. The near end is found
again in what comes out, every tenth of a second; where it lies elsewhere than before, samples
were lost or added in between, and are counted. How much echo is gone is compared with what
cancel_wav removes of the same sound.
"""
import functools
import os
import pathlib
import shutil
import subprocess
import tempfile
import wave

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BUILD = ROOT / os.environ.get("NAX_AEC_BUILD", "build/default")
RATE, SECONDS = 48000, 8
START = 1  # second from which on everything must be there


def noise(seed, deviation, channels):
    return np.random.default_rng(seed).normal(0, deviation, (RATE * SECONDS, channels))


def make_sound():
    """Near end, echo and what is played, two channels each."""
    near, played = noise(1, 800, 2), noise(2, 3000, 2)
    echo = np.zeros_like(played)
    late = RATE * 40 // 1000
    echo[late:] = 0.3 * played[:-late] + 0.2 * played[:-late, ::-1]
    return near, echo, np.rint(played).astype(np.int16)


NEAR, ECHO, PLAYED = make_sound()
MICS = np.rint(NEAR + ECHO).astype(np.int16)


def write_wav(path, samples):
    with wave.open(str(path), "wb") as file:
        file.setnchannels(samples.shape[1])
        file.setsampwidth(2)
        file.setframerate(RATE)
        file.writeframes(samples.tobytes())


def read_wav(path):
    """(n x channels int16). A recorder that was interrupted may leave an unfinished header."""
    with wave.open(str(path)) as file:
        channels = file.getnchannels()
    data = pathlib.Path(path).read_bytes()
    data = data[data.index(b"data") + 8 :]
    return np.frombuffer(data[: len(data) // (2 * channels) * 2 * channels], np.int16).reshape(-1, channels)


def near_at(block):
    """Where in the near end a block lies, in samples."""
    size = 1 << (RATE * SECONDS + len(block)).bit_length()
    likeness = np.fft.irfft(np.fft.rfft(NEAR[:, 0], size) * np.conj(np.fft.rfft(block, size)))
    return int(np.argmax(likeness[: len(NEAR)]))


def removed_db(out, at):
    """Of the echo in a stretch of cleaned microphone (n), which begins at sample at of the near end."""
    left = out - NEAR[at : at + len(out), 0]
    return 10 * np.log10(np.mean(ECHO[at : at + len(out), 0] ** 2) / np.mean(left**2))


@functools.lru_cache(maxsize=None)
def cleaned_by_cancel_wav(mics):
    """The first of so many microphones (n) with both references."""
    with tempfile.TemporaryDirectory() as folder:
        write_wav(f"{folder}/all.wav", np.hstack([MICS[:, :mics], PLAYED]))
        subprocess.run([BUILD / "tools/cancel_wav", "--quiet", "--mics", str(mics), f"{folder}/all.wav",
                        f"{folder}/out.wav"], check=True, stderr=subprocess.DEVNULL)
        return read_wav(f"{folder}/out.wav")[:, 0].astype(float)


def judge(name, out, mics=2):
    """Prints what was lost of a recording of cleaned microphones and what was removed; returns
    whether nothing was lost and no more than 1 dB less than by cancel_wav removed."""
    step = RATE // 10
    places = [near_at(out[at : at + step, 0]) - at for at in range(START * RATE, len(out) - step, step)]
    moves = np.diff(places)
    if len(places) < 20:
        print(f"{name}: only {len(out)} samples came out")
        return False
    at = places[-1] + len(out) - 2 * RATE
    removed = removed_db(out[-2 * RATE : -RATE // 2, 0].astype(float), at)
    could_be = removed_db(cleaned_by_cancel_wav(mics)[at : at + 3 * RATE // 2], at)
    gaps = [f"{START + 0.1 * gap:.1f} s" for gap in np.flatnonzero(moves)]
    print(f"{name}: {len(out) / RATE:.1f} s, {len(gaps)} gaps ({', '.join(gaps)}), "
          f"{np.abs(moves).sum()} samples lost or added, {removed:.1f} dB of echo removed "
          f"({could_be:.1f} by cancel_wav)")
    return not moves.any() and removed > could_be - 1


def skipped(name, files, programs):
    missing = [str(file) for file in files if not file.exists()]
    missing += [program for program in programs if not shutil.which(program)]
    if missing:
        print(f"{name}: skipped, without {', '.join(missing)}")
    return bool(missing)
