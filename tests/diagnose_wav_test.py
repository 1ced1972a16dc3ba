#!/usr/bin/python3
"""diagnose_wav on recordings made to have one fault each, and on healthy ones.

Calls are synthetic: noise with the rhythm and the slope of speech, a room of some
reflections and a decaying tail, a noise floor. A test names every code that is to be
found: what else is found is a failure.
"""
import importlib.util
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
from importlib.machinery import SourceFileLoader

try:
    import numpy as np
except ImportError:
    print("skipped: NumPy is missing")
    sys.exit(77)

ROOT = pathlib.Path(__file__).resolve().parents[1]
PROGRAM = ROOT / "tools" / "diagnose_wav"


def load_program():
    sys.dont_write_bytecode = True
    sys.path.insert(0, str(PROGRAM.parent))
    loader = SourceFileLoader("diagnose_wav", str(PROGRAM))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("diagnose_wav", loader))
    sys.modules["diagnose_wav"] = module
    loader.exec_module(module)
    return module


program = load_program()
measure = program.measure


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
    return level * sound / np.sqrt(np.mean(sound[envelope > 0.1] ** 2))


def room(rate, seed):
    """A response (n) of 80 ms: direct path, reflections, tail."""
    rng = np.random.default_rng(seed)
    n = int(0.08 * rate)
    response = 0.15 * rng.standard_normal(n) * np.exp(-np.arange(n) / rate / 0.012) / np.sqrt(0.012 * rate)
    for ms in rng.uniform(1, 12, 4):
        response[int(ms * rate / 1000)] += rng.uniform(-0.3, 0.3)
    response[0] = 1
    return response


def echo_of(x, rate, delay, seed=7, gain=0.5):
    """x (n) through a room, delay samples later, perhaps fractional and an array (n)."""
    size = 1 << (2 * len(x)).bit_length()
    wet = np.fft.irfft(np.fft.rfft(x, size) * np.fft.rfft(room(rate, seed), size), size)[:len(x)]
    return gain * np.interp(np.arange(len(x)) - delay, np.arange(len(x)), wet, left=0)


def noise(n, seed, db=-65):
    return 10 ** (db / 20) * np.random.default_rng(seed).standard_normal(n)


def to_int16(x):
    return np.clip(np.round(x * 32768), -32768, 32767).astype(np.int16)


def call(rate=16000, seconds=12, delay=640, near=0.0, floor=-65, seed=1):
    """A microphone and a reference (n each, full scale 1)."""
    x = talk(rate, seconds, seed)
    y = echo_of(x, rate, delay) + noise(len(x), seed + 50, floor)
    return y + near * talk(rate, seconds, seed + 100, gap=0.5), x


def diagnosed(channels, rate=16000, expected=None):
    """Recording, findings and echoes of channels (full scale 1, or int16 as they are)."""
    samples = [c if c.dtype == np.int16 else to_int16(c) for c in channels]
    recording = program.Recording("call.wav", rate, samples, expected or [None] * len(samples))
    return (recording, *program.diagnose(recording))


def codes(*arguments, **options):
    return [finding.code for finding in diagnosed(*arguments, **options)[1]]


MIC_REF = ["microphone", "reference"]


