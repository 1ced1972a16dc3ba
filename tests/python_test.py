#!/usr/bin/python3
"""The ctypes wrapper examples/python/nax_aec.py against the built library.

NAX_AEC_LIBRARY names the library. Ends with status 77, which CTest counts as skipped,
when NumPy is missing.
"""
import importlib.util
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest
import wave

if importlib.util.find_spec("numpy") is None:
    print("python_test: skipped, python3-numpy is not installed")
    sys.exit(77)
import numpy as np  # noqa: E402

EXAMPLES = pathlib.Path(__file__).resolve().parents[1] / "examples/python"
sys.path.insert(0, str(EXAMPLES))
from nax_aec import BIG_ENDIAN, HOST_ORDER, LITTLE_ENDIAN, Canceller, frame_size  # noqa: E402

RATES = {8000: 128, 16000: 256, 32000: 512, 48000: 768}


def noise(samples, channels=1, seed=1):
    """White noise (samples x channels) int16 at -24 dBFS."""
    rng = np.random.default_rng(seed)
    return (2000 * rng.standard_normal((samples, channels))).astype(np.int16)


def echo_of(reference, delay):
    """The first channel of reference (n x channels) at half the level after delay samples."""
    echo = np.zeros((len(reference), 1), np.int16)
    echo[delay:, 0] = reference[:len(reference) - delay, 0] // 2
    return echo


def removed_db(microphone, cleaned):
    """How much quieter the last half became, in dB."""
    half = len(cleaned) // 2
    power = [np.mean(x[half:len(cleaned)].astype(float) ** 2) for x in (microphone, cleaned)]
    return 10 * np.log10(power[0] / (power[1] + 1e-3))


class Frames(unittest.TestCase):
    def test_every_format_has_the_shapes_that_are_documented(self):
        for rate, frame in RATES.items():
            for mics, refs, drop in ((1, 1, 0), (2, 1, 0), (1, 2, 1), (2, 2, 0), (1, 1, 1)):
                with self.subTest(rate=rate, mics=mics, refs=refs, drop=drop), \
                        Canceller(rate, mics, refs, drop_channel=drop) as canceller:
                    self.assertEqual(canceller.frame_size, frame)
                    self.assertEqual(frame_size(rate), frame)
                    cleaned, aligned, echo, delay = canceller.process(noise(frame, mics + refs - drop))
                    self.assertEqual((cleaned.shape, aligned.shape, echo.shape, delay),
                                     ((frame, mics), (frame, refs), (frame, mics), 0))
                    self.assertEqual((cleaned.dtype, aligned.dtype, echo.dtype), (np.int16,) * 3)
                    self.assertFalse(aligned[:, refs - drop:].any())

    def test_results_stay_as_they_were_on_the_next_call(self):
        with Canceller(8000) as canceller:
            first = canceller.process(noise(128, 2))
            before = [x.copy() for x in first[:3]]
            canceller.process(noise(128, 2, seed=2))
            for kept, copy in zip(first, before):
                np.testing.assert_array_equal(kept, copy)

    def test_base_delay_is_returned_when_nothing_is_estimated(self):
        with Canceller(16000, delay_estimation=False, delay_len=321) as canceller:
            self.assertEqual(canceller.process(noise(256, 2))[3], 321)

    def test_an_echo_is_found_and_removed(self):
        reference = noise(3 * 16000)
        microphone = echo_of(reference, 1000)
        with Canceller(16000) as canceller:
            cleaned, aligned, echo, delays = canceller.process_stream(microphone, reference)
        self.assertLess(abs(int(delays[-1]) - 1000), 256)
        self.assertGreater(removed_db(microphone, cleaned), 20)
        difference = microphone[:len(cleaned)].astype(int) - cleaned
        np.testing.assert_array_equal(echo, difference.clip(-32768, 32767))
        self.assertEqual(aligned.shape, (len(cleaned), 1))

    def test_a_stream_equals_its_frames_and_leaves_out_the_rest(self):
        reference = noise(16000 + 100, 2)
        microphone = echo_of(reference, 700)
        with Canceller(16000, 1, 2, drop_channel=1) as canceller:
            stream = canceller.process_stream(microphone[:, 0], reference)
        self.assertEqual(len(stream[0]), 16100 // 256 * 256)
        with Canceller(16000, 1, 2, drop_channel=1) as canceller:
            for i, start in enumerate(range(0, len(stream[0]), 256)):
                rows = slice(start, start + 256)
                frame = np.hstack([microphone[rows], reference[rows, :1]])
                *audio, delay = canceller.process(frame)
                for whole, part in zip(stream, audio):
                    np.testing.assert_array_equal(whole[rows], part)
                self.assertEqual(stream[3][i], delay)


class Bytes(unittest.TestCase):
    def compare(self, byte_order, pos, array_list=None):
        """process_bytes gives what process gives, for 2 microphones and 2 references of
        which 1 is dropped. array_list [1, 0] under pos 1 swaps the microphones."""
        options = dict(microphones=2, references=2, drop_channel=1)
        code = {LITTLE_ENDIAN: "<i2", BIG_ENDIAN: ">i2", HOST_ORDER: "=i2"}[byte_order]
        with Canceller(16000, **options) as samples, \
                Canceller(16000, pos=pos, array_list=array_list, **options) as raw:
            for seed in range(20):
                mics, refs = noise(256, 2, seed), noise(256, 2, 100 + seed)
                stream = np.hstack([refs, mics] if pos == 0 else [mics, refs])
                *results, processed = raw.process_bytes(stream.astype(code).tobytes(), byte_order)
                frame = np.hstack([mics[:, ::-1] if array_list else mics, refs[:, :1]])
                np.testing.assert_array_equal(processed, frame)
                for one, other in zip(results, samples.process(frame)):
                    np.testing.assert_array_equal(one, other)

    def test_bytes_give_what_samples_give_in_each_byte_order(self):
        for byte_order in (LITTLE_ENDIAN, BIG_ENDIAN, HOST_ORDER):
            with self.subTest(byte_order=byte_order):
                self.compare(byte_order, pos=1)

    def test_bytes_give_what_samples_give_with_the_references_first(self):
        self.compare(HOST_ORDER, pos=0)

    def test_bytes_give_what_samples_give_through_a_table(self):
        self.compare(HOST_ORDER, pos=1, array_list=[1, 0])


class Errors(unittest.TestCase):
    def test_formats_that_the_library_refuses(self):
        for arguments in ((44100, 1, 1), (16000, 3, 1), (16000, 0, 1), (16000, 1, 0)):
            with self.subTest(arguments=arguments), self.assertRaisesRegex(ValueError, "not supported"):
                Canceller(*arguments)

    def test_words_that_the_library_would_trust(self):
        for words in (dict(drop_channel=2), dict(drop_channel=-1), dict(delay_len=-1),
                      dict(delay_len=12289), dict(look_ahead=-1), dict(array_list=[0, 1]),
                      dict(array_list=[2]), dict(array_list=[-1])):
            with self.subTest(words=words), self.assertRaisesRegex(ValueError, next(iter(words))):
                Canceller(16000, 1, 1, **words)

    def test_frames_of_the_wrong_shape_or_type(self):
        with Canceller(16000) as canceller:
            for frame in (noise(255, 2), noise(256, 1), noise(256, 2).astype(float), noise(256, 2).T):
                with self.assertRaisesRegex(ValueError, "not .*int16"):
                    canceller.process(frame)
            with self.assertRaisesRegex(ValueError, "1023 bytes, not 1024"):
                canceller.process_bytes(bytes(1023))
            with self.assertRaisesRegex(ValueError, "int16"):
                canceller.process_stream(noise(512), noise(511))

    def test_a_channel_order_that_processes_nothing(self):
        with Canceller(16000, pos=2) as canceller, self.assertRaisesRegex(ValueError, "pos is 2"):
            canceller.process_bytes(bytes(1024))

    def test_a_closed_canceller(self):
        with Canceller(16000) as canceller:
            pass
        canceller.close()
        for call in (lambda: canceller.process(noise(256, 2)),
                     lambda: canceller.process_bytes(bytes(1024)),
                     lambda: canceller.process_stream(noise(256), noise(256))):
            with self.assertRaisesRegex(ValueError, "closed"):
                call()

    def test_a_library_that_is_not_there_is_named(self):
        code = "from nax_aec import Canceller; Canceller(16000)"
        result = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True,
                                cwd=EXAMPLES, check=False,
                                env=dict(os.environ, NAX_AEC_LIBRARY="/nowhere/libnax_aec.so"))
        self.assertIn("OSError: cannot load libnax_aec (/nowhere/libnax_aec.so", result.stderr)


