"""The near end of bench/barge_in: people who say words in a room."""
import functools
import subprocess
import tempfile

import numpy as np
from scipy import signal
from scipy.io import wavfile

import scenes
import sounds

RATE = 16000                    # of the recogniser's model, Hz
DIGITS = "zero one two three four five six seven eight nine".split()
PHRASE = "one moment please"    # a wake phrase that Debian's recorded voice says, too
WORDS = (*DIGITS, PHRASE)
VOICES = ("allison", "slt", "rms", "awb")       # the first recorded, the others flite's
PROMPTS = sounds.ASTERISK + "sounds/en_US_f_Allison/"


def trimmed(x):
    """x (n) from 10 ms before its first sound to 10 ms after its last, active level -20 dBFS."""
    loud = np.flatnonzero(np.convolve(x * x, np.ones(160), "same") > 1e-3 * 160 * (x * x).max() / 4)
    x = x[max(0, loud[0] - 160):loud[-1] + 160]
    return x * 0.1 / sounds.active_rms(x, RATE)


@functools.lru_cache(maxsize=None)
def spoken(voice):
    """The WORDS of a voice, each (n)."""
    def read(index, word):
        if voice == "allison":
            file = f"digits/{index}" if word in DIGITS else word.replace(" ", "-")
            return sounds.decode_g722(f"{PROMPTS}{file}.g722")
        with tempfile.NamedTemporaryFile(suffix=".wav") as file:
            subprocess.run(["flite", "-voice", voice, "-t", f"{word}.", file.name], check=True)
            return wavfile.read(file.name)[1]
    return [trimmed(read(*pair) / scenes.FULL_SCALE) for pair in enumerate(WORDS)]


def speak(voice, first, last, words, rng, slot=1.3):
    """Words (indices of WORDS) in a room, spread from sample first to last, one in slot seconds at
    most: the near end (last, active level 1), and of each word where it begins and ends and its
    index."""
    talk, spans = np.zeros(last), []
    starts = np.linspace(first, last - slot * RATE, len(words)) + rng.uniform(0, 0.2 * RATE, len(words))
    for start, word in zip(starts.astype(int), words):
        x = signal.resample_poly(spoken(voice)[word], 100, int(rng.integers(92, 109)))
        x = x[:int((slot - 0.3) * RATE)]
        talk[start:start + len(x)] += x
        spans.append((start, start + len(x), int(word)))
    room = sounds.room_response(rng, RATE, rng.uniform(0.15, 0.35), rng.uniform(0, 6))
    talk = signal.fftconvolve(talk, room)[:last]
    return talk / sounds.active_rms(talk, RATE), spans
