"""The cases that bench/quality scores: scenes, folders of recordings, unrelated pairs.

A record says what to run and what is true, without audio; load() turns it into a case of
systems.py. A record has name, category, folder, files (the names' beginnings of microphone
and reference), rate, mics, refs, audible, heard, knots, far_only, near and params as
scenes.py writes them, and
  item      its number in the scenes or among the recordings, for --half
  extra     knots (s, samples) by which the microphone is held back more than recorded
  sure      samples by which the true delay may be wrong
  lead      samples before the true delay at which a canceller is best told it
  kind      scene, recording (with a truth.csv) or unrelated
"""
import csv
import hashlib
import itertools
import json
import pathlib
import subprocess
import zlib

import numpy as np
from scipy import signal
from scipy.io import wavfile

import scenes

HERE = pathlib.Path(__file__).resolve().parent
FRAME_S = 0.016
LEAD_S = 0.5e-3                 # a loudspeaker's sound begins so long before it is heard well
JUMP = 3000                     # samples
VARIANTS = {                    # more delay before and after half the recording, samples
    "+0": (0, 0), "+3000": (3000, 3000), "+9000": (9000, 9000), "up": (0, JUMP), "down": (JUMP, 0)}


def find_delay(mic, lpb, rate):
    """Delay of the first arrival in samples by the phase transform over the whole file, or None
    without a clear peak. Real loudspeakers' sound begins some 0.5 ms before the peak."""
    size = 2 ** int(np.ceil(np.log2(2 * len(mic))))
    cross = np.fft.rfft(mic[:, 0], size) * np.conj(np.fft.rfft(lpb.sum(axis=1), size))
    lags = np.abs(np.fft.irfft(cross / (np.abs(cross) + 1e-9), size)[:scenes.LINE])
    return max(int(lags.argmax()) - rate // 2000, 0) if lags.max() > 8 * lags.std() else None


def completed(record, **fields):
    """The record with what its kind leaves out."""
    return dict(dict(files=[record["name"]] * 2, extra=[[0, 0]], sure=0, lead=0,
                     kind="scene"), **{**record, **fields})


def of_scenes(folder):
    """The scenes' records; the scenes are written again when their code has changed."""
    code = b"".join((HERE / name).read_bytes() for name in ("scenes.py", "sounds.py"))
    stamp, digest = folder / "stamp", hashlib.sha1(code).hexdigest()
    if not stamp.exists() or stamp.read_text() != digest:
        subprocess.run([HERE / "scenes.py", "--out", folder], check=True, stdout=subprocess.DEVNULL)
        stamp.write_text(digest)
    records = json.loads((folder / "truth.json").read_text())
    return [completed(r, folder=str(folder), item=i) for i, r in enumerate(records)]


def of_folder(folder, truth_file):
    """One record per pair of the folder, from truth.json or found."""
    truth_file = truth_file or folder / "truth.json"
    records = {r["name"]: r for r in json.loads(truth_file.read_text())} if truth_file.exists() else {}
    result = []
    for item, path in enumerate(sorted(folder.glob("*_mic.wav"))):
        name = path.name[:-len("_mic.wav")]
        record = records.get(name)
        if record is None:
            rate, mic = wavfile.read(path)
            lpb = wavfile.read(folder / f"{name}_lpb.wav")[1]
            n = min(len(mic), len(lpb))
            mic, lpb = mic[:n].reshape(n, -1), lpb[:n].reshape(n, -1)
            delay = find_delay(mic, lpb, rate)
            near = (folder / f"{name}_near.wav").exists()
            record = dict(name=name, category=folder.name, rate=rate, mics=mic.shape[1],
                          refs=lpb.shape[1], audible=delay is not None, params={}, near=near,
                          knots=None if delay is None else [[0, delay], [n / rate, delay]],
                          heard=list(range(lpb.shape[1])), far_only=[] if near else [[0, n / rate]])
        result.append(completed(record, folder=str(folder), item=item))
    return result


def rows_of(truth_file):
    """The rows of a truth.csv: name, first arrival and its uncertainty in samples of the file (both
    None without echo), the stretch of far end alone in s, and, where there are such columns, the
    arrival's drift in ppm and the arrival from a change on."""
    with truth_file.open(newline="") as file:
        for row in csv.DictReader(file):
            def number(column):
                return float(row[column]) if row.get(column) else None
            stretch = [number("far_end_only_from_s"), number("far_end_only_to_s")]
            yield dict(name=row["name"], arrival=number("first_arrival_samples"),
                       sure=number("sure_within_samples") or 0, drift_ppm=number("drift_ppm") or 0,
                       change_s=number("change_s"), change_arrival=number("change_arrival_samples"),
                       far_only=[stretch] if None not in stretch else [])


def length_of(path):
    """Rate in Hz and samples of a WAV file."""
    rate, samples = wavfile.read(path, mmap=True)
    return rate, len(samples)


def arrival_knots(row, seconds, own_rate):
    """The recorded delay as knots (s, samples of the file)."""
    first = row["arrival"]
    if row["change_s"]:
        return [(0, first), (row["change_s"], first), (row["change_s"], row["change_arrival"]),
                (seconds, row["change_arrival"])]
    return [(0, first), (seconds, first + row["drift_ppm"] * 1e-6 * seconds * own_rate)]


def variant_of(row, own_rate, seconds, rate, variant):
    """The record of a recording at rate with more delay, or None where the lines cannot hold it."""
    before, after = VARIANTS[variant]
    audible = row["arrival"] is not None
    frames = int(seconds / FRAME_S)
    knots = [[t, d * rate / own_rate] for t, d in arrival_knots(row, seconds, own_rate)] if audible else None
    longest = max(d for _, d in knots) if audible else 0
    if longest + max(before, after) > scenes.LINE - scenes.frame_size(rate):
        return None
    half_way = frames // 2 * FRAME_S
    return completed(
        dict(name=f"{row['name']} {rate // 1000}k {variant}", category=f"{rate // 1000}k {variant}",
             files=[row["name"]] * 2, rate=rate, mics=1, refs=1, heard=[0], audible=audible, knots=knots,
             extra=[[0, before], [half_way, before], [half_way, after], [2 * seconds, after]],
             far_only=row["far_only"], params={}, sure=row["sure"] * rate / own_rate,
             lead=LEAD_S * rate, kind="recording"))


def of_recordings(folder, truth_file, rates, variants):
    """A record per recording of truth.csv, rate and variant, where it fits in the delay lines."""
    result = []
    for item, row in enumerate(rows_of(truth_file)):
        own_rate, length = length_of(folder / f"{row['name']}_mic.wav")
        length = min(length, length_of(folder / f"{row['name']}_lpb.wav")[1])
        for rate in rates:
            for variant in variants:
                record = variant_of(row, own_rate, length / own_rate, rate, variant)
                if record:
                    near = (folder / f"{row['name']}_near.wav").exists()
                    result.append(dict(record, folder=str(folder), item=item, near=near))
    return result


def are_related(a, b):
    """Whether two sounds (n), given as spectra (of 2n, normalised), hold the same stretch somewhere:
    others correlate by less than 0.1."""
    return np.abs(np.fft.irfft(a * np.conj(b))).max() > 0.2


def of_unrelated(folder, truth_file, rate, count):
    """count pairs of one recording's microphone and another's reference, without an echo: where the
    two references are related, as the same speech played twice, they are left out."""
    names = [row["name"] for row in rows_of(truth_file)]
    sounds = [np.diff(signal.decimate(wavfile.read(folder / f"{n}_lpb.wav")[1].astype(float), 4))
              for n in names]
    size = 2 ** int(np.ceil(np.log2(2 * max(map(len, sounds)))))
    spectra = [np.fft.rfft(x / np.linalg.norm(x), size) for x in sounds]
    pairs = [(i, j) for i in range(len(names)) for j in range(len(names)) if i != j]
    pairs.sort(key=lambda pair: zlib.crc32(f"{names[pair[0]]} {names[pair[1]]}".encode()))
    unrelated = (p for p in pairs if not are_related(spectra[p[0]], spectra[p[1]]))
    return [completed(dict(name=f"{names[i]} with {names[j]}", category="unrelated",
                           files=[names[i], names[j]], rate=rate, mics=1, refs=1, heard=[0], audible=False,
                           knots=None, far_only=[], params={}, near=False, folder=str(folder),
                           kind="unrelated", item=i))
            for i, j in itertools.islice(unrelated, count)]


def resampled(samples, own_rate, rate):
    """samples (n x channels, int16) at another rate, flat to 95 % of the narrower band."""
    if own_rate == rate:
        return samples
    common = np.gcd(own_rate, rate)
    up, down = rate // common, own_rate // common
    most = max(up, down)
    low_pass = signal.firwin(2 * 64 * most + 1, 0.97 / most, window=("kaiser", 9))
    finer = signal.resample_poly(samples.astype(float), up, down, window=low_pass, axis=0)
    return np.clip(np.round(finer), -32768, 32767).astype(np.int16)


def audio_of(record):
    """The record's audio at its rate, int16, by suffix (n x channels, as long as the shortest)."""
    suffixes = ("mic", "lpb", "near")[:2 + record["near"]]
    audio = {}
    for suffix, name in zip(suffixes, (*record["files"], record["files"][0])):
        own_rate, samples = wavfile.read(pathlib.Path(record["folder"]) / f"{name}_{suffix}.wav")
        audio[suffix] = resampled(samples.reshape(len(samples), -1), own_rate, record["rate"])
    n = min(map(len, audio.values()))
    return {suffix: samples[:n] for suffix, samples in audio.items()}


def load(record):
    """The record with its audio in whole frames (mic, lpb, near: n x channels) and, by frame, the
    true delay, which are active, which have the far end alone, and where the delay steps."""
    case, rate, extra = dict(record), record["rate"], record["extra"]
    audio = audio_of(record)
    case["frame"] = frame = scenes.frame_size(rate)
    longest = int(max(d for _, d in extra))
    n = (len(audio["mic"]) + longest) // frame * frame
    more = scenes.delay_at(extra, np.arange(n) / rate)
    for suffix, samples in audio.items():
        samples = np.concatenate([samples, np.zeros((longest, samples.shape[1]), np.int16)])[:n]
        held = samples if suffix == "lpb" or not longest else scenes.held_back(samples, more)
        case[suffix] = np.ascontiguousarray(held.astype(np.int16))
    case["near"] = case["near"].astype(float) if record["near"] else None
    case["kept"] = record["refs"] - record["params"].get("drop_channel", 0)

    knots = record["knots"] or [[0, 0]]

    def true_at(times):
        held = scenes.delay_at(extra, times)
        return scenes.delay_at(knots, times - held / rate) + held

    times = np.arange(n // frame) * FRAME_S
    recorded = times - scenes.delay_at(extra, times) / rate
    case["alone"] = np.zeros(n // frame, bool)
    for start, end in record["far_only"]:
        case["alone"] |= (recorded >= start) & (recorded + FRAME_S <= end)
    case["true"] = true_at(times)
    delays = np.round(true_at(np.arange(n) / rate))
    case["active"] = scenes.active_frames(case["lpb"] / scenes.FULL_SCALE, delays, rate, record["heard"])
    told = np.maximum(delays - round(record["lead"]), 0)
    case["shifted"] = scenes.held_back(case["lpb"], told).astype(np.int16)
    steps = [t for a, b in zip(extra, extra[1:]) if a[0] == (t := b[0]) and a[1] != b[1]]
    steps += [b[0] + scenes.delay_at(extra, b[0]) / rate for a, b in zip(knots, knots[1:]) if a[0] == b[0]]
    case["steps"] = sorted(int(np.ceil(t / FRAME_S - 1e-6)) for t in steps)
    return case
