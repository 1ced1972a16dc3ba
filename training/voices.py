"""The recordings that the presence network is trained on: what Debian packages."""
import functools
import glob

import numpy as np
import soundfile
from scipy import ndimage, signal

# Bands of speech of one talker each: words, syllables or sentences in many files. None of
# these voices, and none of this music, is used by bench/ or by the tests.
VOICES = ([f"/usr/share/ktuberling/sounds/{language}" for language in
           "ca da de el en es fi fr ga gl it lt nds nl nn pt ro ru sl sr sv uk wa".split()] +
          [f"/usr/share/klettres/{language}" for language in
           "ar cs da de en en_GB es fr he hu it lt ml nb nds nl pt_BR ru tn uk".split()] +
          [f"/usr/share/games/hedgewars/Data/Sounds/voices/{pack}" for pack in
           "British Classic Default Default_es Default_pl Default_ru Default_uk HillBilly Mobster Pirate "
           "Robot Russian Russian_pl Singer Surfer".split()] +
          ["/usr/share/asterisk/sounds/it_IT_f_Menardi"])
MUSIC = sorted(glob.glob("/usr/share/games/hedgewars/Data/Music/*.ogg"))
PACKAGES = ("ktuberling-data", "klettres-data", "hedgewars-data", "asterisk-prompt-it-menardi-wav")

WORDS = 64                      # of a voice at most

# Held out of training, wholly, for validation.
HELD_OUT_VOICES = [v for v in VOICES if v.endswith(("ktuberling/sounds/el", "ktuberling/sounds/wa", "klettres/cs",
                                                    "klettres/he", "voices/Surfer"))]
HELD_OUT_MUSIC = [m for m in MUSIC if m.endswith(("/City.ogg", "/Jungle.ogg"))]


def at_rate(path, rate):
    """A file as float32 at rate, one channel (n)."""
    samples, own_rate = soundfile.read(path, dtype="float32", always_2d=True)
    common = np.gcd(rate, own_rate)
    return signal.resample_poly(samples.mean(axis=1), rate // common, own_rate // common).astype(np.float32)


@functools.lru_cache(maxsize=None)
def words(voice):
    """The files of a voice, at most WORDS of them."""
    files = [path for path in sorted(glob.glob(f"{voice}/**/*.*", recursive=True))
             if path.endswith((".ogg", ".opus", ".wav"))]
    return files[::-(-len(files) // WORDS)]


@functools.lru_cache(maxsize=None)
def word(path, rate):
    """A file at rate, silence at its ends cut off, active level 1 (n); n is 0 where there is
    less than 0.1 s of sound."""
    x = at_rate(path, rate)
    power = ndimage.uniform_filter1d(x.astype(float) ** 2, rate // 100) if len(x) else x
    loud = np.flatnonzero(power > 1e-3 * power.max()) if len(x) and power.max() > 0 else ()
    if len(loud) < rate // 10:
        return x[:0]
    x = x[max(0, loud[0] - rate // 50):loud[-1] + 1]
    return x / active_rms(x, rate)


@functools.lru_cache(maxsize=8)
def piece(path, rate):
    """A piece of music at rate, active level 1 (n)."""
    x = at_rate(path, rate)
    return x / active_rms(x, rate)


def active_rms(x, rate):
    """Root mean square over the frames of 16 ms within 30 dB of the loudest."""
    frame = rate * 16 // 1000
    powers = (x[:len(x) // frame * frame].astype(float).reshape(-1, frame) ** 2).mean(axis=1)
    return np.sqrt(powers[powers >= powers.max() * 1e-3].mean()) if powers.size and powers.any() else 1.0
