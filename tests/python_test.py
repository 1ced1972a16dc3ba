#!/usr/bin/python3
"""The Python module over the built library, its docstrings' examples, and the example.

NAX_AEC_LIBRARY names the library; with NAX_AEC_INSTALLED the installed package is tested. Ends with status 77, which CTest counts as skipped,
when NumPy is missing.
"""
import copy
import doctest
import gc
import importlib.util
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest
import wave
from concurrent.futures import ThreadPoolExecutor
from unittest import mock

if importlib.util.find_spec("numpy") is None:
    print("python_test: skipped, python3-numpy is not installed")
    sys.exit(77)
import numpy as np  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[1]
PYTHON = os.environ.get("NAX_AEC_PYTHON", sys.executable)     # which may be an emulator's
EXAMPLES = ROOT / "examples/python"
if "NAX_AEC_INSTALLED" not in os.environ:
    sys.path.insert(0, str(ROOT / "python"))
import nax_aec  # noqa: E402
from nax_aec import (BIG_ENDIAN, HOST_ENDIAN, LITTLE_ENDIAN, Canceller, Suppressor,  # noqa: E402
                     cancel, frame_size)

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


class Suppression(unittest.TestCase):
    def test_less_is_left_than_behind_the_canceller_and_a_frame_later(self):
        reference = noise(188 * 256)
        reference[:16000] = 0
        room = sum(echo_of(reference, delay) // 2 for delay in (400, 900, 1700))
        microphone = room + noise(len(room), seed=2) // 100
        with Canceller(16000) as canceller, Suppressor(16000) as suppressor:
            result = canceller.process(microphone, reference)
            suppressed = suppressor.process(result)
        self.assertEqual((suppressed.shape, suppressed.dtype), (result.cleaned.shape, np.int16))
        self.assertGreater(removed_db(result.cleaned, suppressed), 6)
        np.testing.assert_array_equal(suppressed[256:4096], result.cleaned[:3840])

    def test_arrays_by_columns_give_what_arrays_by_rows_give(self):
        microphones, references = noise(512, 2), noise(512, 2, seed=2)
        with Canceller(16000, 2, 2) as canceller:
            result = canceller.process(microphones, references)
        by_columns = result._replace(**{name: np.asfortranarray(getattr(result, name))
                                        for name in ("cleaned", "references", "echo")})
        outputs = []
        for given in (result, by_columns):
            with Suppressor(16000, 2, 2) as suppressor:
                outputs.append(suppressor.process(given))
        np.testing.assert_array_equal(*outputs)
        self.assertTrue(outputs[1][256:].any())

    def test_results_whose_parts_differ_in_length_are_refused(self):
        with Canceller(16000) as canceller, Suppressor(16000) as suppressor:
            result = canceller.process(noise(51200), noise(51200))
            for part in (dict(echo=result.echo[:256]), dict(echo=result.echo[:0]),
                         dict(echo=np.vstack([result.echo, result.echo])),
                         dict(references=result.references[:256])):
                with self.subTest(part=list(part)), self.assertRaisesRegex(ValueError, "51200 samples of"):
                    suppressor.process(result._replace(**part))

    def test_what_is_no_whole_frame_or_closed_is_refused(self):
        with Suppressor(16000) as suppressor, Canceller(16000) as canceller:
            with self.assertRaises(ValueError):
                suppressor.process(canceller.process(noise(100), noise(100)))
        with self.assertRaises(ValueError):
            suppressor.process(canceller)
        with self.assertRaises(ValueError):
            Suppressor(44100)


class Samples(unittest.TestCase):
    def test_every_format_has_the_shapes_that_are_documented(self):
        for rate, frame in RATES.items():
            for mics, refs, drop in ((1, 1, 0), (2, 1, 0), (1, 2, 1), (2, 2, 0), (1, 1, 1)):
                with self.subTest(rate=rate, mics=mics, refs=refs, drop=drop), \
                        Canceller(rate, mics, refs, drop_channel=drop) as canceller:
                    self.assertEqual(canceller.frame_size, frame)
                    self.assertEqual(frame_size(rate), frame)
                    result = canceller.process(noise(frame, mics), noise(frame, refs))
                    self.assertEqual([x.shape for x in result],
                                     [(frame, mics), (frame, refs), (frame, mics), (1,)])
                    self.assertEqual({x.dtype for x in result[:3]}, {np.dtype(np.int16)})
                    self.assertFalse(result.references[:, refs - drop:].any())

    def test_base_delay_is_returned_when_nothing_is_estimated(self):
        with Canceller(16000, delay_estimation=False, delay_len=321) as canceller:
            self.assertEqual(canceller.process(noise(256), noise(256)).delays.tolist(), [321])

    def test_an_echo_is_found_and_removed(self):
        reference = noise(3 * 16000)
        microphone = echo_of(reference, 1000)
        cleaned, _, echo, delays = cancel(microphone, reference, 16000)
        self.assertLess(abs(int(delays[-1]) - 1000), 256)
        self.assertGreater(removed_db(microphone, cleaned), 20)
        difference = microphone.astype(int) - cleaned
        np.testing.assert_array_equal(echo, difference.clip(-32768, 32767))

    def test_a_recording_equals_its_frames(self):
        reference = noise(16000 // 256 * 256, 2)
        microphone = echo_of(reference, 700)
        whole = cancel(microphone, reference, 16000, drop_channel=1)
        with Canceller(16000, 1, 2, drop_channel=1) as canceller:
            for i, start in enumerate(range(0, len(microphone), 256)):
                rows = slice(start, start + 256)
                *audio, delays = canceller.process(microphone[rows], reference[rows])
                for all_rows, part in zip(whole, audio):
                    np.testing.assert_array_equal(all_rows[rows], part)
                self.assertEqual(whole.delays[i], delays[0])

    def test_a_part_of_a_frame_at_the_end_is_processed_as_if_silence_followed(self):
        reference = noise(8192)
        microphone = echo_of(reference, 700)
        reference[8100:] = microphone[8100:] = 0
        for all_rows, part in zip(cancel(microphone, reference, 16000),
                                  cancel(microphone[:8100], reference[:8100], 16000)):
            np.testing.assert_array_equal(all_rows[:8100], part)

    def test_floats_give_what_16_bits_give_in_their_own_type(self):
        reference = noise(16000)
        microphone = echo_of(reference, 700)
        wanted = cancel(microphone, reference, 16000)
        for kind in (np.float32, np.float64):
            result = cancel(microphone.astype(kind) / 32768, reference.astype(kind) / 32768, 16000)
            for audio, samples in zip(result[:3], wanted[:3]):
                self.assertEqual(audio.dtype, kind)
                np.testing.assert_array_equal(audio * 32768, samples)

    def test_floats_beyond_full_scale_are_clipped(self):
        with Canceller(16000, drop_channel=1) as canceller:
            loud = canceller.process(np.array([2.0, -2.0, 1.0] * 100), np.zeros(300))
        np.testing.assert_array_equal(loud.cleaned[:3] * 32768, [32767, -32768, 32767])

    def test_one_channel_without_columns_comes_back_without_columns(self):
        flat = cancel(noise(512)[:, 0], noise(512, 2), 16000)
        self.assertEqual([x.shape for x in flat], [(512,), (512, 2), (512,), (2,)])

    def test_arrays_as_files_and_programs_hold_them(self):
        reference = noise(16000)
        microphone = echo_of(reference, 700)
        wanted = cancel(microphone, reference, 16000).cleaned
        for name, layout in (("big-endian", lambda x: x.astype(">i2")),
                             ("every other row", lambda x: np.repeat(x, 2, axis=0)[::2]),
                             ("by columns", lambda x: np.asfortranarray(np.hstack([x, x]))[:, :1])):
            with self.subTest(name):
                audio = cancel(layout(microphone), layout(reference), np.int64(16000)).cleaned
                np.testing.assert_array_equal(audio, wanted)
                self.assertEqual(audio.dtype, layout(microphone).dtype)
                self.assertTrue(audio.flags.c_contiguous)

    def test_a_recording_of_nothing_gives_nothing(self):
        self.assertEqual([len(x) for x in cancel(noise(0), noise(0), 16000)], [0, 0, 0, 0])


class Reports(unittest.TestCase):
    def test_a_canceller_that_cancels_says_so_from_samples_and_bytes(self):
        reference = noise(10 * 16000 // 256 * 256)
        microphone = echo_of(reference, 700)
        with Canceller(16000) as samples, Canceller(16000) as raw:
            samples.process(microphone, reference)
            stream = np.hstack([microphone, reference])
            for start in range(0, len(stream), 256):
                raw.process_bytes(stream[start:start + 256].tobytes())
            report = samples.report()
            self.assertEqual(raw.report(), report)
        self.assertEqual((report.verdict, report.is_alarm, report.frames), ("cancelling", False, 624))
        self.assertGreater(report.removed_db, 20)
        self.assertEqual([len(x) for x in (report.microphone_dbfs, report.output_dbfs,
                                           report.reference_dbfs)], [1, 1, 1])
        self.assertAlmostEqual(report.reference_dbfs[0], 20 * np.log10(2000 / 32768), delta=1)

    def test_dropped_references_are_not_looked_for(self):
        with Canceller(16000, 1, 2, drop_channel=1) as canceller:
            canceller.process(noise(16000 * 3), noise(16000 * 3, 2))
            levels = canceller.report().reference_dbfs
        self.assertEqual((levels[0] > -30, levels[1]), (True, -100.0))

    def test_wrong_wiring_sounds_an_alarm(self):
        reference = noise(10 * 16000)
        with Canceller(16000) as canceller:
            canceller.process(echo_of(reference, 700), 0 * reference)
            report = canceller.report()
        self.assertEqual((report.verdict, report.is_alarm), ("no-reference", True))

    def test_a_report_of_a_closed_canceller_is_refused(self):
        with Canceller(16000) as canceller:
            self.assertEqual(canceller.report().verdict, "searching")
        with self.assertRaisesRegex(ValueError, "closed"):
            canceller.report()


class Bytes(unittest.TestCase):
    def compare(self, byte_order, pos, array_list=None):
        """process_bytes gives what process gives, for 2 microphones and 2 references of
        which 1 is dropped. array_list [1, 0] under pos 1 swaps the microphones."""
        options = dict(microphones=2, references=2, drop_channel=1)
        code = {LITTLE_ENDIAN: "<i2", BIG_ENDIAN: ">i2", HOST_ENDIAN: "=i2"}[byte_order]
        with Canceller(16000, **options) as samples, \
                Canceller(16000, pos=pos, array_list=array_list, **options) as raw:
            for seed in range(20):
                mics, refs = noise(256, 2, seed), noise(256, 2, 100 + seed)
                stream = np.hstack([refs, mics] if pos == 0 else [mics, refs])
                results, processed = raw.process_bytes(stream.astype(code).tobytes(), byte_order)
                mics = mics[:, ::-1] if array_list else mics
                np.testing.assert_array_equal(processed, np.hstack([mics, refs[:, :1]]))
                for one, other in zip(results, samples.process(mics, refs)):
                    np.testing.assert_array_equal(one, other)

    def test_bytes_give_what_samples_give_in_each_byte_order(self):
        for byte_order in (LITTLE_ENDIAN, BIG_ENDIAN, HOST_ENDIAN):
            with self.subTest(byte_order=byte_order):
                self.compare(byte_order, pos=1)

    def test_bytes_give_what_samples_give_with_the_references_first(self):
        self.compare(HOST_ENDIAN, pos=0)

    def test_bytes_give_what_samples_give_through_a_table(self):
        self.compare(HOST_ENDIAN, pos=1, array_list=[1, 0])


class Errors(unittest.TestCase):
    def test_formats_that_the_library_refuses(self):
        for arguments in ((44100, 1, 1), (16000, 3, 1), (16000, 0, 1), (16000, 1, 0)):
            with self.subTest(arguments=arguments), self.assertRaisesRegex(ValueError, "not supported"):
                Canceller(*arguments)

    def test_numbers_that_do_not_fit_the_library(self):
        for arguments in ((2**32 + 16000, 1, 1), (16000, 2**32 + 1, 1), (16000, 1, 2**32 + 1),
                          (16000, 1, 10**6)):
            for kind in (Canceller, Suppressor):
                with self.subTest(kind=kind, arguments=arguments), \
                        self.assertRaisesRegex(ValueError, "not supported"):
                    kind(*arguments)
        with Canceller(16000) as canceller, self.assertRaisesRegex(ValueError, "byte_order"):
            canceller.process_bytes(bytes(1024), 2**32)

    def test_words_that_the_library_would_trust(self):
        for words in (dict(drop_channel=2), dict(drop_channel=-1), dict(delay_len=-1),
                      dict(delay_len=12289), dict(look_ahead=-1), dict(array_list=[0, 1]),
                      dict(look_ahead=12289), dict(look_ahead=2**31), dict(pos=2**32),
                      dict(array_list=[2]), dict(array_list=[-1])):
            with self.subTest(words=words), self.assertRaisesRegex(ValueError, next(iter(words))):
                Canceller(16000, 1, 1, **words)
        for words in (dict(delay_len=1.5), dict(look_ahead="1"), dict(pos=None)):
            with self.subTest(words=words), self.assertRaises(TypeError):
                Canceller(16000, 1, 1, **words)

    def test_a_constructor_that_fails_is_collected_without_a_complaint(self):
        complaints = []
        with mock.patch("sys.unraisablehook", complaints.append):
            for kind in (Canceller, Suppressor):
                for arguments, options in (((), {}), ((44100,), {}), ((16000,), dict(wrong=1))):
                    with self.assertRaises((TypeError, ValueError)):
                        kind(*arguments, **options)
                    gc.collect()
        self.assertEqual(complaints, [])

    def test_arrays_of_the_wrong_shape_type_or_length(self):
        wrong = ((ValueError, r"not \(n, 1\)", noise(256, 2), noise(256)),
                 (ValueError, r"not \(n, 1\)", noise(256), noise(256).T),
                 (TypeError, "int64", noise(256).astype(np.int64), noise(256)),
                 (ValueError, "finite", noise(256) * np.nan, noise(256)),
                 (ValueError, "512 samples of microphones, 511", noise(512), noise(511)))
        for channels in (noise(512, 2).T, np.zeros(()), None):
            with self.assertRaisesRegex(ValueError, "references have shape .* a row is a sample"):
                cancel(noise(512), channels, 16000)
        with Canceller(16000) as canceller:
            for kind, message, *arrays in wrong:
                with self.subTest(message=message), self.assertRaisesRegex(kind, message):
                    canceller.process(*arrays)
            with self.assertRaisesRegex(ValueError, "1023 bytes, not 1024"):
                canceller.process_bytes(bytes(1023))

    def test_a_channel_order_that_processes_nothing(self):
        with Canceller(16000, pos=2) as canceller, self.assertRaisesRegex(ValueError, "pos is 2"):
            canceller.process_bytes(bytes(1024))

    def test_a_stream_is_not_copied(self):
        with Canceller(16000) as canceller, Suppressor(16000) as suppressor:
            for stream in (canceller, suppressor):
                with self.assertRaisesRegex(TypeError, "cannot be copied"):
                    copy.copy(stream)

    def test_a_closed_canceller(self):
        with Canceller(16000) as canceller:
            pass
        canceller.close()
        for call in (lambda: canceller.process(noise(256), noise(256)),
                     lambda: canceller.process_bytes(bytes(1024))):
            with self.assertRaisesRegex(ValueError, "closed"):
                call()

    def test_a_library_that_is_not_there_is_named(self):
        code = "from nax_aec import Canceller; Canceller(16000)"
        result = subprocess.run([PYTHON, "-c", code], capture_output=True, text=True,
                                cwd=ROOT / "python", check=False,
                                env=dict(os.environ, NAX_AEC_LIBRARY="/nowhere/libnax_aec.so"))
        self.assertIn("OSError: cannot load libnax_aec (/nowhere/libnax_aec.so", result.stderr)


class Threads(unittest.TestCase):
    def test_a_pool_of_threads_cancels_as_one_thread_does(self):
        mic = noise(4096)
        wanted = cancel(mic, mic, 16000).cleaned
        with ThreadPoolExecutor(8) as pool:
            for result in pool.map(lambda i: nax_aec.cancel(mic, mic, 16000), range(64)):
                np.testing.assert_array_equal(result.cleaned, wanted)

    def test_close_waits_for_another_threads_call(self):
        """The call's first frame starts the close; the second must still find the state."""
        for kind, name in ((Canceller, "nax_aec_short"), (Suppressor, "nax_res_short")):
            with self.subTest(name):
                stream = kind(16000)
                lib = nax_aec.library() if kind is Canceller else nax_aec.suppressor.suppressor_library()
                closer, states = threading.Thread(target=stream.close), []

                def call(state, *arguments):
                    states.append(stream._state)
                    if len(states) == 1:
                        closer.start()
                        closer.join(0.05)       # as long as the old close took
                    return 0

                with mock.patch.object(lib, name, call):
                    result = nax_aec.Result(*[noise(512)] * 3, np.zeros(2, np.int32))
                    stream.process(*(result[:2] if kind is Canceller else (result,)))
                closer.join()
                self.assertEqual((len(states), states[1]), (2, states[0]))
                self.assertRaisesRegex(ValueError, "closed", stream.process,
                                       *(result[:2] if kind is Canceller else (result,)))

    def test_a_call_within_a_call_of_the_same_thread_is_refused(self):
        with Canceller(16000) as canceller:
            def call(*unused):
                with self.assertRaisesRegex(RuntimeError, "in use by this thread"):
                    canceller.close()
                return 0
            with mock.patch.object(nax_aec.library(), "nax_aec_short", call):
                canceller.process(noise(256), noise(256))
            canceller.process(noise(256), noise(256))


class Package(unittest.TestCase):
    def test_examples_in_docstrings_print_what_they_say(self):
        for module in (nax_aec, nax_aec.canceller, nax_aec.suppressor):
            result = doctest.testmod(module)
            self.assertGreater(result.attempted, 0)
            self.assertEqual(result.failed, 0)

    @unittest.skipIf("NAX_AEC_INSTALLED" in os.environ, "the installed package is tested")
    @unittest.skipUnless(all(importlib.util.find_spec(x) for x in ("pip", "setuptools", "wheel")),
                         "python3-pip, -setuptools or -wheel is not installed")
    def test_pip_installs_it_from_the_tree(self):
        with tempfile.TemporaryDirectory() as folder:
            tree = pathlib.Path(folder, "python")       # setuptools leaves files there
            shutil.copytree(ROOT / "python", tree)
            subprocess.run([PYTHON, "-m", "pip", "--quiet", "install", "--no-index",
                            "--no-build-isolation", "--no-deps", "--target", f"{folder}/site", tree],
                           check=True)
            self.assertTrue(pathlib.Path(folder, "site/nax_aec/py.typed").exists())
            code = "import nax_aec, importlib.metadata as m; nax_aec.Canceller(8000); " \
                   "print(nax_aec.__file__, m.version('nax_aec'))"
            result = subprocess.run([PYTHON, "-c", code], capture_output=True, text=True,
                                    env=dict(os.environ, PYTHONPATH=f"{folder}/site"), check=True)
            self.assertEqual(result.stdout.split(),
                             [f"{folder}/site/nax_aec/__init__.py", nax_aec.__version__])


@unittest.skipIf(importlib.util.find_spec("matplotlib") is None, "python3-matplotlib is not installed")
class CancelAndPlot(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_script(self, *arguments):
        return subprocess.run([PYTHON, EXAMPLES / "cancel_and_plot.py", *arguments],
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
