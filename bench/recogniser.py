"""What pocketsphinx hears in the outputs of bench/barge_in's systems: digits by a grammar, or a wake
phrase by its keyphrase search."""
import pathlib
import subprocess
import tempfile

import numpy as np

from talkers import DIGITS, PHRASE, RATE

MODEL = pathlib.Path("/usr/share/pocketsphinx/model/en-us")
MARGIN = RATE // 5              # heard before and after a digit, samples
LEAST = 1e-50                   # likelihood ratio below which the phrase is not even a candidate


def write_dictionary(path, words):
    with open(MODEL / "cmudict-en-us.dict") as known, open(path, "w") as ours:
        ours.writelines(line for line in known if line.split()[0].split("(")[0] in words)


def recognise(outputs, spans):
    """For each output (n) a list with the digit heard, or "", for each span."""
    with tempfile.TemporaryDirectory() as scratch:
        folder, pieces, lines, at = pathlib.Path(scratch), [], [], 0
        for output in outputs:
            for begin, end, _ in spans:
                piece = output[max(0, begin - MARGIN):end + MARGIN]
                piece = np.pad(piece, (0, -len(piece) % 160))       # the control file counts 10 ms
                lines.append(f"audio {at} {at + len(piece) // 160} {len(lines)}\n")
                at += len(piece) // 160
                pieces.append(piece)
        np.concatenate(pieces).astype("<i2").tofile(folder / "audio.raw")
        (folder / "segments").write_text("".join(lines))
        (folder / "digits.gram").write_text(f"#JSGF V1.0;\ngrammar digits;\npublic <digit> = {' | '.join(DIGITS)};\n")
        write_dictionary(folder / "digits.dict", DIGITS)
        subprocess.run(["pocketsphinx_batch", "-adcin", "yes", "-cepdir", folder, "-cepext", ".raw",
                        "-ctl", folder / "segments", "-hmm", MODEL / "en-us", "-dict", folder / "digits.dict",
                        "-jsgf", folder / "digits.gram", "-hyp", folder / "heard"],
                       check=True, stderr=subprocess.DEVNULL)
        heard = [line.rpartition("(")[0].strip() for line in (folder / "heard").read_text().splitlines()]
    return [heard[i:i + len(spans)] for i in range(0, len(heard), len(spans))]


def spot(output):
    """Where the phrase may be in an output (n): a list of [begin, end, score], in seconds and in the
    recogniser's logarithm of the likelihood ratio, more is surer. The output is heard as a whole."""
    from pocketsphinx.pocketsphinx import Decoder
    with tempfile.TemporaryDirectory() as scratch:
        dictionary = pathlib.Path(scratch) / "phrase.dict"
        write_dictionary(dictionary, PHRASE.split())
        config = Decoder.default_config()
        for option, value in {"-hmm": MODEL / "en-us", "-dict": dictionary, "-keyphrase": PHRASE,
                              "-logfn": "/dev/null"}.items():
            config.set_string(option, str(value))
        config.set_float("-kws_threshold", LEAST)
        config.set_int("-ds", 2)                        # every other frame's densities: half the time
        config.set_boolean("-remove_silence", False)    # else times are of what is left
        decoder = Decoder(config)
    decoder.start_utt()
    decoder.process_raw(output.astype("<i2").tobytes(), False, True)
    decoder.end_utt()
    return [[s.start_frame / 100, s.end_frame / 100, s.prob] for s in decoder.seg()]
