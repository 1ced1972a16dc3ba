"""The library over ctypes: its constants, its parameter block, its calls.

The library is the file that NAX_AEC_LIBRARY names; else libnax_aec.so.2 beside this file; else
libnax_aec.so in a build directory of the checkout that this file is in (build/default first,
then build, build-*, build/*; one built for another machine is passed over); else the installed
one.
"""
from __future__ import annotations

import ctypes
import functools
import os
import pathlib

DELAY_ESTIMATION = 1
REMAP = 2
LITTLE_ENDIAN, BIG_ENDIAN, HOST_ENDIAN = 0, 1, 2
LONGEST_DELAY = 12288           # samples


class Param(ctypes.Structure):
    """The parameter block: six words, the last as wide as a pointer."""
    _fields_ = [("pos", ctypes.c_int32), ("drop_channel", ctypes.c_int32),
                ("model_aec_en", ctypes.c_int32), ("delay_len", ctypes.c_int32),
                ("look_ahead", ctypes.c_int32), ("array_list", ctypes.c_void_p)]


def library_names() -> list[str]:
    """The paths or names under which the library is looked for, the best first."""
    named = os.environ.get("NAX_AEC_LIBRARY")
    if named:
        return [named]
    paths = [pathlib.Path(__file__).with_name("libnax_aec.so.2")]
    root = pathlib.Path(__file__).resolve().parents[2]
    if (root / "include/nax_aec.h").exists():
        folders = [root / "build/default"]
        for pattern in ("build", "build-*", "build/*"):
            folders += sorted(root.glob(pattern))
        paths += [folder / "libnax_aec.so" for folder in dict.fromkeys(folders)]
    return [str(path) for path in paths if path.exists()] + ["libnax_aec.so.2"]


def load() -> ctypes.CDLL:
    """The first library that loads; OSError with every reason when none does."""
    reasons = []
    for name in library_names():
        try:
            return ctypes.CDLL(name)
        except OSError as error:
            reasons.append(str(error))
    raise OSError(f"cannot load libnax_aec ({'; '.join(reasons)}); build it or set NAX_AEC_LIBRARY")


@functools.lru_cache(maxsize=None)
def library() -> ctypes.CDLL:
    """The loaded library, its calls typed; loaded once."""
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
    return lib


def companion(name: str) -> ctypes.CDLL:
    """Another of the project's libraries, such as libnax_res: from the folder of libnax_aec, else
    the installed one."""
    loaded = pathlib.Path(library()._name).resolve()
    beside = loaded.with_name(loaded.name.replace("libnax_aec", name))
    return ctypes.CDLL(str(beside) if beside.exists() else f"{name}.so.2")
