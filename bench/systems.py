"""The echo cancellers that bench/quality runs over a case, each on the whole of it.

A case is a dictionary with the audio in whole frames, int16 (mic: n x M microphones,
lpb: n x R references), rate in Hz, frame (F samples), mics (M), refs (R), kept (K, the
references that reach the canceller), params (of nax_aec.Canceller), true (the delay by
frame), lead (how much less than that is best) and alone (which frames have no near-end
talker).
"""
import contextlib
import ctypes
import functools
import os
import pathlib
import subprocess
import sys
import tempfile
import zlib

import numpy as np
from scipy import linalg, signal

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "python"))
import nax_aec  # noqa: E402

FULL_SCALE = 32768.0


@contextlib.contextmanager
def captured_messages():
    """Keeps standard error of C code away; yields a list that gets its text at the end."""
    messages, saved = [], os.dup(2)
    with tempfile.TemporaryFile() as sink:
        os.dup2(sink.fileno(), 2)
        try:
            yield messages
        finally:
            os.dup2(saved, 2)
            os.close(saved)
            sink.seek(0)
            messages.append(sink.read().decode(errors="replace"))


def without_lag(cleaned, case):
    """cleaned (n x M) moved, 0 to 2 frames earlier, to where it resembles the near end most, where
    that is known, perhaps with its sign turned, which costs no SI-SDR; else the microphone."""
    known = case.get("near") is not None
    size = 2 ** int(np.ceil(np.log2(2 * len(cleaned))))
    spectra = [np.fft.rfft(a[:, 0], size) for a in (cleaned, case["near" if known else "mic"])]
    lags = np.fft.irfft(spectra[0] * np.conj(spectra[1]))[:2 * case["frame"]]
    return np.roll(cleaned, -int((np.abs(lags) if known else lags).argmax()), axis=0)


def run_library(case, references, estimation):
    """The library over the case; returns cleaned (n x M int16), delays (frames), resets."""
    params = dict(case["params"])
    if not estimation:
        params["delay_len"] = 0
    with captured_messages() as messages:
        with nax_aec.Canceller(case["rate"], case["mics"], case["refs"],
                               delay_estimation=estimation, **params) as aec:
            whole = len(case["mic"]) // aec.frame_size * aec.frame_size
            cleaned, _, _, delays = aec.process(case["mic"][:whole], references[:whole])
    return cleaned, delays, messages[0].count("reset")


def run_suppressed(case, references):
    """The library and the suppressor behind it; returns cleaned (n x M int16), the frame by which
    the suppressor is late taken out again."""
    frame = case["frame"]
    whole = len(case["mic"]) // frame * frame
    with captured_messages():
        with nax_aec.Canceller(case["rate"], case["mics"], case["refs"], **case["params"]) as aec, \
                nax_aec.Suppressor(case["rate"], case["mics"], case["refs"]) as suppressor:
            late = suppressor.process(aec.process(case["mic"][:whole], references[:whole]))
    return np.vstack([late[frame:], np.zeros_like(late[:frame])])


