#!/usr/bin/python3
"""What diagnose_wav makes of what was measured: a healthy recording's measures with one thing
changed, and the codes that this must bring."""
import dataclasses
import pathlib
import shutil
import subprocess
import sys
import unittest

try:
    import numpy as np
except ImportError:
    print("skipped: NumPy is missing")
    sys.exit(77)

sys.dont_write_bytecode = True
ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tools"))
from diagnosis import findings, page                                                    # noqa: E402
from diagnosis.library import Run                                                       # noqa: E402
from diagnosis.record import Channel, Echo, Measures, Section                           # noqa: E402

TIMES = np.arange(0.5, 11.5, 0.25)


def section(start=0.5, end=11.5, delay=0.040, **changed):
    return Section(start, end, delay, delay, **changed)


def echo(*sections, **changed):
    sections = list(sections) or [section()]
    delays = np.select([TIMES >= s.start for s in reversed(sections)], [s.arrival for s in reversed(sections)])
    return Echo(0, 1, sections, TIMES, delays, short=(18, 20), long=(19, 22), **changed)


def run(delay=512, delay_len=0):
    return Run(delay_len, np.full(750, delay), (18.0, 20.0))


def healthy(mic=None, ref=None, **changed):
    channels = [Channel("microphone", "microphone", **(mic or {})), Channel("reference", "reference", **(ref or {}))]
    values = {"echoes": [echo()], "run": run(), "advised": run(512, 512), **changed}
    return Measures("call.wav", 16000, [16000], 12.0, values.pop("channels", channels), **values)


def two_steps(move, **changed):
    return [echo(section(end=5.0), section(5.5, delay=0.040 + move, **changed))]


TABLE = [
    ("nothing", healthy(), [], ""),
    ("swapped bytes", healthy(mic={"swapped": True}), ["byte-order"], "in channel 0:"),
    ("exchanged", healthy(channels=[Channel("reference", "microphone"), Channel("microphone", "reference")]),
     ["roles"], "channel 0 looks like a reference, channel 1 looks like a microphone"),
    ("no microphone", healthy(channels=[Channel("reference"), Channel("reference")], echoes=[]),
     ["no-microphone"], ""),
    ("three microphones", healthy(channels=[Channel("microphone")] * 3 + [Channel("reference")]),
     ["microphones"], "channels 0, 1, 2"),
    ("silent reference", healthy(ref={"level_db": -120.0}, echoes=[], run=None), ["reference-silent"], "No reference"),
    ("one of two silent", healthy(channels=[Channel("microphone"), Channel("reference"),
                                            Channel("reference", level_db=-120.0)]), ["reference-silent"], "channel 2"),
    ("clipped", healthy(ref={"clipped": 0.001}), ["clipped"], "reference in channel 1 is clipped in 0.10 %"),
    ("hardly clipped", healthy(ref={"clipped": 0.0004}), [], ""),
    ("offset", healthy(mic={"offset": -3000 / 32768}), ["offset"], r"-3000, -9\.2 % of full scale"),
    ("a drop-out", healthy(mic={"drop_outs": [(1.5, 0.03)]}), ["drop-outs"], r"1 time\(s\), for 30 ms .* at 1\.50 s\."),
    ("regular drop-outs", healthy(mic={"drop_outs": [(3 * i, 0.03) for i in range(12)]}), ["drop-outs"],
     r"12 time\(s\).* and later s, every 3\.00 s\."),
    ("reference is the microphone", healthy(copies=[(1, 0)], echoes=[]), ["reference-is-microphone"], ""),
    ("reference twice", healthy(twice=[(2, 1)]), ["reference-twice"], "channel 2 is a copy of channel 1"),
    ("side tone", healthy(side_tone=(1, 0, 0.25)), ["side-tone"], "25 % of the time"),
    ("made at half the rate", healthy(made_at=8000), ["rate"], "made at 8000 Hz"),
    ("half the band", healthy(narrow=[(1, 3800.0)]), ["band"], r"ends at 3\.8 kHz"),
    ("twice the rate", healthy(ratio=2.0, echoes=[]), ["rates-differ"], "runs at 2 times"),
    ("microphone fast", healthy(ratio=1 / 1.01, echoes=[]), ["rates-differ"], r"runs 1\.00 % fast"),
    ("microphone slow", healthy(ratio=1 / 0.995, echoes=[]), ["rates-differ"], r"runs 0\.50 % slow"),
    ("tones", healthy(tonal=True, echoes=[]), ["tones"], ""),
    ("no echo", healthy(echoes=[]), ["no-echo"], ""),
    ("reference late", healthy(echoes=[echo(section(delay=-0.085))]), ["reference-late"], r"85\.0 ms later"),
    ("beyond the lines", healthy(echoes=[echo(section(delay=1.0))]), ["delay-too-long"],
     r"16000 samples late \(1000\.0 ms\); the delay lines reach 12032"),
    ("step", healthy(echoes=two_steps(0.020), run=run(640)), ["delay-steps"], r"at about 5\.2 s \(\+20\.0 ms\)"),
    ("step in silence", healthy(echoes=[echo(section(end=13.2), section(28.4, 40.0, 0.045))]), ["delay-steps"],
     r"between 13 and 28 s \(\+5\.0 ms\)"),
    ("a reflection that was louder for a moment", healthy(echoes=[
        echo(section(end=1.5, delay=0.044, sure=False), section(2.0))]), [], ""),
    ("an unsure delay that lasts", healthy(echoes=[echo(section(end=5.0, delay=0.060, sure=False), section(5.5))]),
     ["delay-steps"], r"\(-20\.0 ms\)"),
    ("another path", healthy(echoes=two_steps(0.0027, unlike=0.3)), ["path-changed"], r"\(\+2\.7 ms\)"),
    ("too far for a path", healthy(echoes=two_steps(0.011, unlike=0.3)), ["delay-steps"], ""),
    ("drift", healthy(echoes=[echo(drift_ppm=-100.0)]), ["drift"], r"-100 ppm: .* a frame apart every 160 s"),
    ("gain swings", healthy(echoes=[echo(swing_db=6.0)]), ["gain-swings"], "by 6 dB"),
    ("hardly linear", healthy(echoes=[dataclasses.replace(echo(), short=(0.5, 1.2), long=(1, 1.9))]), ["not-linear"],
     r"At best 1\.9 dB"),
    ("applied too late", healthy(run=run(680), advised=None), ["misaligned"],
     r"100 % .* 680 samples where the echo comes 640 late; it removes 20\.0 dB at best, where 20\.0 dB could be"),
    ("applied too early", healthy(run=run(200)), ["misaligned"], ""),
    ("applied within the filter", healthy(run=run(260)), [], ""),
    ("applied wrong, but unsure of it", healthy(run=run(900), echoes=[echo(section(sure=False))]), [], ""),
    ("not run", healthy(run=None, advised=None), [], ""),
]


