#!/usr/bin/python3
"""nax_aec.Stream: sound in pieces, with and without times, against the whole recording in one go.

The reference that a test expects to be used is made by hand; then the samples must be those of
nax_aec.cancel with it. With --long: an hour in 100000 calls on two threads, a minute of threads
that call everything at once, and what a stream costs. With NAX_AEC_INSTALLED the installed package
is tested. Ends with status 77, which CTest counts as skipped, when NumPy is missing.
"""
import doctest
import importlib.util
import itertools
import os
import pathlib
import resource
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import types
import unittest
import wave

if importlib.util.find_spec("numpy") is None:
    print("stream_test: skipped, python3-numpy is not installed")
    sys.exit(77)
import numpy as np  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[1]
PYTHON = os.environ.get("NAX_AEC_PYTHON", sys.executable)     # which may be an emulator's
if "NAX_AEC_INSTALLED" not in os.environ:
    sys.path.insert(0, str(ROOT / "python"))
import nax_aec  # noqa: E402
from nax_aec import Canceller, Result, Stream, Suppressor, cancel  # noqa: E402

RATE, PIECE = 16000, 320


def call(seconds, delay=640, seed=1, rate=RATE, band=1.0):
    """A microphone (n) and a reference (n), int16: noise up to a share of half the rate, its echo
    at half the level in a small room, and the room's own noise at -64 dBFS. An odd length, so
    that the last frame is partial."""
    rng = np.random.default_rng(seed)
    n = int(seconds * rate) + 77
    spectrum = np.fft.rfft(2000 * rng.standard_normal(n))
    spectrum[int(band * len(spectrum)):] = 0
    x = np.fft.irfft(spectrum, n)
    room = np.zeros(200)
    room[[0, 30, 77, 180]] = 0.5, -0.2, 0.1, 0.05
    echo = np.convolve(np.concatenate([np.zeros(delay), x]), room)[:n]
    return np.rint(echo + 20 * rng.standard_normal(n)).astype(np.int16), np.rint(x).astype(np.int16)


