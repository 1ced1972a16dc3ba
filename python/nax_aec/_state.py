"""What the classes over a library's state have in common: its format, its life, its lock."""
from __future__ import annotations

import contextlib
import operator
import threading
from typing import Any, Callable, Iterator, NoReturn, Optional, TypeVar

from ._samples import MOST_CHANNELS

RATES = (8000, 16000, 32000, 48000)     # Hz
MOST_MICROPHONES = 2
Self = TypeVar("Self", bound="State")


def frame_size(sample_rate: int) -> int:
    """F, the sample instants of a 16 ms frame, from the rate in Hz."""
    return sample_rate * 16 // 1000


def whole(name: str, value: Any, lowest: int, highest: int) -> int:
    """value as an int. Raises TypeError when it is no whole number, ValueError when it is out of
    bounds."""
    number = operator.index(value)
    if not lowest <= number <= highest:
        raise ValueError(f"{name} is {number}, not {lowest} to {highest}")
    return number


class State:
    """A state of a library, used by one thread at a time and released once.

    Another thread's call waits until the call that runs is done; so does close().
    """
    _state: Optional[int] = None        # also while __init__ has not set it

    def __init__(self, sample_rate: int, microphones: int, references: int) -> None:
        """Keeps a format that the libraries serve. Raises ValueError for another."""
        rate, mics, refs = map(operator.index, (sample_rate, microphones, references))
        if rate not in RATES or not 1 <= mics <= MOST_MICROPHONES or not 1 <= refs <= MOST_CHANNELS:
            raise ValueError(f"not supported: {rate} Hz, {mics} microphones, {refs} references; "
                             f"8000, 16000, 32000 or 48000 Hz are, 1 or {MOST_MICROPHONES} "
                             f"microphones, 1 to {MOST_CHANNELS} references")
        self.sample_rate, self.microphones, self.references = rate, mics, refs
        self.frame_size = frame_size(rate)
        self._lock = threading.RLock()
        self._busy = False

    def _keep(self, state: Optional[int], destroy: Callable[[int], None]) -> None:
        """Takes the state that a library made."""
        if not state:
            raise MemoryError("the library could not make a state; standard error has its reason")
        self._state, self._destroy = state, destroy

    @contextlib.contextmanager
    def _in_use(self) -> Iterator[int]:
        """The state, for one call."""
        with self._lock:
            self._check_idle()
            if self._state is None:
                raise ValueError(f"the {self._name()} is closed")
            self._busy = True
            try:
                yield self._state
            finally:
                self._busy = False

    def _check_idle(self) -> None:
        if self._busy:              # a signal handler of the thread that is in the call
            raise RuntimeError(f"the {self._name()} is in use by this thread")

    def _name(self) -> str:
        return type(self).__name__.lower()

    def close(self) -> None:
        """Releases the state. Waits for another thread's call. A second close does nothing."""
        if self._state is None:
            return
        with self._lock:
            self._check_idle()
            state, self._state = self._state, None
            if state is not None:
                self._destroy(state)

    __del__ = close

    def __enter__(self: Self) -> Self:
        return self

    def __exit__(self, *unused: object) -> None:
        self.close()

    def __reduce__(self) -> NoReturn:
        raise TypeError(f"a {self._name()} cannot be copied or pickled: it has one stream")