class Findings(unittest.TestCase):
    def test_each_measure_brings_its_codes(self):
        for name, measures, codes, text in TABLE:
            with self.subTest(name):
                found = findings.judged(measures)
                self.assertEqual([one.code for one in found], codes)
                for one in found:
                    self.assertRegex(one.text, text or ".")
                    self.assertTrue(one.cure.endswith("."), one.cure)

    def test_each_judgement_is_in_the_table(self):
        judged = {one.code for _, measures, _, _ in TABLE for one in findings.judged(measures)}
        source = pathlib.Path(findings.__file__).read_text()
        self.assertEqual(judged, {part.split('"')[0] for part in source.split('Finding("')[1:]})

    def test_a_library_that_follows_a_step_is_right(self):
        delays = np.full(750, 512)
        delays[5 * 62 + 60:] = 1024
        measures = healthy(echoes=two_steps(0.030), run=Run(0, delays, (18.0, 20.0)))
        self.assertEqual([one.code for one in findings.judged(measures)], ["delay-steps"])


class Page(unittest.TestCase):
    def test_the_base_delay_that_was_tried_is_recommended_and_no_other(self):
        self.assertIn(".delay_len = 512, ", page.parameters(healthy()))
        self.assertIn(".delay_len = 0, ", page.parameters(healthy(advised=None)))

    def test_the_block_fits_the_channels_and_compiles(self):
        mic, ref, idle = Channel("microphone"), Channel("reference"), Channel("silent", level_db=-120.0)
        cases = (([mic, ref], (".pos = 1,", ".drop_channel = 0,", ".array_list = NULL,",
                               "nax_aec_state_init(16000, 16, 1, 1, &param)")),
                 ([ref, mic], (".pos = 0,",)),
                 ([mic, ref, Channel("reference", level_db=-120.0)], (".drop_channel = 1,",)),
                 ([ref, mic, idle], ("microphones[] = {1};", ".pos = 0,", "NAX_AEC_REMAP",
                                     ".array_list = microphones,")),
                 ([ref, mic, ref], ("has to reorder: channels 1, 0, 2,", "--channels 1:0,2",
                                    "nax_aec_state_init(16000, 16, 1, 2, &param)")))
        for channels, lines in cases:
            text = page.parameters(healthy(channels=channels))
            for line in lines:
                self.assertIn(line, text)
            if shutil.which("cc"):
                source = ('#include "nax_aec.h"\n#include <stddef.h>\nint main(void) {\n' + text
                          + "\nreturn state == NULL;\n}\n")
                result = subprocess.run(["cc", "-std=c99", "-Wall", "-Werror", "-fsyntax-only", "-x", "c", "-",
                                         f"-I{ROOT}/include"], input=source, capture_output=True, text=True)
                self.assertEqual(result.returncode, 0, result.stderr + source)

    def test_what_is_not_sure_is_said_to_be(self):
        text = page.page(healthy(echoes=[echo(Section(0.5, 11.5, 0.040, 0.0385, sure=False))]), [])
        self.assertIn("unsure: 616 to 640 samples, 38.5 to 40.0 ms late", text)
        self.assertIn("640 samples,    40.0 ms late", page.page(healthy(), []))

    def test_what_the_library_did_stands_beside_what_was_measured(self):
        self.assertIn("Library:  applied 512 samples, 32.0 ms at the end, throughout; removed 18.0 dB",
                      page.page(healthy(), []))
        self.assertIn("it was not run: no such file", page.page(healthy(run=None, not_run="no such file"), []))

    def test_files_of_another_rate_are_said_to_be_taken_as_one_of_the_librarys(self):
        measures = healthy()
        measures.recorded = [44100, 48000]
        self.assertIn("44100, 48000 Hz taken as 16000 Hz", page.page(measures, []))


if __name__ == "__main__":
    unittest.main()
