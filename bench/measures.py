"""What bench/quality measures in one case; its top defines the terms."""
import numpy as np

import scenes
from cases import FRAME_S


def is_aligned(applied, true, case):
    """Whether applied delays (samples) serve the canceller."""
    above = max(0.25e-3 * case["rate"], case["sure"])
    return (applied - true <= above) & (true - applied <= 1.125 * FRAME_S * case["rate"])


def score_delay(case, applied):
    """Times until aligned, misaligned share and false moves from the applied delays (frames); and
    for the eye all moves (s, samples) and the true delay at both ends."""
    base = case["params"].get("delay_len", 0)
    before = np.r_[base, applied[:-1]]
    moves = np.flatnonzero(applied != before)
    seen = dict(moves=[[round(i * FRAME_S, 2), int(applied[i])] for i in moves],
                true=[round(float(case["true"][i])) for i in (0, -1)])
    if not case["audible"]:
        return dict(seen, waits=[], late=[0, 0], false_moves=len(moves))
    good = is_aligned(applied, case["true"], case)
    holds = np.diff(np.r_[moves, len(applied)])
    false_moves = int(np.sum(~good[moves] & (holds > 2)))

    edges, waits, late = [0, *case["steps"], len(applied)], [], np.zeros(2, int)
    for start, end in zip(edges, edges[1:]):
        active, wrong = case["active"][start:end], (case["active"] & ~good)[start:end]
        remaining = wrong[::-1].cumsum()[::-1] * FRAME_S
        settled = np.flatnonzero(active & good[start:end] & (remaining < 0.5))
        first = settled[0] if len(settled) else 0
        late += [wrong[first:].sum(), active[first:].sum()]
        expected = case["true"][start - 1] if start else base
        if not is_aligned(expected, case["true"][start], case):
            waits.append(dict(kind="step" if start else "start", available=active.sum() * FRAME_S,
                              seconds=active[:first].sum() * FRAME_S if len(settled) else None))
    return dict(seen, waits=waits, late=late.tolist(), false_moves=false_moves)


def decibels(above, below):
    return float(10 * np.log10((above + 1e-9) / (below + 1e-9)))


def removed(case, cleaned):
    """Echo removed in dB over the far-only active frames: [whole, second half], or None."""
    frames = np.flatnonzero(case["alone"] & case["active"])
    if not case["audible"] or len(frames) < 60:
        return None
    before = scenes.frame_powers(case["mic"].astype(float), case["frame"])
    after = scenes.frame_powers(cleaned.astype(float), case["frame"])
    return [decibels(before[f].sum(), after[f].sum()) for f in (frames, frames[len(frames) // 2:])]


def si_sdr(estimate, truth):
    """Scale-invariant signal-to-distortion ratio and the truth's gain in the estimate, both dB."""
    gain = (estimate * truth).sum() / (truth * truth).sum()
    rest = estimate - gain * truth
    return decibels((gain * truth * gain * truth).sum(), (rest * rest).sum()), decibels(gain * gain, 1)


def score_near(case, cleaned):
    """Near end where its truth is known, in dB: SI-SDR gain and level change in double talk,
    and level change where no echo is heard; None where there is nothing to measure."""
    if case["near"] is None:
        return [None, None, None]
    near = scenes.frame_powers(case["near"], case["frame"]) > 10 ** (-4.5) * scenes.FULL_SCALE ** 2
    echo = case["active"] if case["audible"] else np.zeros_like(near)
    gain = level = quiet = None
    both = np.repeat(near & echo & ~case["alone"], case["frame"])
    if both.sum() > case["rate"]:
        truth = case["near"][both]
        (before, _), (after, level) = (si_sdr(x[both].astype(float), truth)
                                       for x in (case["mic"], cleaned))
        gain = after - before
    calm = near & ~echo & ~case["alone"]
    if case["audible"]:     # not in the room's decay after the far end
        calm &= ~np.convolve(echo, np.ones(20), "full")[:len(echo)].astype(bool)
    if calm.sum() > 60:
        powers = [scenes.frame_powers(x.astype(float), case["frame"])[calm].sum()
                  for x in (cleaned, case["mic"])]
        quiet = decibels(*powers)
    return [gain, level, quiet]
