"""Sound files of any kind, over libsndfile, and other rates, over libsamplerate."""
import ctypes
import os
import pathlib
from dataclasses import dataclass

import numpy as np

RATES = (8000, 16000, 32000, 48000)
LOWEST_HZ, HIGHEST_HZ = 1000, 768000    # what libsamplerate's ratios and sound cards allow
_READ, _PCM_16 = 0x10, 2                # SFM_READ, SF_FORMAT_PCM_16
_MEDIUM = 1                             # SRC_SINC_MEDIUM_QUALITY: 121 dB, 90 % of the band


class Unusable(Exception):
    """A file that cannot be taken; the text says which, why and what to do."""


class _Info(ctypes.Structure):
    _fields_ = [("frames", ctypes.c_int64), ("samplerate", ctypes.c_int), ("channels", ctypes.c_int),
                ("format", ctypes.c_int), ("sections", ctypes.c_int), ("seekable", ctypes.c_int)]


class _Conversion(ctypes.Structure):
    _fields_ = [("data_in", ctypes.c_void_p), ("data_out", ctypes.c_void_p),
                ("input_frames", ctypes.c_long), ("output_frames", ctypes.c_long),
                ("input_frames_used", ctypes.c_long), ("output_frames_gen", ctypes.c_long),
                ("end_of_input", ctypes.c_int), ("src_ratio", ctypes.c_double)]


@dataclass
class Sound:
    """A file as it was recorded."""
    path: str
    rate: int                   # Hz
    samples: list               # a channel each: int16 (n)
    is_16_bit: bool             # so that the order of its bytes can be wrong


def _library(name, package):
    try:
        return ctypes.CDLL(name)
    except OSError as error:
        in_wheel = pathlib.Path(__file__).resolve().parents[2] / name
        if in_wheel.exists():
            return ctypes.CDLL(str(in_wheel))
        raise Unusable(f"{name}: {error} (on Debian: {package})") from None


def read(path, longest_s):
    """The first longest_s of a file as a Sound; what is above full scale is cut off."""
    lib = _library("libsndfile.so.1", "libsndfile1")
    lib.sf_open.restype = ctypes.c_void_p
    lib.sf_strerror.restype = ctypes.c_char_p
    lib.sf_strerror.argtypes = lib.sf_close.argtypes = [ctypes.c_void_p]
    lib.sf_readf_float.restype = ctypes.c_int64
    lib.sf_readf_float.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int64]
    if os.path.isdir(path):
        raise Unusable(f"{path}: Is a directory")
    if os.path.isfile(path) and os.path.getsize(path) == 0:
        raise Unusable(f"{path}: is empty")
    info = _Info()
    file = lib.sf_open(os.fsencode(path), _READ, ctypes.byref(info))
    if not file:
        reason = lib.sf_strerror(None).decode(errors="replace").split(" : ")[-1].strip(" .\n")
        if "SF_INFO" in reason:
            reason = "says no rate; mend its header"
        elif "ormat" in reason:
            reason += f"; convert it, for instance by ffmpeg -i {path} OTHER.wav"
        raise Unusable(f"{path}: {reason}")
    try:
        if not LOWEST_HZ <= info.samplerate <= HIGHEST_HZ:
            raise Unusable(f"{path}: says {info.samplerate} Hz, which no recording has; mend its header")
        floats = np.zeros((min(info.frames, int(longest_s * info.samplerate)), info.channels), np.float32)
        held = lib.sf_readf_float(file, floats.ctypes.data, len(floats))
    finally:
        lib.sf_close(file)
    if np.isnan(floats[:held]).any():
        raise Unusable(f"{path}: holds samples that are not numbers")
    samples = np.clip(np.rint(floats[:held] * 32768), -32768, 32767).astype(np.int16)
    if len(samples) == 0:
        raise Unusable(f"{path}: holds no samples")
    return Sound(str(path), info.samplerate, [np.ascontiguousarray(c) for c in samples.T],
                 info.format & 0xffff == _PCM_16)


def rate_for(rate):
    """The rate of the library that holds what a recording of rate (Hz) holds, or the highest."""
    return next((r for r in RATES if r >= rate), RATES[-1])


def converted(x, from_rate, to_rate):
    """x (n) at another rate."""
    if from_rate == to_rate:
        return x
    lib = _library("libsamplerate.so.0", "libsamplerate0")
    lib.src_strerror.restype = ctypes.c_char_p
    data = np.ascontiguousarray(x, np.float32)
    out = np.zeros(int(np.ceil(len(x) * to_rate / from_rate)), np.float32)
    work = _Conversion(data.ctypes.data, out.ctypes.data, len(data), len(out), 0, 0, 1, to_rate / from_rate)
    status = lib.src_simple(ctypes.byref(work), _MEDIUM, 1)
    if status:
        raise Unusable(f"libsamplerate: {lib.src_strerror(status).decode()}")
    return out[:work.output_frames_gen].astype(float)
