"""nax_aec from Python: the library over ctypes, the audio in NumPy arrays.

    from nax_aec import Canceller

    with Canceller(16000, microphones=1, references=1) as aec:
        cleaned, aligned, echo, delay = aec.process(frame)      # frame: 256 x 2, int16

Frames are 16 ms: F = frame_size(sample_rate) sample instants. Samples are int16,
one row per sample instant, one column per channel: microphones first, then
references. M, R, D are the microphones, references and dropped references;
K = R - D references reach the canceller. A positive delay means: the reference
is held back by that many samples.

The library is the file that NAX_AEC_LIBRARY names, else libnax_aec.so in a build
directory of this checkout (build/default first, then build, build-*, build/*; one
built for another machine is passed over), else the installed one.
"""
import ctypes
import os
import pathlib

import numpy as np

DELAY_ESTIMATION = 1
REMAP = 2
LITTLE_ENDIAN, BIG_ENDIAN, HOST_ORDER = 0, 1, 2
LONGEST_DELAY = 12288           # samples

_library = None


class Param(ctypes.Structure):
    """The parameter block: six words, the last as wide as a pointer."""
    _fields_ = [("pos", ctypes.c_int32), ("drop_channel", ctypes.c_int32),
                ("model_aec_en", ctypes.c_int32), ("delay_len", ctypes.c_int32),
                ("look_ahead", ctypes.c_int32), ("array_list", ctypes.c_void_p)]


def library_names():
    """The paths or names under which the library is looked for, the best first."""
    named = os.environ.get("NAX_AEC_LIBRARY")
    if named:
        return [named]
    root = pathlib.Path(__file__).resolve().parents[2]
    folders = [root / "build/default"]
    for pattern in ("build", "build-*", "build/*"):
        folders += sorted(root.glob(pattern))
    paths = [folder / "libnax_aec.so" for folder in dict.fromkeys(folders)]
    return [str(path) for path in paths if path.exists()] + ["libnax_aec.so.2"]


def load():
    """The first library that loads; OSError with every reason when none does."""
    reasons = []
    for name in library_names():
        try:
            return ctypes.CDLL(name)
        except OSError as error:
            reasons.append(str(error))
    raise OSError(f"cannot load libnax_aec ({'; '.join(reasons)}); build it or set NAX_AEC_LIBRARY")


def library():
    """The loaded library, its calls typed; loaded once."""
    global _library
    if _library is None:
        lib = load()
        int32, pointer, param = ctypes.c_int32, ctypes.c_void_p, ctypes.POINTER(Param)
        lib.nax_aec_state_init.restype = pointer
        lib.nax_aec_state_init.argtypes = [int32] * 4 + [param]
        lib.nax_aec_state_destroy.restype = None
        lib.nax_aec_state_destroy.argtypes = [pointer]
        lib.nax_aec_param_printf.restype = None
        lib.nax_aec_param_printf.argtypes = [int32, int32, param]
        lib.nax_aec_short.restype = int32
        lib.nax_aec_short.argtypes = [pointer, pointer, pointer, pointer, int32]
        lib.nax_aec_byte.restype = int32
        lib.nax_aec_byte.argtypes = [pointer, ctypes.POINTER(pointer), pointer, pointer, int32,
                                     ctypes.c_uint32]
        _library = lib
    return _library


def frame_size(sample_rate):
    """F, the sample instants of a 16 ms frame, from the rate in Hz."""
    return sample_rate * 16 // 1000


