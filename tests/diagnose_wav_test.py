#!/usr/bin/python3
"""diagnose_wav on recordings made to have one fault each, and on healthy ones.

Calls are synthetic: noise with the rhythm and the slope of speech, a room of some
reflections and a decaying tail, a noise floor. A test names every code that is to be
found: what else is found is a failure. What the codes are made of is held by
diagnose_findings_test.py.
"""
import contextlib
import ctypes
import functools
import importlib.util
import io
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
from importlib.machinery import SourceFileLoader
from unittest import mock

try:
    import numpy as np
except ImportError:
    print("skipped: NumPy is missing")
    sys.exit(77)

ROOT = pathlib.Path(__file__).resolve().parents[1]
PROGRAM = ROOT / "tools" / "diagnose_wav"
SECONDS, DELAY = 4, 640


def load_program():
    sys.dont_write_bytecode = True
    loader = SourceFileLoader("diagnose_wav", str(PROGRAM))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("diagnose_wav", loader))
    loader.exec_module(module)
    return module


program = load_program()
from diagnosis import channel, files, findings, linear, measure, page                      # noqa: E402


@functools.lru_cache(maxsize=None)
def talk(rate, seconds, seed, level=0.1, gap=0.25):
    """Noise (n) with the slope of speech and syllables of a fifth of a second, a share of
    them silent; root mean square level while it sounds."""
    rng = np.random.default_rng(seed)
    n = int(rate * seconds)
    spectrum = np.fft.rfft(rng.standard_normal(n))
    frequency = np.maximum(np.fft.rfftfreq(n, 1 / rate), 200)
    sound = np.fft.irfft(spectrum * (frequency / 200) ** -0.7, n)
    syllables = rng.uniform(0.2, 1, int(seconds * 5) + 2) * (rng.random(int(seconds * 5) + 2) > gap)
    envelope = np.interp(np.arange(n) / rate * 5, np.arange(len(syllables)), syllables)
    sound *= envelope
    sound *= level / np.sqrt(np.mean(sound[envelope > 0.1] ** 2))
    sound.flags.writeable = False               # shared between tests
    return sound


def room(rate, seed):
    """A response (n) of 80 ms: direct path, reflections, tail."""
    rng = np.random.default_rng(seed)
    n = int(0.08 * rate)
    response = 0.15 * rng.standard_normal(n) * np.exp(-np.arange(n) / rate / 0.012) / np.sqrt(0.012 * rate)
    for ms in rng.uniform(1, 12, 4):
        response[int(ms * rate / 1000)] += rng.uniform(-0.3, 0.3)
    response[0] = 1
    return response