def pieces(n, seed, most=5000):
    """Random bounds of pieces of 1 to most samples."""
    rng = np.random.default_rng(seed)
    ends = np.cumsum(rng.integers(1, most + 1, n // (most // 3) + 20))
    return [0, *(int(e) for e in ends if e < n), n]


def removed_db(before, after, part=None):
    """How much quieter a part (slice) became, in dB; the second half if not told."""
    part = part or slice(len(after) // 2, None)
    return 10 * np.log10(np.mean(before[part].astype(float) ** 2) / np.mean(after[part].astype(float) ** 2))


def resampled(x, ratio):
    """x (n) with ratio times as many samples, by a sinc of 64 taps."""
    at = np.arange(int(len(x) * ratio)) / ratio
    base, taps = np.floor(at).astype(int), np.arange(-31, 33)
    padded, t = np.pad(x.astype(float), (32, 64)), taps - (at - base)[:, None]
    window = 0.5 + 0.5 * np.cos(np.pi * t / 33)
    return np.rint((padded[base[:, None] + taps + 32] * np.sinc(t) * window).sum(1)).astype(np.int16)


class Player:
    """Gives a stream its pieces in the order of their arrival times."""

    def __init__(self):
        self.events, self.order = [], itertools.count()

    def add(self, arrival, method, *arguments):
        self.events.append((arrival, next(self.order), method, arguments))

    def play(self, x, at, arrival, size=PIECE, rate=RATE):
        """Pieces of x from a time on. arrival: of a piece, from its time."""
        for i in range(0, len(x), size):
            self.add(arrival(at + i / rate), "played", x[i:i + size], at + i / rate)

    def capture(self, y, at=0.0):
        for i in range(0, len(y), PIECE):
            self.add(at + (i + PIECE) / RATE, "captured", y[i:i + PIECE], at + i / RATE)

    def run(self, stream):
        """What the stream returned, and its counts."""
        out = []
        for _, _, method, arguments in sorted(self.events, key=lambda event: event[:2]):
            result = getattr(stream, method)(*arguments)
            if method == "captured":
                out.append(result)
        counts = stream.counts
        out.append(stream.finish())
        return np.concatenate(out), counts


class WithoutTimes(unittest.TestCase):
    def in_pieces(self, mic, ref, stream, seed, given=lambda piece: piece):
        """Random pieces of each; the reference is ahead of the microphone."""
        out, ends = [], pieces(len(ref), seed)
        played = iter(zip(ends, ends[1:]))
        ahead = 0
        for first, end in zip(pieces(len(mic), seed + 1), pieces(len(mic), seed + 1)[1:]):
            while ahead < end:
                start, ahead = next(played)
                stream.played(given(ref[start:ahead]))
            out.append(stream.captured(given(mic[first:end])))
        return [*out, stream.finish()]

    def test_random_pieces_give_what_one_piece_gives(self):
        for seed in range(3):
            mic, ref = call(3, seed=seed)
            out = np.concatenate(self.in_pieces(mic, ref, Stream(RATE), seed))
            np.testing.assert_array_equal(out, cancel(mic, ref, RATE).cleaned)

    def test_bytes_and_floats_come_back_as_they_were_given(self):
        mic, ref = call(2)
        wanted = cancel(mic, ref, RATE).cleaned
        out = b"".join(self.in_pieces(mic, ref, Stream(RATE), 1, lambda x: x.astype("<i2").tobytes()))
        np.testing.assert_array_equal(np.frombuffer(out, "<i2"), wanted)
        out = np.concatenate(self.in_pieces(mic, ref, Stream(RATE), 1, lambda x: x.astype(np.float32) / 32768))
        self.assertEqual(out.dtype, np.float32)
        np.testing.assert_array_equal(out * 32768, wanted)

    def test_bytes_may_end_within_a_sample(self):
        mic, ref = call(1)
        a, b, stream, out = mic.tobytes(), ref.tobytes(), Stream(RATE), b""
        for i in range(0, len(a), 333):
            stream.played(b[i:i + 333])
            out += stream.captured(a[i:i + 333])
        np.testing.assert_array_equal(np.frombuffer(out + stream.finish(), "<i2"), cancel(mic, ref, RATE).cleaned)

    def test_suppressed_as_cancel_wav_does_it(self):
        mic, ref = call(2)
        result = cancel(*(np.pad(x, (0, -len(x) % 256)) for x in (mic, ref)), RATE)
        with Suppressor(RATE) as suppressor:        # a frame of silence brings out the last one
            whole = Result(*(np.pad(part, (0, 256)) for part in result[:3]), result.delays)
            wanted = suppressor.process(whole)[256:256 + len(mic)]
        out = np.concatenate(self.in_pieces(mic, ref, Stream(RATE, suppress=True), 1))
        np.testing.assert_array_equal(out, wanted)

    def test_two_microphones_and_references_and_the_cancellers_options(self):
        mic, ref = (np.stack([a, np.roll(a, 5)], 1) for a in call(1))
        options = dict(drop_channel=1, delay_len=512)
        out = np.concatenate(self.in_pieces(mic, ref, Stream(RATE, 2, 2, **options), 1))
        np.testing.assert_array_equal(out, cancel(mic, ref, RATE, **options).cleaned)

    def test_what_is_not_yet_returned_is_constant(self):
        for suppress, latency in ((False, 0.0), (True, 0.0), (False, 0.1), (True, 0.1)):
            stream, given, returned = Stream(RATE, suppress=suppress, latency=latency), 0, 0
            for first, end in zip(pieces(RATE, 3, 700), pieces(RATE, 3, 700)[1:]):
                given += end - first
                returned += len(stream.captured(np.zeros(end - first)))
                old = max(0, given - round(latency * RATE))
                self.assertEqual(returned, max(0, old // 256 * 256 - 256 * suppress))

    def test_two_threads_give_what_one_piece_gives(self):
        mic, ref = call(5)
        ends, stream, out, ready = pieces(len(mic), 1), Stream(RATE), [], threading.Semaphore(0)

        def play():
            for first, end in zip(ends, ends[1:]):
                stream.played(ref[first:end])
                ready.release()

        player = threading.Thread(target=play)
        player.start()
        for first, end in zip(ends, ends[1:]):
            ready.acquire()
            out.append(stream.captured(mic[first:end]))
        player.join()
        np.testing.assert_array_equal(np.concatenate([*out, stream.finish()]), cancel(mic, ref, RATE).cleaned)

    def test_playback_after_a_pause_begins_at_what_was_captured_last(self):
        mic, ref = call(2)
        stream, out = Stream(RATE), []
        out.append(stream.captured(mic[:1000]))             # frames up to 768 are processed
        stream.played(ref[768:9000])
        out.append(stream.captured(mic[1000:20000]))        # to 19968
        stream.played(ref[19968:])
        out += [stream.captured(mic[20000:]), stream.finish()]
        used = ref.copy()
        used[:768] = used[9000:19968] = 0
        np.testing.assert_array_equal(np.concatenate(out), cancel(mic, used, RATE).cleaned)
        self.assertEqual(stream.counts.silent, 768 + 19968 - 9000 + -len(ref) % 256)

    def test_a_stream_reports_as_its_canceller_does(self):
        mic, ref = call(8)
        stream = Stream(RATE)
        stream.played(ref)
        stream.captured(mic)
        with Canceller(RATE) as canceller:
            canceller.process(mic[:len(mic) // 256 * 256], ref[:len(mic) // 256 * 256])
            self.assertEqual(stream.report(), canceller.report())
        self.assertEqual(stream.report().verdict, "cancelling")
        stream.finish()
        self.assertRaisesRegex(ValueError, "closed", stream.report)

    def test_an_interrupt_takes_back_what_is_still_to_be_played(self):
        mic, ref = call(2)
        stream = Stream(RATE)
        stream.played(ref[:20000])
        out = [stream.captured(mic[:5000])]     # frames up to 4864 are processed
        stream.interrupt()
        stream.played(ref[5000:])
        out += [stream.captured(mic[5000:]), stream.finish()]
        np.testing.assert_array_equal(np.concatenate(out), cancel(mic, ref, RATE).cleaned)
        self.assertEqual(stream.counts.discarded, 20000 - 5000)

    def test_more_than_a_minute_ahead_is_dropped_and_told(self):
        stream = Stream(8000)
        with self.assertLogs("nax_aec", "WARNING") as log:
            stream.played(np.zeros(61 * 8000, np.int16))
        self.assertEqual(stream.counts.too_early, 8000)
        self.assertIn("1.000 s more than 60 s too early", log.output[0])


class WithTimes(unittest.TestCase):
    def expect(self, player, mic, used, stream=None, **counts):
        """The samples of the whole recording with the reference used, and these counts."""
        out, counted = player.run(stream or Stream(RATE))
        np.testing.assert_array_equal(out, cancel(mic, used, RATE).cleaned)
        wanted = dict(late=0, discarded=0, too_early=0, steps=0, drift_ppm=0.0)
        self.assertEqual({name: getattr(counted, name) for name in wanted}, {**wanted, **counts})

    def test_a_reference_that_comes_a_second_early_or_in_bursts(self):
        mic, ref = call(3)
        for arrival in (lambda at: at - 1, lambda at: at // 0.5 * 0.5 - 0.5):
            player = Player()
            player.play(ref, 0, arrival)
            player.capture(mic)
            self.expect(player, mic, ref)

    def test_a_reference_that_comes_late_and_in_any_order_within_the_latency(self):
        mic, ref = call(3)
        rng, player = np.random.default_rng(1), Player()
        player.play(ref, 0, lambda at: at + rng.uniform(0, 0.5))
        player.capture(mic)
        self.expect(player, mic, ref, Stream(RATE, latency=0.55))

    def test_a_reference_that_comes_too_late_is_counted(self):
        mic, ref = call(2)
        player, used = Player(), ref.copy()
        player.play(ref[:16000], 0, lambda at: at - 0.1)
        player.play(ref[16000:16320], 1, lambda at: at + 0.3)
        player.play(ref[16320:], 1.02, lambda at: at - 0.1)
        player.capture(mic)
        used[16000:16320] = 0
        with self.assertLogs("nax_aec", "WARNING") as log:
            self.expect(player, mic, used, late=320)
        self.assertIn("0.020 s of reference came too late", log.output[0])

    def test_it_is_told_again_each_time_that_twice_as_much_is_late(self):
        mic, ref = call(2)
        stream = Stream(RATE)
        stream.captured(mic, 0.0)
        with self.assertLogs("nax_aec", "WARNING") as log:
            for i in range(0, 3200, 320):
                stream.played(ref[i:i + 320], i / RATE)
        self.assertEqual(stream.counts.late, 3200)
        self.assertEqual([line.split()[0][-5:] for line in log.output], ["0.020", "0.060", "0.140"])

    def test_a_gap_in_what_is_played_is_silence(self):
        mic, ref = call(2)
        player, used = Player(), ref.copy()
        player.play(ref[:12345], 0, lambda at: at - 0.2)
        player.play(ref[20001:], 20001 / RATE, lambda at: at - 0.2)
        player.capture(mic)
        used[12345:20001] = 0
        self.expect(player, mic, used)

    def test_an_interrupt_takes_back_what_is_still_to_be_played(self):
        mic, ref = call(2)
        stop = 16111 / RATE
        player, used = Player(), ref.copy()
        player.play(ref, 0, lambda at: at - 1)
        player.add(stop, "interrupt", stop)
        player.capture(mic)
        used[16111:] = 0
        self.expect(player, mic, used, discarded=len(ref[16111:]))

    def test_a_new_playback_takes_the_place_of_one_that_it_overlaps(self):
        mic, ref = call(2)
        player = Player()
        player.play(ref[:16000], 0, lambda at: at - 1)
        player.play(ref[::-1][:9600], 1, lambda at: -0.5)       # never played after all
        player.play(ref[16000:], 1, lambda at: at - 0.4)
        player.capture(mic)
        self.expect(player, mic, ref, discarded=9600)

    def test_a_gap_in_what_is_captured_is_no_gap_in_what_is_returned(self):
        mic, ref = call(3)
        lost = slice(60 * PIECE, 75 * PIECE)
        kept = np.delete(mic, lost)
        player = Player()
        player.play(ref, 0, lambda at: at - 0.4)
        player.capture(mic)
        player.events = [e for e in player.events if e[2] != "captured" or not 60 <= round(e[3][1] * 50) < 75]
        out, counts = player.run(Stream(RATE))
        self.assertEqual((len(out), counts.steps > 0), (len(kept), True))
        self.assertGreater(removed_db(kept, out), 20)

    def test_clocks_that_differ_jitter_and_interrupts(self):
        """200 ppm, arrival jitter of 500 ms, five interrupts: within 1.5 dB of the undisturbed
        recording, also in the second around each interrupt."""
        mic, ref = call(12, band=0.8)       # no converter holds more than nine tenths of the band
        ratio = 1 + 200e-6
        played, rng, player, parts = resampled(ref, ratio), np.random.default_rng(1), Player(), [None]
        player.play(played, 0, lambda at: at + rng.uniform(-0.2, 0.3), rate=RATE * ratio)
        for second in (3.1, 4.7, 6.0, 8.3, 10.9):
            stop = round(second * 50) * PIECE / RATE / ratio
            parts.append(slice(int((stop - 0.5) * RATE), int((stop + 0.5) * RATE)))
            player.play(played[::-1][:16000], stop, lambda at: second - 0.9, rate=RATE * ratio)
            player.add(second - 0.8, "interrupt", stop)
        player.events.sort(key=lambda event: event[2] == "interrupt" and event[0])
        player.capture(mic)
        out, counts = player.run(Stream(RATE, latency=0.4))
        undisturbed = cancel(mic, ref, RATE).cleaned
        for part in parts:
            self.assertGreater(removed_db(mic, out, part), removed_db(mic, undisturbed, part) - 1.5, part)
        self.assertAlmostEqual(counts.drift_ppm, 200, delta=10)

    def test_times_that_jitter_by_milliseconds(self):
        mic, ref = call(12)
        rng, player = np.random.default_rng(1), Player()
        player.play(ref, 0, lambda at: at - 0.1)
        player.capture(mic)
        player.events = [(a, o, m, (x, at + rng.uniform(-3e-3, 3e-3))) for a, o, m, (x, at) in player.events]
        out, _ = player.run(Stream(RATE))
        wanted = removed_db(mic, cancel(mic, ref, RATE).cleaned)
        self.assertGreater(removed_db(mic, out), wanted - 6)    # the clocks' rates are uncertain

    def test_times_that_do_not_fit_the_rate_are_counted(self):
        """Clocks are believed to differ by 500 ppm at most; more shows as gaps and overlaps."""
        mic, ref = call(4)
        for ppm in (-50000, -2000, 2000, 50000):
            player = Player()
            player.play(ref, 0, lambda at: at - 0.4, rate=RATE * (1 + 1e-6 * ppm))
            player.capture(mic)
            out, counts = player.run(Stream(RATE))
            self.assertEqual(len(out), len(mic))
            lost = counts.steps + counts.discarded + counts.silent
            self.assertTrue(lost > 100 or abs(abs(counts.drift_ppm) - 500) < 1, (ppm, counts))

    def test_times_for_some_pieces_only_are_refused(self):
        stream = Stream(RATE)
        stream.played(np.zeros(100), at=1.0)
        for wrong in (lambda: stream.captured(np.zeros(100)), lambda: stream.played(np.zeros(100)),
                      stream.interrupt, lambda: stream.captured(np.zeros(100), at=float("nan"))):
            with self.assertRaisesRegex(ValueError, "time"):
                wrong()


class Rates(unittest.TestCase):
    def test_other_rates_come_back_as_they_were_given(self):
        for rate, reference_rate in ((24000, 24000), (16000, 24000), (44100, 22050), (11025, 48000)):
            mic, ref = call(4, delay=rate // 25, rate=rate, band=0.8 * min(1, reference_rate / rate))
            ref = resampled(ref, reference_rate / rate)
            for times in (False, True):
                with self.subTest(rate=rate, reference_rate=reference_rate, times=times):
                    stream, out = Stream(rate, reference_rate=reference_rate), []
                    for i in range(0, 200):
                        a, b = (r * i // 50 for r in (rate, reference_rate))
                        c, d = (r * (i + 1) // 50 for r in (rate, reference_rate))
                        stream.played(ref[b:d], b / reference_rate if times else None)
                        out.append(stream.captured(mic[a:c], a / rate if times else None))
                    out = np.concatenate([*out, stream.finish()])
                    self.assertEqual(len(out), 4 * rate)
                    self.assertGreater(removed_db(mic[:4 * rate], out), 12)


    def test_a_stream_that_nobody_closes_releases_its_converters(self):
        stream = Stream(44100)
        converter, released = stream._back, []
        library, state = converter._lib, converter._state
        converter._lib = types.SimpleNamespace(src_delete=released.append)
        del stream, converter
        self.assertEqual(released, [state])
        library.src_delete(state)


class Errors(unittest.TestCase):
    def test_arguments_that_do_not_fit(self):
        for arguments, options in (((999,), {}), ((RATE, 3), {}), ((RATE,), dict(reference_rate=10**6)),
                                   ((RATE,), dict(latency=-1)), ((RATE,), dict(delay_len=-1))):
            with self.subTest(arguments=arguments, options=options), self.assertRaises(ValueError):
                Stream(*arguments, **options)
        stream = Stream(RATE)
        for wrong in (np.zeros((100, 2)), np.zeros(100) * np.nan):
            for method in (stream.played, stream.captured):
                self.assertRaises(ValueError, method, wrong)
        for wrong in (5, [1, 2], "sound", np.zeros(100, int)):
            for method in (stream.played, stream.captured):
                self.assertRaises(TypeError, method, wrong)
        self.assertEqual(stream.counts.captured, 0)

    def test_a_closed_stream(self):
        stream = Stream(RATE)
        stream.finish()
        stream.close()
        for call_it in (stream.finish, stream.interrupt, lambda: stream.played(b""), lambda: stream.captured(b"")):
            self.assertRaisesRegex(ValueError, "closed", call_it)

    def test_the_docstrings_example(self):
        self.assertEqual(doctest.testmod(nax_aec.stream).failed, 0)


def spoken(most_s):
    """Speech (n) int16 at 48000 Hz, from the sounds of Debian's alsa-utils; None without them."""
    files = sorted(pathlib.Path("/usr/share/sounds/alsa").glob("*_*.wav"))
    parts = []
    for file in files:
        with wave.open(str(file)) as sound:
            parts.append(np.frombuffer(sound.readframes(sound.getnframes()), "<i2"))
    return np.concatenate(parts)[:int(most_s * 48000)] if parts else None


class Examples(unittest.TestCase):
    """Each in a process of its own, as its user starts it."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        package = pathlib.Path(nax_aec.__file__).parents[1]
        self.environment = dict(os.environ, PYTHONPATH=str(package), HOME="/nonexistent")

    def start(self, name, *arguments):
        process = subprocess.Popen([PYTHON, "-B", ROOT / "examples/python" / name, *arguments],
                                   cwd=self.folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                   env=self.environment)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def write(self, name, samples, rate):
        with wave.open(str(self.folder / name), "wb") as file:
            file.setparams((1, 2, rate, 0, "NONE", ""))
            file.writeframes(samples.astype("<i2").tobytes())

    def read(self, name):
        with wave.open(str(self.folder / name)) as file:
            return np.frombuffer(file.readframes(file.getnframes()), "<i2")

    def test_files_in_odd_pieces(self):
        mic, ref = call(3)
        self.write("mic.wav", mic, RATE)
        self.write("ref.wav", ref, RATE)
        process = self.start("stream_files.py", "mic.wav", "ref.wav", "cleaned.wav")
        self.assertIn("late=0", process.communicate()[0])
        np.testing.assert_array_equal(self.read("cleaned.wav"), cancel(mic, ref, RATE).cleaned)

    @unittest.skipUnless(importlib.util.find_spec("pyaudio"), "python3-pyaudio is not installed")
    def test_a_full_duplex_loop_on_alsa_devices(self):
        mic, ref = call(4)
        self.write("sound.wav", ref, RATE)
        (self.folder / "mic.raw").write_bytes(mic.tobytes())
        (self.folder / "asound.conf").write_text(
            'pcm.speaker { type null }\n'
            f'pcm.mic {{ type file slave.pcm null file /dev/null infile "{self.folder}/mic.raw" format raw }}\n')
        self.environment["ALSA_CONFIG_PATH"] = f"/usr/share/alsa/alsa.conf:{self.folder}/asound.conf"
        process = self.start("full_duplex.py", "sound.wav", "cleaned.wav", "speaker", "mic")
        self.assertEqual((process.communicate()[1].count("Traceback"), process.returncode), (0, 0))
        cleaned = self.read("cleaned.wav")
        self.assertGreaterEqual(len(cleaned), len(ref) // PIECE * PIECE)
        self.assertGreater(removed_db(mic, cleaned), 12)

    @unittest.skipUnless(importlib.util.find_spec("websockets"), "python3-websockets is not installed")
    def test_a_server_cancels_for_a_satellite_whose_messages_jitter(self):
        import asyncio
        import websockets
        ref = spoken(8)
        if ref is None:
            self.skipTest("alsa-utils is not installed")
        rate, rng, player = 48000, np.random.default_rng(1), Player()
        room = 0.3 * rng.standard_normal(960) * np.exp(-np.arange(960) / 150)
        mic = np.convolve(np.concatenate([np.zeros(3000), ref]), room)[:len(ref)]
        mic = np.rint(mic + 3 * rng.standard_normal(len(mic))).astype(np.int16)
        for i in range(0, len(ref), 960):       # a piece of 20 ms each, on its way for up to half a second
            at = 1000 + i / rate
            player.add(at + rng.uniform(0, 0.4), b"p", ref[i:i + 960], at)
            player.add(at + 0.02, b"c", mic[i:i + 960], at)
        player.add(999, b"p", ref[:48000], 1007.0)      # an answer that is cancelled before it is played
        player.add(999.5, b"i", ref[:0], 1007.0)

        async def satellite(port):
            cleaned = b""
            async with websockets.connect(f"ws://localhost:{port}") as socket:
                for _, _, kind, (samples, at) in sorted(player.events, key=lambda event: event[:2]):
                    await socket.send(kind + struct.pack(">d", at) + samples.tobytes())
                    if kind == b"c":
                        cleaned += await socket.recv()
            return np.frombuffer(cleaned, "<i2")

        with socket.socket() as free:
            free.bind(("localhost", 0))
            port = free.getsockname()[1]
        server = self.start("satellite_server.py", str(port), str(rate))
        self.assertEqual(server.stdout.readline(), "listening\n")
        cleaned = asyncio.run(satellite(port))
        self.assertIn("late=0, discarded=48000", server.stdout.readline())
        wanted = cancel(mic, ref, rate).cleaned[:len(cleaned)]
        self.assertEqual(len(cleaned), (len(mic) - rate // 2) // 768 * 768)
        np.testing.assert_array_equal(cleaned, wanted)
        self.assertGreater(removed_db(mic, cleaned), 10)


class Long(unittest.TestCase):
    def setUp(self):
        if "--long" not in options:
            self.skipTest("with --long")

    def test_an_hour_in_100000_calls_on_two_threads(self):
        """Exact samples, and memory that no longer grows after the first tenth."""
        mic, ref = call(10)
        n, sizes = 3600 * RATE, np.random.default_rng(1).integers(1, 1153, 10**5)
        stream, whole, most = Stream(RATE), Canceller(RATE), []
        room, ready = threading.Semaphore(200), threading.Semaphore(0)
        ends = [0, *np.minimum(np.cumsum(sizes), n).tolist()]

        def cycle(x, first, end):
            return np.take(x, range(first, end), mode="wrap")

        def play():
            for first, end in zip(ends, ends[1:]):
                room.acquire()
                stream.played(cycle(ref, first, end))
                ready.release()

        player = threading.Thread(target=play)
        player.start()
        left, at = np.zeros(0, np.int16), 0
        for i, (first, end) in enumerate(zip(ends, ends[1:])):
            ready.acquire()
            left = np.concatenate([left, stream.captured(cycle(mic, first, end))])
            room.release()
            whole_frames = len(left) // 256 * 256
            if whole_frames:
                expected = whole.process(cycle(mic, at, at + whole_frames), cycle(ref, at, at + whole_frames))
                np.testing.assert_array_equal(left[:whole_frames], expected.cleaned)
                at, left = at + whole_frames, left[whole_frames:]
            if i in (10**4, 10**5 - 1):
                most.append(resource.getrusage(resource.RUSAGE_SELF).ru_maxrss)
        player.join()
        print(f"{at / RATE:.0f} s in {len(ends) - 1} calls a side; most memory {most[0]} kB after a tenth, "
              f"{most[1]} kB at the end")
        self.assertLess(most[1], most[0] + 2000)

    def test_what_a_stream_costs_over_its_canceller(self):
        """Processor time in pieces of 20 ms, by turns, the least of several rounds; printed, since no
        machine is like another."""
        mic, ref = call(60)
        kinds = {"without times": None, "with times": 0.0, "with times, 200 ppm": 200e-6}
        least = dict.fromkeys(["canceller", *kinds], float("inf"))
        for _ in range(7):
            for kind, ppm in [("canceller", None), *kinds.items()]:
                begun = time.process_time()
                if kind == "canceller":
                    cancel(mic, ref, RATE)
                else:
                    stream = Stream(RATE)
                    for i in range(0, len(mic), PIECE):
                        stream.played(ref[i:i + PIECE], None if ppm is None else i / RATE * (1 + ppm))
                        stream.captured(mic[i:i + PIECE], None if ppm is None else i / RATE)
                    self.assertGreater(stream.counts.returned, len(mic) - 2 * PIECE)
                least[kind] = min(least[kind], time.process_time() - begun)
        for kind in kinds:
            print(f"{kind}: {(least[kind] - least['canceller']) / len(mic) * RATE:.2%} of a core")

    def test_a_minute_of_threads_that_call_everything(self):
        stream, stop, faults, calls = Stream(RATE, latency=0.1), time.monotonic() + 60, [], [0] * 5
        rng = np.random.default_rng(1)
        noise = (2000 * rng.standard_normal(5000)).astype(np.int16)

        def run(i, act):
            try:
                while time.monotonic() < stop:
                    act(int(np.random.default_rng(calls[i]).integers(1, 5000)))
                    calls[i] += 1
            except Exception as error:      # of any kind: it is told below
                faults.append(error)

        acts = [lambda k: stream.played(noise[:k], time.monotonic()),
                lambda k: stream.captured(noise[:k], time.monotonic()),
                lambda k: stream.captured(noise[:k].tobytes(), time.monotonic()),
                lambda k: stream.interrupt(time.monotonic()), lambda k: stream.counts]
        threads = [threading.Thread(target=run, args=each, daemon=True) for each in enumerate(acts)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(90)
        print("calls of five threads in 60 s:", calls)
        self.assertEqual((faults, [t.is_alive() for t in threads]), ([], [False] * 5))


if __name__ == "__main__":
    options = [a for a in sys.argv if a == "--long"]
    unittest.main(argv=[a for a in sys.argv if a != "--long"])
