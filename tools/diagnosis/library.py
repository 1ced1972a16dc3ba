"""What the library itself makes of a recording."""
import contextlib
import os
import pathlib
import sys
from dataclasses import dataclass

import numpy as np

from .channel import ACTIVE_POWER, decibels, frame_powers, frame_size

LINE = 12288                    # samples that a delay line of the library holds
TOLERATED_S = 0.001             # an applied delay that is longer than the echo's loses its start
WINDOW_S = 2                    # for the best that it removes
TRIAL_S = 30                    # enough to try a base delay


@dataclass
class Run:
    """A recording through the library."""
    delay_len: int              # samples
    delays: np.ndarray          # applied, samples a frame
    removed: tuple              # dB while a reference is active: in the second half; over the best WINDOW_S
    trial_db: float = 0.0       # dB in the second half of the first TRIAL_S
    verdict: str = ""           # the meter's name and text for it when the far end was last heard


def reach(rate):
    """The longest delay in samples that the library can apply: a line less a frame."""
    return LINE - frame_size(rate)


def filter_length(rate):
    """Samples of the canceller's filter."""
    return 2 * frame_size(rate)


def binding():
    """The Python package over the library: of the source tree, else beside diagnose_wav, where
    the installation from source has it, else installed for this Python. ImportError where there
    is none."""
    in_tree = pathlib.Path(__file__).resolve().parents[2] / "python"
    if (in_tree / "nax_aec").is_dir() and str(in_tree) not in sys.path:
        sys.path.insert(0, str(in_tree))
    try:
        import nax_aec
    except ImportError as error:
        raise ImportError("the Python package nax_aec is missing for this Python (pip install ./python, or "
                          "python3-nax-aec)" if error.name == "nax_aec" else str(error)) from None
    return nax_aec


def version():
    """The library's version, as far as it is known."""
    try:
        return binding().__version__
    except ImportError:
        return "of unknown version"


@contextlib.contextmanager
def _quiet():
    """Without what the library writes to standard error at creation."""
    sys.stderr.flush()
    kept, nowhere = os.dup(2), os.open(os.devnull, os.O_WRONLY)
    os.dup2(nowhere, 2)
    try:
        yield
    finally:
        os.dup2(kept, 2)
        os.close(kept)
        os.close(nowhere)


def run(rate, mics, refs, delay_len=0):
    """The Run of microphones and references (lists of int16 (n)) through the library.
    ImportError or OSError where it is not there."""
    nax_aec = binding()
    y, x = np.stack(mics, 1), np.stack(refs, 1)
    with _quiet():
        canceller = nax_aec.Canceller(rate, len(mics), len(refs), delay_len=delay_len)
    piece = 16 * canceller.frame_size           # a quarter of a second
    parts, far_end_s, verdict = [], 0.0, ""
    with canceller:
        whole = len(y) // canceller.frame_size * canceller.frame_size
        for at in range(0, whole, piece):
            parts.append(canceller.process(y[at:min(at + piece, whole)], x[at:min(at + piece, whole)]))
            report = canceller.report()
            if report.far_end_s > far_end_s or not far_end_s:
                far_end_s, verdict = report.far_end_s, f"{report.verdict}: {report.text}"
    cleaned, delays = (np.concatenate([part[i] for part in parts]) for i in (0, 3))

    def over(length):
        return removed(rate, y[:length], cleaned[:length], x[:length])
    return Run(delay_len, np.asarray(delays), over(len(cleaned)), (over(TRIAL_S * rate) or (0.0,))[0], verdict)


def removed(rate, before, after, x):
    """dB by which a microphone (n x M) became quieter while a reference (n x R) is active,
    near end included: in the second half, and over the best WINDOW_S; None where there is
    not enough of that."""
    active = np.max([frame_powers(c / 32768, rate) for c in x.T], axis=0) > ACTIVE_POWER
    powers = [sum(frame_powers(c / 32768, rate) for c in part.T) * active for part in (before, after)]
    half, size = len(active) // 2, WINDOW_S * rate // frame_size(rate)
    if active[half:].sum() < 0.1 * size:
        return None
    second = [p[half:].sum() + 1e-12 for p in powers]
    windows = [np.convolve(p, np.ones(size), "valid")[::size // 4] + 1e-12 for p in powers]
    enough = np.convolve(active, np.ones(size), "valid")[::size // 4] > 0.3 * size
    best = max((windows[0] / windows[1])[enough], default=1.0)
    return float(decibels(second[0] / second[1])), float(decibels(best))


def is_aligned(applied, arrival, rate):
    """Whether applied delays (samples) leave the echo's arrival (samples) within the first
    three quarters of the filter."""
    early = arrival - np.asarray(applied)
    return (early > -TOLERATED_S * rate) & (early < 0.75 * filter_length(rate))
