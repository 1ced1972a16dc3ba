"""What is measured of a recording: plain values, from which findings and pages are made."""
from dataclasses import dataclass, field

import numpy as np

from . import library


@dataclass
class Channel:
    role: str = ""              # "microphone", "reference" or "silent"
    expected: str = ""          # what the command line says, or nothing
    guess: str = ""             # what it looks like, or nothing
    level_db: float = -25.0     # dBFS while active, -120 for never
    peak_db: float = -10.0
    floor_db: float = -65.0
    clipped: float = 0.0        # share of samples
    offset: float = 0.0         # mean, of full scale
    drop_outs: list = field(default_factory=list)   # [(s, s)]: when and how long
    edge_hz: float = 8000.0     # where its spectrum ends
    swapped: bool = False       # its bytes

    @property
    def sounds(self):
        return self.level_db > -119


@dataclass
class Section:
    """The echo while its delay stands still."""
    start: float                # s
    end: float
    strongest: float            # s behind the reference
    arrival: float              # the first arrival, at most EARLY_S before the strongest
    sure: bool = True
    unlike: float = 0.0         # of 1: by how much its response is another than that before


@dataclass
class Echo:
    """What is known of the echo in one microphone."""
    mic: int
    ref: int                    # the reference that it is found by
    sections: list
    times: np.ndarray = None    # s, of the track
    delays: np.ndarray = None   # s
    drift_ppm: float = 0.0
    short: tuple = None         # dB that a filter as long as the library's could remove:
    long: tuple = None          # over all and over the best block; and one four times as long
    swing_db: float = 0.0       # of its gain
    parts: list = None          # the track cut at its steps


@dataclass
class Measures:
    name: str
    rate: int                   # Hz, at which all is judged
    recorded: list              # Hz, of each file
    seconds: float
    channels: list
    copies: list = field(default_factory=list)      # [(ref, mic)]
    twice: list = field(default_factory=list)       # [(ref, an earlier ref)]
    made_at: int = 0            # Hz, where nothing is above what that rate holds
    narrow: list = field(default_factory=list)      # [(ref, Hz)]: the loudspeaker plays more
    echoes: list = field(default_factory=list)
    side_tone: tuple = None     # (ref, mic, share of windows)
    tonal: bool = False         # the references tell no delay
    ratio: float = 1.0          # rate of the reference over that of the microphone
    run: library.Run = None     # the library with delay_len 0
    advised: library.Run = None     # with the delay_len to recommend
    not_run: str = ""           # why there is none

    def of(self, role):
        """The channels that are in this role."""
        return [c for c, one in enumerate(self.channels) if one.role == role]

    @property
    def sounding(self):
        """The references with sound in them."""
        return [c for c in self.of("reference") if self.channels[c].sounds]
