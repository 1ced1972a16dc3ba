"""Further echo cancellers to put beside the library: what a product would use instead.

Each takes a case as systems.py defines it and returns cleaned (n x M int16), its own
latency taken out again.
"""
import ctypes
import json
import os
import pathlib
import subprocess
import sys
import tempfile

import numpy as np

import systems

HERE = pathlib.Path(__file__).resolve().parent
BINDINGS = "@livekit/rtc-ffi-bindings@0.12.73"      # WebRTC of 2026, built for Node.js


def set_up_webrtc_today(folder):
    """Has npm install the bindings below the folder, unless they are there."""
    if (folder / "node_modules" / "@livekit" / "rtc-ffi-bindings").exists():
        return
    folder.mkdir(parents=True, exist_ok=True)
    print(f"Installing {BINDINGS} into {folder}", file=sys.stderr)
    try:
        subprocess.run(["npm", "install", "--silent", "--no-audit", "--no-fund", "--prefix", folder, BINDINGS],
                       check=True, stdout=subprocess.DEVNULL)
    except (OSError, subprocess.CalledProcessError) as error:
        sys.exit(f"peers: WebRTC of today needs Node.js, npm and the network ({error})")


def webrtc_today(case, folder, on=True):
    """WebRTC of today on the unaligned references; returns cleaned and its processor time in s."""
    with tempfile.TemporaryDirectory() as scratch:
        files = {name: f"{scratch}/{name}" for name in ("mic", "ref", "cleaned")}
        case["mic"].tofile(files["mic"])
        np.ascontiguousarray(case["lpb"][:, :case["kept"]]).tofile(files["ref"])
        job = pathlib.Path(scratch) / "job.json"
        job.write_text(json.dumps(dict(files, rate=case["rate"], mics=case["mics"], refs=case["kept"], on=on)))
        done = subprocess.run(["node", HERE / "webrtc_today.cjs", job], check=True, stdout=subprocess.PIPE,
                              env=dict(os.environ, NODE_PATH=str(folder / "node_modules")))
        cleaned = np.fromfile(files["cleaned"], np.int16).reshape(case["mic"].shape)
    return cleaned, float(done.stdout)


def run_webrtc_today(case, folder):
    """WebRTC of today (see webrtc_today.cjs)."""
    return systems.without_lag(webrtc_today(case, folder)[0], case)


def run_speex_preprocessed(case, references):
    """libspeexdsp and, on what it leaves, its own preprocessor, which suppresses residual echo
    and noise. The preprocessor serves one microphone, so each has a canceller of its own."""
    frame, kept = case["frame"], case["kept"]
    references = np.ascontiguousarray(references[:, :kept])
    speex = ctypes.CDLL("libspeexdsp.so.1")
    speex.speex_echo_state_init_mc.restype = speex.speex_preprocess_state_init.restype = ctypes.c_void_p
    cleaned = np.zeros_like(case["mic"])
    for m in range(case["mics"]):
        mic = np.ascontiguousarray(case["mic"][:, m])
        out = np.zeros_like(mic)
        with systems.captured_messages():
            echo = ctypes.c_void_p(speex.speex_echo_state_init_mc(frame, 2 * frame, 1, kept))
            speex.speex_echo_ctl(echo, 24, ctypes.byref(ctypes.c_int(case["rate"])))   # SET_SAMPLING_RATE
            after = ctypes.c_void_p(speex.speex_preprocess_state_init(frame, case["rate"]))
            speex.speex_preprocess_ctl(after, 24, echo)                                # SET_ECHO_STATE
            for start in range(0, len(mic), frame):
                blocks = [ctypes.c_void_p(a[start:].ctypes.data) for a in (mic, references, out)]
                speex.speex_echo_cancellation(echo, *blocks)
                speex.speex_preprocess_run(after, blocks[2])
            speex.speex_preprocess_state_destroy(after)
            speex.speex_echo_state_destroy(echo)
        cleaned[:, m] = out
    return np.vstack([cleaned[frame:], np.zeros_like(cleaned[:frame])])     # one frame late
