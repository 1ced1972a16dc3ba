"""Audio arrays: the one place in which they are checked and brought to 16 bits."""
from __future__ import annotations

from typing import TYPE_CHECKING, Any

import numpy as np

if TYPE_CHECKING:   # NumPy has it from 1.20 on
    from numpy.typing import NDArray

FULL_SCALE = 32768.0            # of 16 bits, for floats of full scale 1
MOST_CHANNELS = 256             # an array with more columns holds its samples in rows


def columns(audio: NDArray[Any], name: str) -> NDArray[Any]:
    """Audio as n x channels. An array of one dimension is one channel."""
    table = audio[:, np.newaxis] if audio.ndim == 1 else audio
    if table.ndim != 2 or table.shape[1] > MOST_CHANNELS:
        raise ValueError(f"{name} have shape {audio.shape}: a row is a sample instant, "
                         "a column a channel")
    return table


def samples_of(audio: NDArray[Any], channels: int, name: str) -> NDArray[np.int16]:
    """Audio as n x channels of 16 bits, row after row in memory. Floats are rounded and clipped."""
    table = columns(audio, name)
    if table.shape[1] != channels:
        raise ValueError(f"{name} have shape {audio.shape}, not (n, {channels})")
    if audio.dtype.kind == "i" and audio.dtype.itemsize == 2:       # of either byte order
        return np.ascontiguousarray(table, np.int16)
    if not np.issubdtype(audio.dtype, np.floating):
        raise TypeError(f"{name} are {audio.dtype}, neither int16 nor floats of full scale 1")
    if not np.isfinite(table).all():
        raise ValueError(f"{name} hold samples that are not finite")
    return np.ascontiguousarray(rounded(table * FULL_SCALE))


def rounded(scaled: NDArray[Any]) -> NDArray[np.int16]:
    """Floats of the scale of 16 bits, rounded and clipped, which overwrites them. (np.clip takes
    four times as long for a frame.)"""
    np.rint(scaled, out=scaled)
    np.maximum(scaled, -32768, out=scaled)
    np.minimum(scaled, 32767, out=scaled)
    return scaled.astype(np.int16)


def like(audio: NDArray[Any], samples: NDArray[np.int16]) -> NDArray[Any]:
    """Samples (n x channels) in the type and the dimensions of audio."""
    same_type = (samples if audio.dtype.kind == "i" else samples / FULL_SCALE).astype(audio.dtype)
    return np.ascontiguousarray(same_type[:, 0] if audio.ndim == 1 else same_type)