class Canceller:
    """One audio stream: nax_aec_state_init, its calls, and nax_aec_state_destroy.

    Use it from one thread at a time, in a `with` block or with close().
    """

    def __init__(self, sample_rate, microphones=1, references=1, *, drop_channel=0,
                 delay_estimation=True, delay_len=0, look_ahead=0, pos=1, array_list=None):
        """Creates the state.

        sample_rate   8000, 16000, 32000 or 48000, in Hz
        microphones   M, 1 or 2
        references    R, 1 or more
        drop_channel  D: the last D references are kept from the canceller
        delay_len     base delay in samples, 0 to 12288
        look_ahead    samples, 0 or more; changes nothing in the audio
        pos           order of the bytes given to process_bytes: 0 references
                      first, 1 microphones first
        array_list    M channel numbers that become the microphones, or None
        Raises ValueError where the library would refuse or could not check.
        """
        if not 0 <= drop_channel <= references:
            raise ValueError(f"drop_channel is {drop_channel}, not 0 to {references}")
        if not 0 <= delay_len <= LONGEST_DELAY:
            raise ValueError(f"delay_len is {delay_len}, not 0 to {LONGEST_DELAY}")
        if look_ahead < 0:
            raise ValueError(f"look_ahead is {look_ahead}, not 0 or more")
        if array_list is not None:
            array_list = np.ascontiguousarray(array_list, np.int16)
            if array_list.shape != (microphones,):
                raise ValueError(f"array_list has shape {array_list.shape}, not ({microphones},)")
            if np.any((array_list < 0) | (array_list >= microphones + references)):
                raise ValueError(f"array_list names a channel outside 0 to {microphones + references - 1}")
        self.array_list = array_list        # borrowed by the state as long as it lives
        self.param = Param(pos, drop_channel,
                           DELAY_ESTIMATION * bool(delay_estimation) + REMAP * (array_list is not None),
                           delay_len, look_ahead, None if array_list is None else array_list.ctypes.data)
        self.sample_rate, self.microphones, self.references = sample_rate, microphones, references
        self.kept = references - drop_channel
        self.frame_size = frame_size(sample_rate)
        self._state = library().nax_aec_state_init(sample_rate, 16, microphones, references,
                                                   ctypes.byref(self.param))
        if not self._state:
            raise ValueError(f"not supported: {sample_rate} Hz, {microphones} microphones, "
                             f"{references} references")
        self._in = np.zeros((self.frame_size, microphones + self.kept), np.int16)
        self._out = np.zeros((self.frame_size, microphones + references), np.int16)
        self._echo = np.zeros((self.frame_size, microphones), np.int16)
        self._pointers = [a.ctypes.data for a in (self._in, self._out, self._echo)]

    def close(self):
        """Releases the state (nax_aec_state_destroy). A second call does nothing."""
        if getattr(self, "_state", None):
            library().nax_aec_state_destroy(self._state)
            self._state = None

    __del__ = close

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.close()

    def print_param(self):
        """Writes the parameter block to standard error (nax_aec_param_printf)."""
        library().nax_aec_param_printf(0, 0, ctypes.byref(self.param))

    def _results(self, delay):
        if delay < 0:
            raise RuntimeError("the library refused the frame; standard error has its reason")
        m = self.microphones
        return self._out[:, :m].copy(), self._out[:, m:].copy(), self._echo.copy(), delay

    def process(self, frame):
        """One frame (nax_aec_short).

        frame   F x (M + K) int16: microphones, then kept references
        Returns cleaned (F x M), aligned references (F x R, the dropped ones
        silent), echo (F x M) and the applied delay in samples.
        """
        if not self._state:
            raise ValueError("the canceller is closed")
        frame = np.asarray(frame)
        if frame.shape != self._in.shape or frame.dtype != np.int16:
            raise ValueError(f"frame is {frame.shape} {frame.dtype}, not {self._in.shape} int16")
        self._in[:] = frame
        return self._results(library().nax_aec_short(self._state, *self._pointers, self._out.size))

    def process_bytes(self, data, byte_order=HOST_ORDER):
        """One frame of raw bytes (nax_aec_byte).

        data        F x (M + R) x 2 bytes, interleaved in the order that pos gives
        byte_order  LITTLE_ENDIAN, BIG_ENDIAN or HOST_ORDER
        Returns what process returns and, fifth, the samples that were processed
        (F x (M + K)).
        """
        if not self._state:
            raise ValueError("the canceller is closed")
        if self.param.pos not in (0, 1):
            raise ValueError(f"pos is {self.param.pos}: nothing is processed unless it is 0 or 1")
        data, wanted = bytes(data), self._out.nbytes
        if len(data) != wanted:
            raise ValueError(f"data has {len(data)} bytes, not {wanted}")
        audio = ctypes.c_void_p(ctypes.cast(data, ctypes.c_void_p).value)
        delay = library().nax_aec_byte(self._state, ctypes.byref(audio), *self._pointers[1:],
                                       wanted, byte_order)
        results = self._results(delay)
        samples = ctypes.string_at(audio, self._in.nbytes)
        return (*results, np.frombuffer(samples, np.int16).reshape(self._in.shape))

    def process_stream(self, microphones, references):
        """Whole frames of a recording, one after the other.

        microphones  n x M int16 (n alone for one microphone)
        references   n x R int16 (n alone for one reference)
        Returns cleaned (N x M), aligned references (N x R), echo (N x M) and
        delays (N / F), N being the largest multiple of F within n; what is left
        over is not processed.
        """
        if not self._state:
            raise ValueError("the canceller is closed")
        microphones, references = np.asarray(microphones), np.asarray(references)
        microphones = microphones.reshape(len(microphones), -1)
        references = references.reshape(len(references), -1)
        for audio, channels in ((microphones, self.microphones), (references, self.references)):
            if audio.shape != (len(microphones), channels) or audio.dtype != np.int16:
                raise ValueError(f"audio is {audio.shape} {audio.dtype}, "
                                 f"not {(len(microphones), channels)} int16")
        frames = len(microphones) // self.frame_size
        n, m, call = frames * self.frame_size, self.microphones, library().nax_aec_short
        stream = np.ascontiguousarray(np.hstack([microphones, references[:, :self.kept]])[:n])
        out = np.zeros((n, m + self.references), np.int16)
        echo, delays = np.zeros((n, m), np.int16), np.zeros(frames, np.int32)
        starts = [a.ctypes.data for a in (stream, out, echo)]
        steps = [a.nbytes // max(frames, 1) for a in (stream, out, echo)]
        for i in range(frames):
            delays[i] = call(self._state, *(p + i * s for p, s in zip(starts, steps)), self._out.size)
        if np.any(delays < 0):
            raise RuntimeError("the library refused a frame; standard error has its reason")
        return out[:, :m], out[:, m:], echo, delays