@unittest.skipIf(importlib.util.find_spec("matplotlib") is None, "python3-matplotlib is not installed")
class CancelAndPlot(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_script(self, *arguments):
        return subprocess.run([sys.executable, EXAMPLES / "cancel_and_plot.py", *arguments],
                              cwd=self.folder, capture_output=True, text=True, check=False,
                              env=dict(os.environ, MPLCONFIGDIR=str(self.folder)))

    def write(self, name, samples, rate=16000):
        with wave.open(str(self.folder / name), "wb") as file:
            file.setnchannels(samples.shape[1])
            file.setsampwidth(2)
            file.setframerate(rate)
            file.writeframes(samples.astype("<i2").tobytes())

    def test_cancels_two_files_and_writes_a_chart(self):
        reference = noise(2 * 16000)
        self.write("mic.wav", echo_of(reference, 500))
        self.write("ref.wav", reference)
        result = self.run_script("mic.wav", "ref.wav", "--chart", "chart.png", "--out", "out.wav")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("echo removed in the second half: ", result.stdout)
        self.assertEqual((self.folder / "chart.png").read_bytes()[:4], b"\x89PNG")
        with wave.open(str(self.folder / "out.wav")) as file:
            self.assertEqual((file.getframerate(), file.getnchannels(), file.getnframes()),
                             (16000, 1, 32000))

    def test_makes_a_scene_when_it_gets_no_files(self):
        result = self.run_script("--chart", "chart.svg")
        self.assertEqual(result.returncode, 0, result.stderr)
        removed = float(result.stdout.split("second half: ")[1].split()[0])
        self.assertGreater(removed, 15)
        self.assertIn("<svg", (self.folder / "chart.svg").read_text())

    def test_says_which_file_it_cannot_use(self):
        self.write("mic.wav", noise(1000), 44100)
        for name, reason in (("mic.wav", "has 44100 Hz"), ("none.wav", "No such file")):
            result = self.run_script(name, "mic.wav")
            self.assertEqual(result.returncode, 1)
            self.assertRegex(result.stderr, f"^cancel_and_plot.py: {name}: {reason}")


if __name__ == "__main__":
    unittest.main()
