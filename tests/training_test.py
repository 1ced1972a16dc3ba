#!/usr/bin/python3
"""training/clips.py: the calls that the suppressor's network learns from. Voices and music are
bursts of noise here, so that no recording is needed. Ends with status 77, which CTest counts as
skipped, when NumPy or SciPy is missing.
"""
import importlib.util
import pathlib
import sys
import types
import unittest
import zlib
from unittest import mock

for name in ("numpy", "scipy"):
    if importlib.util.find_spec(name) is None:
        print(f"training_test: skipped, python3-{name} is not installed")
        sys.exit(77)
import numpy as np  # noqa: E402

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "training"))
sys.modules["soundfile"] = types.ModuleType("soundfile")        # reads no file here
import clips  # noqa: E402
import voices  # noqa: E402

SECONDS, CLIPS = 2, range(30)
RATES = (8000, 16000, 32000, 48000)
MUSIC = [f"/piece/{number}.ogg" for number in range(4)]


def burst(path, seconds, rate):
    """White noise of level 1 that is the path's own."""
    return np.random.default_rng(zlib.crc32(path.encode())).standard_normal(int(seconds * rate))


def decibels_of(x, rate):
    return 20 * np.log10(voices.active_rms(x, rate) / clips.FULL_SCALE)


class Clips(unittest.TestCase):
    def setUp(self):
        self.used = set()                       # voices and pieces of music

        def words(voice):
            self.used.add(voice)
            return [f"{voice}/{word}" for word in range(5)]

        def piece(path, rate):
            self.used.add(path)
            return burst(path, 3, rate)

        for module, replaced in (
                (clips, {"SECONDS": SECONDS}),
                (voices, {"MUSIC": MUSIC, "HELD_OUT_MUSIC": MUSIC[:2], "words": words, "piece": piece,
                          "word": lambda path, rate: burst(path, 0.3, rate)})):
            patch = mock.patch.multiple(module, **replaced)
            patch.start()
            self.addCleanup(patch.stop)

    def assert_same(self, one, other):
        self.assertEqual(one[0], other[0])
        np.testing.assert_array_equal(one[1], other[1])

    def test_the_same_number_gives_the_same_samples_whatever_came_before(self):
        first = [clips.mixture(number, False) for number in range(4)]
        np.random.seed(5)
        for number in (3, 0, 2, 1):
            self.assert_same(clips.mixture(number, False), first[number])

    def test_every_number_and_each_of_both_sets_has_samples_of_its_own(self):
        made = {clips.mixture(number, held_out)[1].tobytes() for number in range(4) for held_out in (False, True)}
        self.assertEqual(len(made), 8)

    def test_voices_and_music_that_are_held_out_are_not_trained_on(self):
        held_out = {*voices.HELD_OUT_VOICES, *MUSIC[:2]}
        self.assertGreater(len(held_out), 4)
        for number in CLIPS:
            clips.mixture(number, False)
        self.assertTrue(self.used & set(MUSIC))
        self.assertFalse(self.used & held_out)
        self.used.clear()
        for number in CLIPS:
            clips.mixture(number, True)
        self.assertTrue(self.used & set(MUSIC))
        self.assertLessEqual(self.used, held_out)

    def test_rates_and_levels_are_those_that_are_drawn(self):
        rates, clipped = [], 0
        for number in CLIPS:
            rate, samples = clips.mixture(number, False)
            rates.append(rate)
            self.assertEqual(samples.shape, (SECONDS * rate, 3))
            self.assertEqual(samples.dtype, np.int16)
            mic, ref, near = samples.T.astype(float)
            clipped += np.abs(mic).max() >= clips.FULL_SCALE - 1
            for x, loudest in ((mic, -1), (ref, -13), (near, -1)):
                if np.abs(x).max() > 100:
                    self.assertLess(decibels_of(x, rate), loudest)
                    self.assertGreater(decibels_of(x, rate), -65)
        self.assertLessEqual(set(rates), set(RATES))
        self.assertGreater(rates.count(16000), len(CLIPS) / 2)
        self.assertLess(clipped, len(CLIPS) / 5)

    def test_the_near_end_that_is_told_is_what_the_microphone_hears_of_it(self):
        heard = 0
        with mock.patch.multiple(clips, echo_of=lambda rng, far, rate: np.zeros_like(far),
                                 noise=lambda rng, rate, samples: np.zeros(samples)):
            for number in CLIPS:
                mic, _, near = clips.mixture(number, False)[1].T
                np.testing.assert_array_equal(mic, near)
                heard += near.any()
        self.assertGreater(heard, len(CLIPS) / 2)

    def test_the_echo_is_that_of_the_reference(self):
        heard = 0
        with mock.patch.multiple(clips, echo_of=lambda rng, far, rate: far,
                                 noise=lambda rng, rate, samples: np.zeros(samples)):
            for number in CLIPS:
                mic, ref, near = clips.mixture(number, False)[1].T.astype(float)
                echo = mic - near
                if np.abs(ref).max() < 100 or np.abs(echo).max() < 100:
                    continue                    # silence, headphones
                self.assertGreater(np.corrcoef(echo, ref)[0, 1], 0.7, number)
                heard += 1
        self.assertGreater(heard, len(CLIPS) / 2)

    def test_a_loud_call_is_turned_down_and_few_clip(self):
        clipped, turned_down, number = 0, 0, 0
        with mock.patch.multiple(clips, echo_of=lambda rng, far, rate: 100 * far,
                                 noise=lambda rng, rate, samples: np.zeros(samples)):
            while (turned_down < 15 or clipped < 1) and number < 150:
                mic, ref, near = clips.mixture(number, False)[1].T.astype(float)
                number += 1
                if np.abs(mic - near).max() < 0.5 * clips.FULL_SCALE:
                    continue                    # no echo
                loudest = np.abs(mic).max()
                loud = np.abs(mic) > 0.8 * loudest
                self.assertGreater((mic * ref > 0)[loud].mean(), 0.9, number - 1)
                clipped += loudest >= clips.FULL_SCALE - 1
                turned_down += loudest < clips.FULL_SCALE - 1
        self.assertGreater(clipped, 0)
        self.assertGreater(turned_down, 4 * clipped)

    def test_an_active_level_leaves_pauses_out(self):
        x = burst("talker", 2, 16000)
        x[8000:24000] *= 0.01
        self.assertAlmostEqual(voices.active_rms(x, 16000), 1, delta=0.03)
        self.assertEqual(voices.active_rms(0 * x, 16000), 1)

    def test_a_room_begins_with_the_direct_sound_and_dies_away(self):
        for seed in range(40):
            for rate in RATES:
                path = clips.room(np.random.default_rng(seed), rate, -2)
                self.assertEqual(path[0], 1)
                self.assertGreaterEqual(len(path), int(0.08 * rate))
                self.assertLessEqual(len(path), rate)
                energy = path[1:] ** 2
                self.assertGreater(energy.sum(), 0.03)
                self.assertLess(energy[-len(energy) // 10:].sum(), 1e-4 * energy.sum())

    def test_noise_has_a_level_of_one(self):
        for seed in range(20):
            x = clips.noise(np.random.default_rng(seed), 16000, 8000)
            self.assertEqual(len(x), 8000)
            self.assertAlmostEqual(x.std(), 1)

    def test_a_loudspeaker_plays_at_every_rate_and_is_silent_in_silence(self):
        for rate in RATES:
            x = burst("far end", 0.2, rate)
            for seed in range(20):
                played = clips.loudspeaker(np.random.default_rng(seed), x, rate)
                self.assertEqual(played.shape, x.shape)
                self.assertGreater(played.std(), 0.01)
                self.assertLess(np.abs(played).max(), 100)
                silence = clips.loudspeaker(np.random.default_rng(seed), 0 * x, rate)
                self.assertFalse(silence.any())

    def test_an_echo_has_a_level_of_one_and_there_is_none_of_silence(self):
        for rate in RATES:
            far = burst("far end", 1, rate)
            for seed in range(12):
                echo = clips.echo_of(np.random.default_rng(seed), far, rate)
                self.assertEqual(echo.shape, far.shape)
                self.assertAlmostEqual(voices.active_rms(echo, rate), 1)
                self.assertFalse(clips.echo_of(np.random.default_rng(seed), 0 * far, rate).any())


if __name__ == "__main__":
    unittest.main()