def echo_of(x, rate, late, seed=7, gain=0.5):
    """x (n) through a room, some samples later, perhaps fractional and an array (n)."""
    size = -(-(len(x) + rate) // 2048) * 2048
    wet = np.fft.irfft(np.fft.rfft(x, size) * np.fft.rfft(room(rate, seed), size), size)[:len(x)]
    return gain * np.interp(np.arange(len(x)) - late, np.arange(len(x)), wet, left=0)


def noise(n, seed, db=-65):
    return 10 ** (db / 20) * np.random.default_rng(seed).standard_normal(n)


def to_int16(x):
    return np.clip(np.round(x * 32768), -32768, 32767).astype(np.int16)


def call(rate=16000, seconds=SECONDS, late=DELAY, near=0.0, floor=-65, seed=1):
    """A microphone and a reference (n each, full scale 1)."""
    x = talk(rate, seconds, seed)
    y = echo_of(x, rate, late) + noise(len(x), seed + 50, floor)
    return y + near * talk(rate, seconds, seed + 100, gap=0.5), x


MIC_REF = ("microphone", "reference")


def measured(channels, rate=16000, expected=MIC_REF):
    """Measures of channels (full scale 1, or int16 as they are)."""
    samples = [c if c.dtype == np.int16 else to_int16(c) for c in channels]
    sound = files.Sound("call.wav", rate, samples, True)
    return measure.measured(measure.recording("call.wav", [sound], expected or [None] * len(samples)))


@functools.lru_cache(maxsize=None)
def standard():
    """The Measures of a healthy call."""
    return measured(call())


def found(*arguments, **options):
    return findings.judged(measured(*arguments, **options))


def codes(*arguments, **options):
    return [one.code for one in found(*arguments, **options)]


class Healthy(unittest.TestCase):
    """Nothing is found, and the figures are right."""

    def expect_healthy(self, channels, late=DELAY, **options):
        m = measured(channels, **options)
        self.assertEqual([(one.code, one.text) for one in findings.judged(m)], [])
        for one in m.echoes[0].sections:
            self.assertTrue(one.sure)
            self.assertAlmostEqual(one.arrival * m.rate, late, delta=2e-4 * m.rate)
        return m

    def test_at_every_rate(self):
        for rate in (8000, 48000):
            with self.subTest(rate=rate):
                self.expect_healthy(call(rate, SECONDS, rate // 20), rate // 20, rate=rate)

    def test_at_any_delay_of_the_delay_lines(self):
        for late in (0, 100, 12000):
            with self.subTest(late=late):
                self.expect_healthy(call(late=late), late)

    def test_while_both_talk(self):
        self.expect_healthy(call(near=0.5))

    def test_with_two_microphones_and_two_references(self):
        (y, x), other = call(), talk(16000, SECONDS, 5)
        second = echo_of(x, 16000, 645, 8) + echo_of(other, 16000, 650, 9) + noise(len(x), 3)
        first = y + echo_of(other, 16000, 655, 10)
        m = self.expect_healthy([first, second, x, other], expected=None)
        self.assertEqual([one.role for one in m.channels], ["microphone"] * 2 + ["reference"] * 2)
        self.assertEqual(len(m.echoes), 2)

    def test_with_a_level_change_and_a_pause(self):
        x = talk(16000, 8, 1)
        gain = np.ones(len(x))
        gain[3 * 16000:5 * 16000], gain[5 * 16000:] = 0, 0.3
        self.expect_healthy([echo_of(x * gain, 16000, DELAY) + noise(len(x), 4), x * gain])

    def test_with_a_reflection_that_is_louder_than_the_first_arrival(self):
        y, x = call(floor=-80)
        for later in (80, 400):         # 5 and 25 ms
            (one,) = measured([0.6 * y + np.r_[np.zeros(later), y[:-later]], x]).echoes[0].sections
            self.assertTrue(one.sure)
            self.assertAlmostEqual(one.arrival * 16000, DELAY, delta=2)
            self.assertAlmostEqual(one.strongest * 16000, DELAY + later, delta=2)

    def test_steady_tones_are_not_taken_for_a_moving_delay(self):
        time = np.arange(SECONDS * 16000) / 16000
        x = sum(0.05 * np.sin(2 * np.pi * f * time) for f in (220, 277, 330, 440)) + 0.2 * talk(16000, SECONDS, 1)
        self.assertEqual(codes([echo_of(x, 16000, DELAY) + noise(len(x), 4), x]), [])

    def test_tones_that_change_show_their_delay_and_no_band(self):
        time = np.arange(SECONDS * 16000) / 16000
        step = (time * 2).astype(int)
        random = np.random.default_rng(3).uniform(250, 3000, 2 * SECONDS)
        for pitch in (random[step], 900 + 500 * np.sin(2.3 * time)):
            x = 0.1 * np.sin(2 * np.pi * np.cumsum(pitch) / 16000)
            m = measured([echo_of(x, 16000, DELAY) + noise(len(x), 4), x])
            self.assertLessEqual({one.code for one in findings.judged(m)}, {"misaligned"})   # it takes speech
            self.assertAlmostEqual(np.median(m.echoes[0].delays) * 16000, DELAY, delta=4)


class Channels(unittest.TestCase):
    """What is measured of channels: which are what, levels, copies."""

    def test_roles_are_found_in_any_order(self):
        y, x = call()
        m = measured((x, y), expected=None)
        self.assertEqual(([one.role for one in m.channels], findings.judged(m)), ([*MIC_REF[::-1]], []))

    def test_a_microphone_that_starts_in_digital_silence_stays_one(self):
        y, x = call()
        self.assertEqual(codes([np.r_[np.zeros(3200), y[:-3200]], x + noise(len(x), 9, -45)]), [])

    def test_a_reference_in_the_place_of_a_microphone(self):
        m = measured(call()[::-1])
        self.assertEqual([one.code for one in findings.judged(m)], ["roles"])
        self.assertEqual([one.role for one in m.channels], [*MIC_REF[::-1]])

    def test_swapped_bytes_are_found_and_put_right(self):
        y, x = map(to_int16, call())
        m = measured([y, x.byteswap()])
        self.assertEqual([(one.swapped) for one in m.channels], [False, True])
        self.assertEqual([one.code for one in findings.judged(m)], ["byte-order"])
        self.assertAlmostEqual(m.echoes[0].sections[0].arrival * 16000, DELAY, delta=2)
        self.assertTrue(channel.bytes_look_swapped(y.byteswap()))
        self.assertFalse(channel.bytes_look_swapped(x // 16 * 16))      # 12 bits, moved up

    def test_silent_references(self):
        y, x = call()
        self.assertEqual(codes([y, noise(len(x), 9, -80)]), ["reference-silent"])
        self.assertEqual(codes([y, x, np.zeros(len(x))], expected=[*MIC_REF, "reference"]), ["reference-silent"])

    def test_clipping_at_full_scale_and_below_it(self):
        y, x = call()
        self.assertEqual(codes([y, np.clip(12 * x, -1, 1)]), ["clipped"])
        self.assertGreater(channel.clipped_share(to_int16(np.clip(y, -0.1, 0.1))), findings.CLIPPED)

    def test_an_offset(self):
        y, x = call()
        self.assertEqual(codes([y + 3000 / 32768, x]), ["offset"])

    def test_drop_outs_are_told_from_digital_silence(self):
        y, x = map(to_int16, call())
        cut = y.copy()
        for at in (8000, 24000, 56000):         # 30 ms
            cut[at:at + 480] = 0
        self.assertEqual([(round(t, 2), round(s, 2)) for t, s in channel.drop_outs(cut, 16000)],
                         [(0.5, 0.03), (1.5, 0.03), (3.5, 0.03)])
        self.assertEqual(codes([cut, x]), ["drop-outs"])
        faded = to_int16(talk(16000, SECONDS, 1, gap=0.6))
        self.assertEqual(channel.drop_outs(faded, 16000), [])

    def test_a_gain_that_swings(self):
        x = talk(16000, 10, 1)
        time = np.arange(len(x)) / 16000
        y = echo_of(x, 16000, DELAY) * 10 ** (3 * np.sin(2 * np.pi * time / 4) / 20) + noise(len(x), 5)
        (one,) = found([y, x])
        self.assertEqual((one.code, "by 6 dB" in one.text), ("gain-swings", True), one.text)

    def test_a_reference_that_is_the_microphone_or_is_there_twice(self):
        y, x = call()
        self.assertEqual(codes([y, 0.7 * y]), ["reference-is-microphone"])
        self.assertEqual(codes([y, x, x], expected=[*MIC_REF, "reference"]), ["reference-twice"])

    def test_near_end_in_the_reference(self):
        y, x = call(seconds=8)
        near = 0.7 * talk(16000, 8, 101, gap=0.5) * (np.arange(len(x)) > 3 * 16000)
        m = measured([y + near, x + 0.5 * near])
        self.assertEqual([one.code for one in findings.judged(m)], ["side-tone"])
        self.assertAlmostEqual(m.echoes[0].sections[0].strongest * 16000, DELAY, delta=2)

    def test_a_reference_that_leaks_into_the_microphone_is_no_side_tone(self):
        y, x = call(seconds=8)
        self.assertNotIn("side-tone", codes([y + 0.3 * x, x]))

    def test_a_reference_that_is_not_heard(self):
        y, x = call()
        self.assertEqual(codes([y, talk(16000, SECONDS, 99)]), ["no-echo"])

    def test_a_reference_of_nothing_but_tones_or_repetition(self):
        time = np.arange(SECONDS * 16000) / 16000

        def tones(*pitches):
            return sum(0.05 * np.sin(2 * np.pi * pitch * time) for pitch in pitches)

        def beeps(period):
            return time % period < period / 2

        for name, x in (("tone", tones(1000)), ("hum", tones(50, 150, 250)), ("chord", tones(220, 262, 330)),
                        ("engaged", tones(425) * beeps(0.96)), ("key", tones(697, 1209) * beeps(0.2)),
                        ("warble", 0.1 * np.sin(2 * np.pi * 900 * time + 20 * np.sin(8 * np.pi * time)))):
            with self.subTest(name):
                self.assertEqual(codes([echo_of(x, 16000, DELAY) + noise(len(x), 4), x]), ["tones"])
        tone = tones(1000)                      # 30 ms late are whole periods: the same samples
        self.assertEqual(codes([0.5 * np.r_[np.zeros(480), tone[:-480]], tone]), ["tones"])


class Delay(unittest.TestCase):
    def expect(self, channels, code, text):
        m = measured(channels)
        judged = findings.judged(m)
        self.assertEqual([one.code for one in judged], [code])
        self.assertRegex(judged[0].text, text)
        return m

    def test_a_reference_later_than_its_echo(self):
        y, x = call()
        self.expect([y, np.r_[np.zeros(2000), x[:-2000]]], "reference-late", r"85\.0 ms later")

    def test_an_echo_later_than_the_delay_lines_hold(self):
        for late in (12100, 16000):
            self.expect(call(late=late), "delay-too-long", f"{late} samples late")

    def test_steps(self):
        for samples in (320, -80):
            with self.subTest(samples=samples):
                late = np.where(np.arange(6 * 16000) < 3 * 16000, DELAY, DELAY + samples)
                self.expect(call(seconds=6, late=late), "delay-steps",
                            r"[23]\.\d s \(" + re.escape(f"{samples / 16:+.1f} ms)"))

    def test_a_step_in_silence_is_between_two_times(self):
        x = talk(16000, 10, 1) * np.repeat([1, 0, 1], [3 * 16000, 4 * 16000, 3 * 16000])
        late = np.where(np.arange(len(x)) < 5 * 16000, DELAY, DELAY + 320)
        self.expect([echo_of(x, 16000, late) + noise(len(x), 4), x], "delay-steps",
                    r"between 3 and 7 s \(\+20\.0 ms\)")

    def test_another_path_is_no_step(self):
        (y, x), half = call(seconds=6), 3 * 16000
        other = echo_of(x, 16000, DELAY + 43, seed=8) + noise(len(x), 3)
        self.expect([np.r_[y[:half], other[half:]], x], "path-changed", r"\(\+2\.7 ms\)")

    def test_drift(self):
        for ppm in (-60, 200):
            with self.subTest(ppm=ppm):
                late = DELAY + np.arange(8 * 16000) * ppm * 1e-6
                m = self.expect(call(seconds=8, late=late), "drift", "two clocks")
                self.assertAlmostEqual(m.echoes[0].drift_ppm, ppm, delta=5)

    def test_a_microphone_of_another_rate(self):
        x = talk(16000, 9, 1)
        y = echo_of(x, 16000, DELAY) + noise(len(x), 8)
        fast = np.interp(np.arange(8 * 16000) / 1.01, np.arange(len(y)), y)
        self.expect([fast, x], "rates-differ", r"runs 1\.0\d % fast")
        self.expect([y[::2], x[:len(y[::2])]], "rates-differ", "runs at 2 times")


class Spectra(unittest.TestCase):
    @staticmethod
    def band_limited(x, rate, top):
        """x (n) without anything above top in Hz, as a resampler leaves it."""
        spectrum = np.fft.rfft(x)
        spectrum[np.fft.rfftfreq(len(x), 1 / rate) > top] = 0
        return np.fft.irfft(spectrum, len(x))

    def test_a_file_that_claims_more_than_its_spectra_show(self):
        for rate, made in ((48000, 16000), (16000, 8000)):
            with self.subTest(rate=rate):
                channels = [self.band_limited(c, rate, 0.47 * made) for c in call(rate, SECONDS, rate // 20)]
                (one,) = found(channels, rate)
                self.assertEqual((one.code, f"made at {made} Hz" in one.text), ("rate", True), one.text)

    def test_a_reference_of_half_the_band_where_more_is_played(self):
        x = talk(16000, SECONDS, 1) * np.repeat(np.arange(8) % 4 > 0, SECONDS * 2000)
        y = echo_of(x, 16000, DELAY) + noise(len(x), 4)
        self.assertEqual(codes([y, self.band_limited(x, 16000, 3800)]), ["band"])
        alone = echo_of(self.band_limited(x, 16000, 3800), 16000, DELAY) + noise(len(x), 4, -45)
        self.assertEqual(codes([alone, self.band_limited(x, 16000, 3800)]), [])


class Linear(unittest.TestCase):
    def test_how_much_a_filter_could_remove(self):
        # An echo of -26 dB in noise, some of it in the tail.
        self.assertAlmostEqual(measured(call(floor=-56)).echoes[0].long[0], 30, delta=3)

    def test_the_best_filter_is_found_of_a_loudspeaker_without_bass(self):
        spectrum = np.fft.rfft(talk(16000, 2, 1))
        x = np.fft.irfft(spectrum / np.maximum(np.fft.rfftfreq(32000, 1 / 16000), 200), 32000)
        y = np.diff(echo_of(x, 16000, 20), 2, prepend=[0, 0])
        for _, left in linear.best_filters([x], y, [512, 2048]):
            self.assertGreater(channel.decibels(np.sum(y * y) / np.sum(left * left)), 15)

    def test_drift_and_steps_take_nothing_from_it(self):
        standing = measured(call(seconds=8, floor=-46)).echoes[0].short[0]
        time = np.arange(8 * 16000)
        for late in (DELAY + time * 200e-6, np.where(time < 4.6 * 16000, 640.0, 960.0)):
            self.assertAlmostEqual(measured(call(seconds=8, late=late, floor=-46)).echoes[0].short[0], standing,
                                   delta=2)

    def test_an_echo_that_is_hardly_linear(self):
        y, x = call()
        rattle = np.abs(x) - np.abs(x).mean()
        self.assertEqual(codes([0.5 * y + echo_of(rattle, 16000, DELAY, 11, 1.5), x]), ["not-linear"])

    def test_an_echo_below_the_noise(self):
        self.assertEqual(codes(call(floor=-21)), ["not-linear"])


class Library(unittest.TestCase):
    """The library is run on the recording, and its advice with it."""

    def test_what_it_applies_and_removes_is_measured(self):
        m = standard()
        self.assertEqual(m.not_run, "")
        self.assertLessEqual(m.run.delays[-1], DELAY)
        self.assertGreater(m.run.delays[-1], DELAY - 512)
        self.assertGreater(m.run.removed[1], 15)

    def test_the_meters_verdict_is_told_in_its_own_words(self):
        self.assertEqual(standard().run.verdict, "cancelling: the echo is being cancelled")
        m = measured(call(seconds=8, late=16000))
        self.assertEqual(m.run.verdict, "not-cancelling: the echo is there and is not cancelled")
        self.assertIn(f"\nMeter:    {m.run.verdict}.\n", page.page(m, []))

    def test_a_base_delay_is_advised_that_the_library_keeps(self):
        run = standard().advised
        self.assertGreater(run.delay_len, DELAY - 2 * 256)
        self.assertEqual(run.delays[0], run.delay_len)
        self.assertLessEqual(run.delays[-1], DELAY)

    def test_none_is_advised_where_none_helps(self):
        self.assertIsNone(measured(call(late=100)).advised)
        self.assertIsNone(measured(call(late=16000)).advised)

    def test_without_it_the_rest_is_told(self):
        with mock.patch.object(measure.library, "binding", side_effect=OSError("no /nowhere.so")):
            m = measured(call())
        self.assertEqual((findings.judged(m), m.not_run), ([], "no /nowhere.so"))


class Files(unittest.TestCase):
    """Through the command line, in this process."""

    WAV, AU, FLAC, OGG = 0x10000, 0x30000, 0x170000, 0x200000
    PCM_8, PCM_16, PCM_24, PCM_U8, FLOAT, VORBIS = 1, 2, 3, 5, 6, 0x60

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.y, cls.x = call()

    def write(self, name, channels, rate=16000, format=WAV | PCM_16):
        lib = ctypes.CDLL("libsndfile.so.1")
        lib.sf_open.restype = ctypes.c_void_p
        info = files._Info(0, rate, len(channels), format, 0, 0)
        file = lib.sf_open(str(self.folder / name).encode(), 0x20, ctypes.byref(info))
        self.assertTrue(file, name)
        data = np.ascontiguousarray(np.stack(channels, 1), np.float32)
        lib.sf_writef_float(ctypes.c_void_p(file), data.ctypes.data_as(ctypes.c_void_p), ctypes.c_int64(len(data)))
        lib.sf_close(ctypes.c_void_p(file))

    def run_program(self, *arguments):
        """Exit status, standard output and standard error."""
        out, err = io.StringIO(), io.StringIO()
        arguments = [str(self.folder / a) if "." in a else a for a in arguments]
        with mock.patch("sys.argv", ["diagnose_wav", *arguments]), contextlib.redirect_stdout(out), \
                contextlib.redirect_stderr(err):
            try:
                status = program.main()
            except SystemExit as leaving:
                status = leaving.code
        return status, out.getvalue(), err.getvalue()

    def test_every_format_that_libsndfile_reads(self):
        exact, eight_bits, lossy = 4e-5, 9e-3, 0.2
        for name, format, most_off in (("24.wav", self.WAV | self.PCM_24, exact),
                                       ("f.wav", self.WAV | self.FLOAT, exact),
                                       ("8.wav", self.WAV | self.PCM_U8, eight_bits),
                                       ("a.flac", self.FLAC | self.PCM_24, exact),
                                       ("a.au", self.AU | self.PCM_16, exact),
                                       ("a.ogg", self.OGG | self.VORBIS, lossy)):
            with self.subTest(name):
                self.write(name, [self.y, self.x], format=format)
                sound = files.read(self.folder / name, 120)
                self.assertEqual((sound.rate, len(sound.samples), sound.is_16_bit),
                                 (16000, 2, format & 0xffff == self.PCM_16))
                self.assertLess(np.abs(sound.samples[1] / 32768 - self.x).max(), most_off)

    def test_every_rate_becomes_one_that_the_library_takes(self):
        self.assertEqual([files.rate_for(r) for r in (7350, 11025, 16000, 22050, 44100, 96000)],
                         [8000, 16000, 16000, 32000, 48000, 48000])
        y, x = call(44100, SECONDS, 2205)
        self.write("mic.flac", [y], 44100, self.FLAC | self.PCM_16)
        self.write("ref.wav", [x], 44100)
        status, out, err = self.run_program("mic.flac", "ref.wav")
        self.assertEqual((status, err), (0, ""), out)
        self.assertIn("44100 Hz taken as 48000 Hz", out)
        self.assertRegex(out, r"(239\d|240\d) samples, +50\.0 ms late")

    def test_files_of_two_rates_and_lengths_are_judged_together(self):
        x = talk(48000, 5, 1)
        self.write("mic.wav", [files.converted(echo_of(x, 48000, 2400), 48000, 16000) + noise(5 * 16000, 2)])
        self.write("ref.wav", [np.r_[x, x[:24000]]], 48000)
        status, out, err = self.run_program("mic.wav", "ref.wav")
        self.assertRegex(out, r"(79\d|80\d) samples, +50\.0 ms late")
        self.assertRegex(err, r"^diagnose_wav: .*ref\.wav: is 0\.500 s longer than .*mic\.wav, what is more is ")

    def test_two_files_and_a_chart(self):
        self.write("mic.wav", [self.y])
        self.write("ref.wav", [self.x])
        chart = ["--chart", "chart.svg"] if importlib.util.find_spec("matplotlib") else []
        status, out, err = self.run_program("mic.wav", "ref.wav", *chart)
        self.assertEqual((status, err), (0, ""))
        self.assertIn("Nothing wrong found.", out)
        self.assertIn(".pos = 1,", out)
        if chart:
            self.assertIn("applied by the library", (self.folder / "chart.svg").read_text())

    def test_channels_are_picked_from_many(self):
        other = talk(16000, SECONDS, 60)
        self.write("array.wav", [other, self.y, other, self.x])
        status, out, _ = self.run_program("array.wav", "--channels", "1:3")
        self.assertEqual(status, 0, out)
        self.assertIn("2 channels", out)
        self.assertIn("640 samples", out)

    def test_a_fault_is_said_with_its_cure_and_a_status(self):
        self.write("all.wav", [0 * self.x, self.y])
        status, out, _ = self.run_program("all.wav", "--order", "refs-first")
        self.assertEqual(status, 3)
        self.assertIn("[reference-silent]", out)
        self.assertIn("  Cure:", out)

    def test_files_that_it_cannot_use(self):
        self.write("mic.wav", [self.y])
        self.write("short.wav", [self.y[:8000]])
        self.write("empty.wav", [self.y[:0]])
        self.write("nan.wav", [np.nan * self.y], format=self.WAV | self.FLOAT)
        (self.folder / "nothing.wav").touch()
        (self.folder / "folder.wav").mkdir()
        (self.folder / "text.m4a").write_text("no audio")
        whole = (self.folder / "mic.wav").read_bytes()
        for rate in (0, 7):
            (self.folder / f"rate{rate}.wav").write_bytes(whole[:24] + rate.to_bytes(4, "little") + whole[28:])
        for name, reason in (("none.wav", "No such file or directory"), ("short.wav", "is 0.5 s long"),
                             ("text.m4a", "Format not recognised; convert it, for instance by ffmpeg -i "),
                             ("empty.wav", "holds no samples"), ("nothing.wav", "is empty"), ("folder.wav", "Is a dir"),
                             ("nan.wav", "holds samples that are not numbers"), ("rate0.wav", "says no rate"),
                             ("rate7.wav", "says 7 Hz")):
            status, _, err = self.run_program("mic.wav", name)
            self.assertEqual(status, 1, name)
            self.assertRegex(err, f"^diagnose_wav: .*{re.escape(name)}: {re.escape(reason)}")
        self.assertIn("give the reference as a second file", self.run_program("mic.wav")[2])
        self.assertIn("--channels: 7 is outside", self.run_program("mic.wav", "mic.wav", "--channels", "0:7")[2])

    def test_a_recording_that_was_cut_short_within_a_sample(self):
        self.write("all.wav", [self.y, self.x])
        path = self.folder / "all.wav"
        path.write_bytes(path.read_bytes()[:-3])
        self.assertEqual([len(x) for x in files.read(path, 120).samples], [len(self.x) - 1] * 2)

    def test_a_wrong_command_line(self):
        for arguments in ([], ["a.wav", "b.wav", "c.wav"], ["a.wav", "b.wav", "--mics", "1"], ["--mics", "3", "a"],
                          ["a.wav", "--channels", "0"], ["a.wav", "--channels", "0:1", "--mics", "1"]):
            self.assertEqual(self.run_program(*arguments)[0], 2, arguments)

    def test_it_says_its_version(self):
        header = (ROOT / "include/nax_aec.h").read_text()
        number = ".".join(re.findall(r"#define NAX_AEC_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)", header))
        status, out, _ = self.run_program("--version")
        self.assertEqual((status, out), (0, f"diagnose_wav (nax_aec) {number}\n"))

    def test_a_reader_that_closes_the_pipe_ends_it_without_a_word(self):
        self.write("mic.wav", [self.y])
        self.write("ref.wav", [self.x])
        arguments = ([self.folder / "mic.wav", self.folder / "ref.wav"], ["--help"])
        for one in arguments:
            reading, writing = os.pipe()
            os.close(reading)
            result = subprocess.run([sys.executable, "-B", PROGRAM, *one], stdout=writing, stderr=subprocess.PIPE)
            os.close(writing)
            self.assertEqual((result.returncode, result.stderr), (1, b""), one)

    @unittest.skipUnless(os.path.exists("/dev/full"), "no /dev/full here")
    def test_a_full_disk_is_said_in_one_line(self):
        self.write("all.wav", [self.y, self.x])
        for one in ([self.folder / "all.wav"], ["--help"], ["--version"]):
            with open("/dev/full", "wb") as full:
                result = subprocess.run([sys.executable, "-B", PROGRAM, *one], stdout=full, stderr=subprocess.PIPE)
            self.assertEqual((result.returncode, result.stderr),
                             (1, b"diagnose_wav: standard output: No space left on device\n"), one)

    def test_it_starts_as_a_program(self):
        result = subprocess.run([sys.executable, "-B", str(PROGRAM), "--help"], capture_output=True, text=True)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertTrue(result.stdout.startswith("Usage: diagnose_wav [OPTION]"))


if __name__ == "__main__":
    unittest.main()
