"""The echo in a microphone: by which reference it is found, how late it is in each section, how
much of it is linear."""
import numpy as np

from . import delay, linear
from .record import Echo, Section


def tells_gain(x):
    """Whether x is no melody, whose notes a room plays louder and quieter."""
    window = int(delay.WINDOW_S * delay.RATE)
    return not all(delay.is_steady(x[s:s + window], delay.TONAL_LINES)
                   for s in delay.spread_out(delay.active_starts(x, x), 10))


def find_side_tone(x, y, found):
    """The Track of the echo and the share of windows in which the reference holds the near end
    as well: what both hear at once, at times. What is there at all times would be the
    reference, that leaks into the microphone."""
    points = [*zip(found.times, found.delays), *found.others]
    at_once = [d for _, d in points if -0.25 < d < 0.0015]
    later = [d for _, d in points if d > 0.003]
    if min(len(at_once), len(later)) < max(3, 0.1 * found.windows):
        return found, 0.0
    lag, echo = _densest(at_once), _densest(later)
    starts = delay.spread_out(delay.active_starts(x, y), 40)
    heard = np.array([delay.sureness_at(delay.correlation(delay.spectrum_around(x, s), y, s), lag) for s in starts])
    if (heard > delay.SURE).mean() < 0.1 or (heard < delay.CHANCE).mean() < 0.1:
        return found, 0.0
    kept = sorted((t, d) for t, d in points if abs(d - echo) < delay.STEP_S)
    return delay.Track(*np.array(kept).T, [], found.windows), float((heard > delay.SURE).mean())


def _densest(delays):
    """The median of the largest group of values within a ms."""
    delays = np.sort(delays)
    counts = np.searchsorted(delays, delays + 0.001) - np.arange(len(delays))
    first = int(np.argmax(counts))
    return float(np.median(delays[first:first + counts[first]]))


def find_track(audio, m, mic):
    """The reference that tells most of the echo in a microphone, its Track and the share of
    windows with side tone; None without an echo."""
    best = None
    for ref in m.sounding:
        if (ref, mic) in m.copies:
            continue
        found = delay.track(audio.low[ref], audio.low[mic])
        found, share = find_side_tone(audio.low[ref], audio.low[mic], found)
        if len(found.times) >= max(4, 0.15 * found.windows) and (
                best is None or len(found.times) > len(best[1].times)):
            best = ref, found, share
    return best


def measure_echo(audio, m, mic):
    """The Echo in a microphone, or None."""
    best = find_track(audio, m, mic)
    if best is None:
        return None
    ref, found, share = best
    if share > 0:
        m.side_tone = (ref, mic, share)
    parts = delay.sections(found.times, found.delays)
    echo = Echo(mic, ref, [], found.times, found.delays, delay.drift_ppm(parts), parts=parts)
    rate, y = audio.mid_rate, audio.mid[mic]
    bounds = linear.settled(parts, len(y) / rate)
    unique = [r for r in m.sounding if not any(twice == r for twice, _ in m.twice)]
    unique.sort(key=lambda r: r != ref)                     # the one that tells most first

    def fitted(points, lead, *lengths_s):
        held = [linear.hold_back(audio.mid[r], points, echo.drift_ppm, rate, lead) for r in unique]
        return held[0], linear.fit(held, y, rate, lengths_s, bounds)

    x, (wide,) = fitted(parts, linear.EARLY_S, 2 * linear.FILTER_S)
    all_of = [section_of(part, i, wide, rate) for i, part in enumerate(parts)]
    for i in range(1, len(parts)):
        all_of[i].unlike = linear.unlikeness(wide, i, rate)
    if tells_gain(audio.low[ref]):
        echo.swing_db = linear.swing_db(linear.gains(x, y, rate, wide))
    first = [(times, delays - one.strongest + one.arrival) for (times, delays), one in zip(parts, all_of)]
    echo.sections = joined(all_of)
    echo.short, echo.long = map(linear.removable, fitted(first, linear.LEAD_S, linear.FILTER_S, linear.LONGEST_S)[1])
    return echo


def section_of(part, index, fitted, rate):
    """The Section of a part of the track: its first arrival where the blocks agree on one, else
    the strongest peak."""
    times, delays = part
    strongest = float(np.median(delays))
    early, agreed = linear.arrival(fitted, index, rate)
    arrival = strongest - linear.EARLY_S + early if agreed else strongest
    near = strongest - arrival < 0.0012 or strongest - arrival > 0.003
    spread = np.subtract(*np.percentile(delays, (90, 10)))
    sure = near if agreed else len(times) >= 8 and spread < 0.001
    return Section(float(times[0]), float(times[-1]), strongest, arrival, bool(sure))


def joined(sections):
    """Sections without those that only another reflection was louder in: the first arrival stays."""
    kept = sections[:1]
    for one in sections[1:]:
        last = kept[-1]
        if abs(one.arrival - last.arrival) < delay.STEP_S:
            last.end, last.sure = one.end, last.sure and one.sure
        else:
            kept.append(one)
    return kept