def run_estimator(case):
    """The delays that the library applies over the case (frames), without the canceller's work:
    of a call with less than a frame the library takes the frame and answers with its delay."""
    frame, library = case["frame"], nax_aec.library()
    stream = np.ascontiguousarray(np.hstack([case["mic"], case["lpb"][:, :case["kept"]]]))
    delays = np.zeros(len(stream) // frame, np.int32)
    with captured_messages():
        with nax_aec.Canceller(case["rate"], case["mics"], case["refs"], **case["params"]) as aec:
            for i in range(len(delays)):
                delays[i] = library.nax_aec_short(aec._state, stream[i * frame:].ctypes.data, None, None, 0)
    return delays


def read_lines(references, delays, frame):
    """References (n x R) as the library's delay lines hand them out at delays (frames, samples):
    a read does not wrap, so once a lap a delay of no whole number of frames ends in silence."""
    result = np.zeros_like(references)
    for i, delay in enumerate(np.asarray(delays, int)):
        start = i * frame
        position = (start % nax_aec.LONGEST_DELAY - delay) % nax_aec.LONGEST_DELAY
        count = min(frame, nax_aec.LONGEST_DELAY - position)
        skipped = max(delay - start, 0)
        if skipped < count:
            result[start + skipped:start + count] = references[start + skipped - delay:start + count - delay]
    return result


def run_lines(case, removed):
    """The library told the true delay, read through its delay lines: by whole frames, or at the
    exact delay with the silent end, whichever removes more over the stretch. Returns cleaned."""
    frame = case["frame"]
    told = np.maximum(np.floor(case["true"] - case["lead"]), 0)
    reads = [read_lines(case["lpb"], delays, frame) for delays in (told // frame * frame, told)]
    outputs = [run_library(case, read, False)[0] for read in reads]
    return max(outputs, key=lambda cleaned: (removed(case, cleaned) or [0])[0])


@functools.lru_cache(maxsize=None)
def canceller_mark():
    """A text that changes when the canceller's output does: figures that depend on nothing else
    of the library are kept under it."""
    rng, mark = np.random.default_rng(1), 0
    for rate in (8000, 16000, 32000, 48000):
        frame = nax_aec.frame_size(rate)
        far = signal.lfilter([1], [1, -0.9], rng.standard_normal((100 * frame, 2)) * 1500, axis=0)
        far *= np.repeat(rng.uniform(0, 2, 100), frame)[:, None]
        mic = 0.4 * np.roll(far, 20, axis=0) + 20 * rng.standard_normal(far.shape)
        case = dict(rate=rate, mics=2, refs=2, params={}, mic=np.clip(mic, -32768, 32767).astype(np.int16))
        references = read_lines(np.clip(far, -32768, 32767).astype(np.int16), [frame // 3] * 100, frame)
        mark = zlib.crc32(run_library(case, references, False)[0].tobytes(), mark)
    return f"{mark:08x}"


def run_speex(case, references):
    """libspeexdsp on whole frames with a filter of two; returns cleaned (n x M int16)."""
    frame, mics = case["frame"], case["mics"]
    references = np.ascontiguousarray(references[:, :case["kept"]])
    speex = ctypes.CDLL("libspeexdsp.so.1")
    speex.speex_echo_state_init_mc.restype = ctypes.c_void_p
    cleaned = np.zeros_like(case["mic"])
    with captured_messages():
        state = ctypes.c_void_p(speex.speex_echo_state_init_mc(frame, 2 * frame, mics, case["kept"]))
        speex.speex_echo_ctl(state, 24, ctypes.byref(ctypes.c_int(case["rate"])))  # SET_SAMPLING_RATE
        for start in range(0, len(cleaned), frame):
            blocks = [ctypes.c_void_p(a[start:].ctypes.data) for a in (case["mic"], references, cleaned)]
            speex.speex_echo_cancellation(state, *blocks)
        speex.speex_echo_state_destroy(state)
    return cleaned


def run_best_fixed(case, references):
    """The least-squares filter of 32 ms over the far-only stretches; returns cleaned (n x M)."""
    taps, kept = 2 * case["frame"], case["kept"]
    inside = np.repeat(case["alone"], case["frame"])[:, None]
    x = references[:, :kept] * inside / FULL_SCALE
    y = case["mic"] * inside / FULL_SCALE
    size = 2 ** int(np.ceil(np.log2(len(x) + taps)))
    spectra, targets = np.fft.rfft(x, size, axis=0), np.fft.rfft(y, size, axis=0)

    def correlation(a, b):
        return np.fft.irfft(np.conj(a) * b, size)

    def block(i, j):
        lags = correlation(spectra[:, i], spectra[:, j])
        return linalg.toeplitz(lags[:taps], np.r_[lags[0], lags[:-taps:-1]])

    matrix = np.block([[block(i, j) for j in range(kept)] for i in range(kept)])
    matrix[np.diag_indices_from(matrix)] += 1e-6 * matrix.diagonal().max() + 1e-12
    wanted = np.array([np.concatenate([correlation(spectra[:, i], target)[:taps] for i in range(kept)])
                       for target in targets.T]).T
    filters = linalg.solve(matrix, wanted, assume_a="pos")
    cleaned = case["mic"].astype(float)
    for m in range(case["mics"]):
        for k in range(kept):
            cleaned[:, m] -= signal.fftconvolve(references[:, k],
                                                filters[k * taps:(k + 1) * taps, m])[:len(cleaned)]
    return cleaned


@functools.lru_cache(maxsize=None)
def webrtc_library(folder):
    """webrtc_apm.cpp, compiled into the folder."""
    source, binary = HERE / "webrtc_apm.cpp", pathlib.Path(folder) / "webrtc_apm.so"
    if not binary.exists() or binary.stat().st_mtime < source.stat().st_mtime:
        flags = subprocess.run(["pkg-config", "--cflags", "--libs", "webrtc-audio-processing"],
                               check=True, capture_output=True, text=True).stdout.split()
        subprocess.run(["g++", "-O2", "-shared", "-fPIC", "-o", binary, source, *flags], check=True)
    return ctypes.CDLL(str(binary))


def webrtc(case, folder):
    """webrtc-audio-processing on the unaligned references; returns cleaned (n x M int16), late."""
    cleaned = np.zeros_like(case["mic"])
    references = np.ascontiguousarray(case["lpb"][:, :case["kept"]])
    webrtc_library(folder).webrtc_apm(case["rate"], len(cleaned), case["mics"], case["kept"],
                                      *(ctypes.c_void_p(a.ctypes.data)
                                        for a in (case["mic"], references, cleaned)))
    return cleaned


def run_webrtc(case, folder):
    """webrtc-audio-processing, its latency taken out again."""
    return without_lag(webrtc(case, folder), case)