class Healthy(unittest.TestCase):
    """Nothing is found, and the figures are right."""

    def test_at_every_rate(self):
        for rate in (8000, 16000, 32000, 48000):
            with self.subTest(rate=rate):
                self.assertEqual(codes(call(rate, 8, rate // 20), rate=rate, expected=MIC_REF), [])

    def test_at_any_delay_of_the_delay_lines(self):
        for delay in (0, 100, 3000, 12000):
            with self.subTest(delay=delay):
                recording, findings, echoes = diagnosed(call(delay=delay), expected=MIC_REF)
                self.assertEqual(findings, [])
                self.assertAlmostEqual(np.median(echoes[0].delays), delay, delta=2)

    def test_while_both_talk(self):
        recording, findings, echoes = diagnosed(call(near=0.5), expected=MIC_REF)
        self.assertEqual(findings, [])
        self.assertAlmostEqual(np.median(echoes[0].delays), 640, delta=2)

    def test_with_two_microphones_and_two_references(self):
        (y, x), other = call(), talk(16000, 12, 5)
        second = echo_of(x, 16000, 645, 8) + echo_of(other, 16000, 650, 9) + noise(len(x), 3)
        first = y + echo_of(other, 16000, 655, 10)
        recording, findings, echoes = diagnosed([first, second, x, other])
        self.assertEqual(findings, [])
        self.assertEqual(recording.roles, ["microphone"] * 2 + ["reference"] * 2)
        self.assertEqual(len(echoes), 2)

    def test_with_a_level_change_and_a_pause(self):
        y, x = call(seconds=16)
        gain = np.ones(len(x))
        gain[6 * 16000:9 * 16000], gain[9 * 16000:] = 0, 0.3
        y = echo_of(x * gain, 16000, 640) + noise(len(x), 4)
        self.assertEqual(codes([y, x * gain], expected=MIC_REF), [])

    def test_steady_tones_are_not_taken_for_a_moving_delay(self):
        time = np.arange(12 * 16000) / 16000
        x = sum(0.05 * np.sin(2 * np.pi * f * time) for f in (220, 277, 330, 440)) + talk(16000, 12, 1, 0.02)
        y = echo_of(x, 16000, 640) + noise(len(x), 4)
        self.assertEqual(codes([y, x], expected=MIC_REF), [])

    def test_tones_that_change_show_their_delay_and_no_band(self):
        time = np.arange(12 * 16000) / 16000
        step = (time * 2).astype(int)
        random = np.random.default_rng(3).uniform(250, 3000, 2 * 12)
        for pitch in (random[step], 220 * 2 ** (step % 13 / 12), 900 + 500 * np.sin(np.pi * time)):
            x = 0.1 * np.sin(2 * np.pi * np.cumsum(pitch) / 16000)
            _, findings, echoes = diagnosed([echo_of(x, 16000, 640) + noise(len(x), 4), x], expected=MIC_REF)
            self.assertEqual(findings, [])
            self.assertAlmostEqual(np.median(echoes[0].delays), 640, delta=2)


class Channels(unittest.TestCase):
    def test_roles_are_found_in_any_order(self):
        y, x = call()
        for channels, roles in (((y, x), MIC_REF), ((x, y), MIC_REF[::-1])):
            recording, findings, _ = diagnosed(channels)
            self.assertEqual((recording.roles, findings), (roles, []))

    def test_a_reference_in_the_place_of_a_microphone(self):
        y, x = call()
        recording, findings, _ = diagnosed([x, y], expected=MIC_REF)
        self.assertEqual([f.code for f in findings], ["roles"])
        self.assertEqual(recording.roles, MIC_REF[::-1])

    def test_swapped_bytes_in_all_channels(self):
        channels = [to_int16(c).byteswap() for c in call()]
        recording, findings, echoes = diagnosed(channels, expected=MIC_REF)
        self.assertEqual([f.code for f in findings], ["byte-order"])
        self.assertAlmostEqual(np.median(echoes[0].delays), 640, delta=2)   # judged with the bytes put right

    def test_swapped_bytes_in_the_reference_alone(self):
        y, x = call()
        _, findings, _ = diagnosed([y, to_int16(x).byteswap()], expected=MIC_REF)
        self.assertEqual([f.code for f in findings], ["byte-order"])
        self.assertIn("channel 1:", findings[0].text)

    def test_samples_of_12_bits_are_not_taken_for_swapped(self):
        self.assertEqual(codes([to_int16(c) // 16 * 16 for c in call()], expected=MIC_REF), [])

    def test_a_silent_reference(self):
        y, x = call()
        self.assertEqual(codes([y, np.zeros(len(x))], expected=MIC_REF), ["reference-silent"])
        self.assertEqual(codes([y, noise(len(x), 9, -80)], expected=MIC_REF), ["reference-silent"])

    def test_one_silent_reference_of_two(self):
        y, x = call()
        recording, findings, _ = diagnosed([y, x, np.zeros(len(x))], expected=MIC_REF + ["reference"])
        self.assertEqual([f.code for f in findings], ["reference-silent"])
        self.assertIn("channel 2", findings[0].text)
        self.assertIn(".drop_channel = 1,", program.report.parameters(recording, []))

    def test_a_clipped_reference(self):
        y, x = call()
        self.assertEqual(codes([y, np.clip(12 * x, -1, 1)], expected=MIC_REF), ["clipped"])

    def test_a_microphone_clipped_below_full_scale(self):
        y, x = call()
        _, findings, _ = diagnosed([np.clip(y, -0.1, 0.1), x], expected=MIC_REF)
        self.assertEqual([f.code for f in findings], ["clipped"])
        self.assertIn("microphone in channel 0", findings[0].text)

    def test_a_reference_that_is_the_microphone(self):
        y, _ = call()
        self.assertEqual(codes([y, 0.7 * y], expected=MIC_REF), ["reference-is-microphone"])

    def test_the_same_reference_twice(self):
        y, x = call()
        self.assertEqual(codes([y, x, x], expected=MIC_REF + ["reference"]), ["reference-twice"])

    def test_a_reference_that_is_not_heard(self):
        y, _ = call()
        self.assertEqual(codes([y, talk(16000, 12, 99)], expected=MIC_REF), ["no-echo"])


    def test_a_reference_of_nothing_but_tones_or_repetition(self):
        time = np.arange(12 * 16000) / 16000

        def tones(*pitches):
            return sum(0.05 * np.sin(2 * np.pi * pitch * time) for pitch in pitches)

        def beeps(period):
            return time % period < period / 2

        for name, x in (("tone", tones(1000)), ("hum", tones(50, 150, 250)), ("chord", tones(220, 262, 330)),
                        ("engaged", tones(425) * beeps(0.96)), ("key", tones(697, 1209) * beeps(0.2)),
                        ("alarm", tones(3000) * beeps(1)),
                        ("warble", 0.1 * np.sin(2 * np.pi * 900 * time + 20 * np.sin(8 * np.pi * time)))):
            with self.subTest(name):
                y = echo_of(x, 16000, 640) + noise(len(x), 4)
                self.assertEqual(codes([y, x], expected=MIC_REF), ["tones"])


class Delay(unittest.TestCase):
    def test_a_reference_later_than_its_echo(self):
        y, x = call()
        late = np.concatenate([np.zeros(2000), x[:-2000]])
        _, findings, echoes = diagnosed([y, late], expected=MIC_REF)
        self.assertEqual([f.code for f in findings], ["reference-late"])
        self.assertIn("85.0 ms later", findings[0].text)

    def test_an_echo_later_than_the_delay_lines_hold(self):
        _, findings, _ = diagnosed(call(seconds=16, delay=12100), expected=MIC_REF)
        self.assertEqual([f.code for f in findings], ["delay-too-long"])
        self.assertIn("12100 samples late", findings[0].text)

    def test_steps(self):
        for samples in (320, -320, 80):
            with self.subTest(samples=samples):
                delay = np.full(12 * 16000, 640.0)
                delay[6 * 16000:] += samples
                _, findings, _ = diagnosed(call(delay=delay), expected=MIC_REF)
                self.assertEqual([f.code for f in findings], ["delay-steps"])
                self.assertRegex(findings[0].text, r"[56]\.\d s \(" + re.escape(f"{samples / 16:+.1f} ms)"))

    def test_drift(self):
        for ppm in (30, -30, 200):
            with self.subTest(ppm=ppm):
                delay = 640 + np.arange(30 * 16000) * ppm * 1e-6
                _, findings, echoes = diagnosed(call(seconds=30, delay=delay), expected=MIC_REF)
                self.assertEqual([f.code for f in findings], ["drift"])
                self.assertAlmostEqual(echoes[0].drift_ppm, ppm, delta=5)


class Spectra(unittest.TestCase):
    @staticmethod
    def band_limited(x, rate, top):
        """x (n) without anything above top in Hz, as a resampler leaves it."""
        spectrum = np.fft.rfft(x)
        spectrum[np.fft.rfftfreq(len(x), 1 / rate) > top] = 0
        return np.fft.irfft(spectrum, len(x))

    def test_a_file_that_claims_more_than_its_spectra_show(self):
        for rate, made in ((48000, 16000), (16000, 8000), (32000, 16000)):
            with self.subTest(rate=rate):
                channels = [self.band_limited(c, rate, 0.47 * made) for c in call(rate, 8, rate // 20)]
                recording, findings, _ = diagnosed(channels, rate, MIC_REF)
                self.assertEqual([f.code for f in findings], ["rate"])
                self.assertIn(f"made at {made} Hz", findings[0].text)

    def test_a_reference_of_half_the_band(self):
        y, x = call()
        self.assertEqual(codes([y, self.band_limited(x, 16000, 3800)], expected=MIC_REF), ["band"])

    def test_a_reference_of_another_rate_than_the_header_says(self):
        y, _ = call(8000, 12, 300)
        _, x = call(16000, 12, 600)
        y = echo_of(x, 16000, 600)[::2] + noise(12 * 8000, 8)
        _, findings, _ = diagnosed([y, x[:len(y)]], 8000, MIC_REF)
        self.assertEqual([f.code for f in findings], ["rates-differ"])
        self.assertIn("runs at 2 times", findings[0].text)


class Linear(unittest.TestCase):
    def test_how_much_a_filter_could_remove(self):
        for floor in (-46, -56):            # an echo of -26 dB in noise, some of it in the tail
            with self.subTest(floor=floor):
                _, _, echoes = diagnosed(call(floor=floor), expected=MIC_REF)
                self.assertAlmostEqual(echoes[0].long[0], -26 - floor, delta=3)

    def test_drift_and_steps_take_nothing_from_it(self):
        standing = diagnosed(call(seconds=16, floor=-46), expected=MIC_REF)[2][0].short[0]
        drift = 640 + np.arange(16 * 16000) * 100e-6
        step = np.where(np.arange(16 * 16000) < 8.6 * 16000, 640.0, 960.0)
        for delay in (drift, step):
            echo = diagnosed(call(seconds=16, delay=delay, floor=-46), expected=MIC_REF)[2][0]
            self.assertAlmostEqual(echo.short[0], standing, delta=1.5)

    def test_the_first_arrival_counts_where_a_reflection_is_louder(self):
        y, x = call(floor=-80)
        louder = 0.4 * y + np.concatenate([np.zeros(16), y[:-16]])     # 1 ms later
        self.assertGreater(diagnosed([louder, x], expected=MIC_REF)[2][0].short[0],
                           diagnosed([y, x], expected=MIC_REF)[2][0].short[0] - 2)

    def test_an_echo_that_is_hardly_linear(self):
        y, x = call()
        rattle = echo_of(np.abs(x), 16000, 640, 11, 1.0)
        self.assertEqual(codes([0.5 * y + rattle, x], expected=MIC_REF), ["not-linear"])

    def test_an_echo_below_the_noise(self):
        self.assertEqual(codes(call(floor=-24), expected=MIC_REF), ["not-linear"])


class Parameters(unittest.TestCase):
    def block(self, channels, expected=None):
        recording, _, echoes = diagnosed(channels, expected=expected)
        return program.report.parameters(recording, echoes)

    def test_microphones_first(self):
        text = self.block(call(delay=640))
        for line in (".pos = 1,", ".drop_channel = 0,", ".delay_len = 512,", ".array_list = NULL,",
                     "nax_aec_state_init(16000, 16, 1, 1, &param)"):
            self.assertIn(line, text)

    def test_references_first(self):
        self.assertIn(".pos = 0,", self.block(call()[::-1]))

    def test_an_idle_channel_is_passed_over_by_the_table(self):
        y, x = call()
        text = self.block([x, y, np.zeros(len(x))])
        for line in ("microphones[] = {1};", ".pos = 0,", "NAX_AEC_REMAP", ".array_list = microphones,"):
            self.assertIn(line, text)

    def test_an_order_that_the_library_cannot_take(self):
        y, x = call()
        text = self.block([x, y, 0.5 * x + talk(16000, 12, 9)])
        self.assertIn("has to reorder: channels 1, 0, 2,", text)
        self.assertIn("nax_aec_state_init(16000, 16, 1, 2, &param)", text)

    @unittest.skipUnless(shutil.which("cc"), "no C compiler")
    def test_the_block_compiles(self):
        y, x = call()
        for channels in ([y, x], [x, y, np.zeros(len(x))]):
            source = ('#include "nax_aec.h"\n#include <stddef.h>\nint main(void) {\n'
                      + self.block(channels) + "\nreturn state == NULL;\n}\n")
            result = subprocess.run(["cc", "-std=c99", "-Wall", "-Werror", "-fsyntax-only", "-x", "c", "-",
                                     f"-I{ROOT}/include"], input=source, capture_output=True, text=True)
            self.assertEqual(result.returncode, 0, result.stderr + source)


class CommandLine(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def path(self, name):
        return str(pathlib.Path(self.folder.name) / name)

    def write(self, name, channels, rate=16000, bits=16):
        data = np.stack([to_int16(c) for c in channels], axis=1).astype("<i2").tobytes()
        count = len(channels)
        head = struct.pack("<4sI4s4sIHHIIHH4sI", b"RIFF", 36 + len(data), b"WAVE", b"fmt ", 16, 1, count, rate,
                           rate * count * 2, count * 2, bits, b"data", len(data))
        pathlib.Path(self.path(name)).write_bytes(head + data)

    def run_program(self, *arguments):
        return subprocess.run([sys.executable, "-B", str(PROGRAM), *arguments], cwd=self.folder.name,
                              capture_output=True, text=True)

    def test_two_files_and_a_chart(self):
        y, x = call()
        self.write("mic.wav", [y])
        self.write("ref.wav", [x])
        chart = ["--chart", "chart.svg"] if importlib.util.find_spec("matplotlib") else []
        result = self.run_program("mic.wav", "ref.wav", *chart)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("Nothing wrong found.", result.stdout)
        self.assertIn(".pos = 1,", result.stdout)
        if chart:
            self.assertIn("<svg", pathlib.Path(self.path("chart.svg")).read_text())

    def test_a_fault_is_said_with_its_cure(self):
        y, x = call()
        self.write("all.wav", [0 * x, y])
        result = self.run_program("all.wav", "--order", "refs-first")
        self.assertEqual(result.returncode, 3, result.stderr)
        self.assertIn("[reference-silent]", result.stdout)
        self.assertIn("  Cure:", result.stdout)

    def test_files_that_it_cannot_use(self):
        y, x = call()
        self.write("mic.wav", [y])
        self.write("fast.wav", [x], 48000)
        self.write("odd.wav", [x], 44100)
        self.write("wide.wav", [x], bits=24)
        self.write("short.wav", [y[:8000]])
        pathlib.Path(self.path("text.wav")).write_text("no audio")
        whole = pathlib.Path(self.path("mic.wav")).read_bytes()
        pathlib.Path(self.path("cut.wav")).write_bytes(whole[:30])
        pathlib.Path(self.path("hollow.wav")).write_bytes(whole[:22] + bytes(2) + whole[24:])
        for name, reason in (("none.wav", "No such file or directory"), ("text.wav", "is not a WAV file"),
                             ("odd.wav", "has 44100 Hz"), ("wide.wav", "is not 16-bit PCM"),
                             ("short.wav", "is 0.5 s long"), ("fast.wav", "has 48000 Hz, but mic.wav has 16000"),
                             ("cut.wav", "holds no samples"), ("hollow.wav", "is not 16-bit PCM")):
            result = self.run_program("mic.wav", name)
            self.assertEqual(result.returncode, 1, name)
            self.assertRegex(result.stderr, f"^diagnose_wav: {name}: {reason}")
        self.assertRegex(self.run_program("mic.wav").stderr, "^diagnose_wav: mic.wav: has no channel left")

    def test_a_recording_that_was_cut_short_within_a_sample(self):
        y, x = call()
        self.write("all.wav", [y, x])
        path = pathlib.Path(self.path("all.wav"))
        path.write_bytes(path.read_bytes()[:-3])
        result = self.run_program("all.wav")
        self.assertEqual(result.returncode, 0, result.stderr)

    def test_a_wrong_command_line(self):
        for arguments in ([], ["a.wav", "b.wav", "c.wav"], ["a.wav", "b.wav", "--mics", "1"], ["--mics", "3", "a"]):
            self.assertEqual(self.run_program(*arguments).returncode, 2, arguments)


if __name__ == "__main__":
    unittest.main()
