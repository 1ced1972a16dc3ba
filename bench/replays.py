"""The delay estimator alone over many cases, for bench/replay and bench/sensitivity.

The signals and the truth of every case are made once and kept in a folder; a record of cases.py
says what they are. What is run is the estimator's sources, with constants changed at will.
"""
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import shutil
import subprocess

os.environ["OPENBLAS_NUM_THREADS"] = "1"      # one process per job is enough
import numpy as np  # noqa: E402

import cases        # noqa: E402
import report       # noqa: E402
import scenes       # noqa: E402
from cases import FRAME_S                           # noqa: E402
from measures import is_aligned, score_delay        # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
SOURCE = HERE.parent / "src"
# The estimator's files, those with numbers that were tuned first.
TUNED = [f"engines/{n}.cpp" for n in ("delay_decision", "applied_delay", "delay_estimator", "arrival",
                                      "lag_peaks", "cross_spectrum")]
FILES = [*TUNED, "engines/decimator.cpp", "engines/logtab.cpp", "kernels/kernels.cpp"]
FLAGS = ["-std=c++17", "-O3", "-march=native", "-ffp-contract=off"]   # figures as of the library
TRUTH = ("true", "active")      # by frame
FACTS = ("name", "category", "kind", "item", "params", "audible", "rate", "frame", "steps", "sure")
MADE_BY = [HERE / n for n in ("cases.py", "scenes.py", "sounds.py")]


def add_options(parser):
    """What to run, as options of a program."""
    add = parser.add_argument
    add("folders", nargs="*", type=pathlib.Path, help="folders of recordings with a truth.csv")
    add("--unrelated", type=int, default=768, metavar="N", help="unrelated pairs of a folder (default 768)")
    add("--half", choices=("even", "odd"), help="every other scene or recording: tune on one half, "
        "test on the other")
    add("--jobs", type=int, default=2, help="processes (default 2)")
    add("--cache", type=pathlib.Path, default=HERE.parent / "build", help="folder for signals and programs")


def records_of(options):
    """The records of what the options name."""
    (options.cache / "scenes").mkdir(parents=True, exist_ok=True)
    records = cases.of_scenes(options.cache / "scenes")
    for folder in options.folders:
        truth = folder / "truth.csv"
        code = f"{stamp()} {folder.resolve()} {truth.read_text()} {options.unrelated}"
        kept = options.cache / f"records_{hashlib.sha1(code.encode()).hexdigest()[:16]}.json"
        if not kept.exists():   # which pairs are unrelated takes long to say
            of_folder = cases.of_recordings(folder, truth, (8000, 16000, 48000), tuple(cases.VARIANTS))
            of_folder += cases.of_unrelated(folder, truth, 16000, options.unrelated)
            kept.write_text(json.dumps(of_folder))
        records += json.loads(kept.read_text())
    return [r for r in records if not options.half or r["item"] % 2 == (options.half == "odd")]


def stamp():
    """A text that changes with what makes the cases."""
    return hashlib.sha1(b"".join(p.read_bytes() for p in MADE_BY)).hexdigest()


def write_samples(path, samples):
    """Writes samples (n x channels, int16) once; another process may be doing the same."""
    if not path.exists():
        part = path.with_suffix(".part")
        part.write_bytes(np.ascontiguousarray(samples).tobytes())
        part.rename(path)


def signal_path(record, which, folder):
    name = record["files"][which == "lpb"]
    origin = hashlib.sha1(str(pathlib.Path(record["folder"]).resolve()).encode()).hexdigest()[:6]
    return folder / f"{name}_{origin}_{record['rate']}_{which}.s16"


def prepare(task):
    """The case of a record: what replay.cpp reads and what score_delay needs."""
    record, folder, made_by = task
    key = hashlib.sha1((made_by + json.dumps(record, sort_keys=True)).encode()).hexdigest()[:16]
    kept = folder / f"{key}.json"
    if kept.exists():
        return json.loads(kept.read_text())
    paths = [signal_path(record, which, folder) for which in ("mic", "lpb")]
    audio = cases.audio_of(dict(record, near=False))
    for path, which in zip(paths, ("mic", "lpb")):
        write_samples(path, audio[which])
    rate, extra = record["rate"], record["extra"]
    frame = scenes.frame_size(rate)
    longest = int(max(d for _, d in extra))
    length = (len(audio["mic"]) + longest) // frame * frame
    more = scenes.delay_at(extra, np.arange(length) / rate)
    switched = np.flatnonzero(more != more[0])
    words = [*paths, rate, record["mics"], record["refs"],
             record["refs"] - record["params"].get("drop_channel", 0), record["params"].get("delay_len", 0),
             length, int(more[0]), int(more[-1]), int(switched[0]) if len(switched) else length]
    case = dict(line=" ".join(map(str, words)), frames=length // frame)
    if record["audible"]:
        loaded = cases.load(dict(record, near=False))
        case.update({k: loaded[k] for k in FACTS})
        case.update(true=[round(float(v), 3) for v in loaded["true"]],
                    active=np.flatnonzero(loaded["active"]).tolist())
    else:
        case.update({k: record[k] for k in FACTS if k in record}, frame=frame, steps=[], true=[0, 0], active=[])
    kept.write_text(json.dumps(case))
    return case


def prepare_all(records, folder, jobs):
    """The cases of records, made where the folder does not hold them."""
    folder.mkdir(parents=True, exist_ok=True)
    with concurrent.futures.ProcessPoolExecutor(jobs) as pool:
        made = list(pool.map(prepare, [(r, folder, stamp()) for r in records], chunksize=5))
    for case in made:
        active = np.zeros(case["frames"], bool)
        active[case["active"]] = True
        case.update(true=np.array(case["true"]), active=active)
    return made


def build(program, changes=()):
    """Compiles the estimator to program, with changes (file, old text, new text) in its sources."""
    work = program.with_suffix(".sources")
    subprocess.run(["rm", "-rf", work], check=True)
    subprocess.run(["cp", "-r", SOURCE, work], check=True)
    for name, old, new in changes:
        text = (work / name).read_text()
        assert text.count(old) == 1, f"{name}: {old}"
        (work / name).write_text(text.replace(old, new))
    packages = subprocess.run(["pkg-config", "--cflags", "--libs", "kissfft-float"], check=True,
                              capture_output=True, text=True).stdout.split()
    compiler = [*(["ccache"] if shutil.which("ccache") else []), "g++", *FLAGS, *packages, "-I", work]
    objects = []
    for source in (HERE / "replay.cpp", *(work / name for name in FILES)):
        objects.append(work / f"{source.stem}.o")
        subprocess.run([*compiler, "-c", source, "-o", objects[-1]], check=True)
    subprocess.run(["g++", *objects, "-o", program, *packages], check=True)


# What the decision is told in each frame, on standard error in the format of tests/traces.
TRACING = ("engines/delay_estimator.cpp",
           "    decide_on_delay(work.decision, sight, looked ? &onset : nullptr);\n", """
    std::string line = "%s";
    const auto tenths = [](float height) { return " " + std::to_string(std::lround(10 * height)); };
    const auto number = [](int32_t value) { return " " + std::to_string(value); };
    if (evidence) line += "e" + tenths(sight.target);
    if (sight.news)
        line += " s" + number(sight.lag) + tenths(sight.height) + tenths(sight.rival) + tenths(sight.followed) +
                tenths(sight.path);
    if (looked) line += " l" + number(work.decision.target) + number(onset.updates) + tenths(onset.height) +
                number(onset.lag);
    for (int32_t p = 0; evidence && p < work.peaks.partitions; p++)
        if (const Peak &peak = work.peaks.peaks[p]; peak.age == 0)
            line += " p" + number(p) + number(peak.lag) + tenths(peak.height);
    fprintf(stderr, "%s\\n", line.c_str());
    decide_on_delay(work.decision, sight, looked ? &onset : nullptr);
""" % ("", "%s"))


def trace(program, case):
    """What the decision was told over a case: a line for each frame."""
    name, call, traced = TRACING
    build(program, [(name, call, traced), (name, "#include <cstdlib>\n", "#include <cstdlib>\n#include <string>\n"
                                           "#include <cmath>\n#include <cstdio>\n"),
                    (name, "    if (cross_spectrum_update(work.cross, slow_ref, slow_mic, memory)) {\n",
                     "    const bool evidence = cross_spectrum_update(work.cross, slow_ref, slow_mic, memory);\n"
                     "    if (evidence) {\n")])
    return subprocess.run([program], input=case["line"] + "\n", check=True, capture_output=True,
                          text=True).stderr.splitlines()


def run(program, made, jobs):
    """The applied delays (frames) of every case."""
    # Neighbours are of one recording, whose signals a process reads once.
    chunk = -(-len(made) // (4 * jobs))
    parts = [made[i:i + chunk] for i in range(0, len(made), chunk)]

    def lines_of(part):
        text = "".join(f"{case['line']}\n" for case in part)
        return subprocess.run([program], input=text, check=True, capture_output=True, text=True).stdout.splitlines()

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        lines = [line for part in pool.map(lines_of, parts) for line in part]
    return [applied_of(line, case) for line, case in zip(lines, made)]


def applied_of(line, case):
    """The applied delay of every frame from a line of replay.cpp."""
    applied = np.full(case["frames"], case["params"].get("delay_len", 0))
    for frame, delay in re.findall(r"(\d+):(-?\d+)", line):
        applied[int(frame):] = int(delay)
    return applied


# What an echo that arrives so many ms after the filter's start costs, in dB, and how much: nine
# recordings with every delay held, second half, against the best delay.
OFFSETS_MS = (-2, -1, -0.5, -0.25, 0, 0.25, 0.5, 1, 2, 4, 6, 8, 16, 32)
OFFSET_COSTS_DB = (10, 9, 7, 6, 4, 1, 0, 0, 0.3, 0.5, 0.8, 1, 2.5, 10)


def placement(case, applied):
    """dB that the delay's place costs, summed over the active frames in which it is aligned, and
    their number."""
    if not case["audible"]:
        return [0, 0]
    frames = case["active"] & is_aligned(applied, case["true"], case)
    offset_ms = 1000 * (case["true"] - applied)[frames] / case["rate"]
    return [float(np.interp(offset_ms, OFFSETS_MS, OFFSET_COSTS_DB).sum()), int(frames.sum())]


def score(program, made, jobs):
    """The results of all cases in the shape of bench/quality's, with their placement."""
    return [dict({k: case[k] for k in ("name", "category", "kind", "item")}, figures={}, resets=0,
                 placement=placement(case, applied), **score_delay(case, applied))
            for case, applied in zip(made, run(program, made, jobs))]


def times_of(results, kind="all"):
    """Seconds until aligned after starts, steps or all, infinite where never."""
    return [np.inf if w["seconds"] is None else w["seconds"]
            for r in results for w in r["waits"] if kind in (w["kind"], "all")]


def figures_of_kind(name, results):
    """The figures of results that hold an echo."""
    figures = {}
    for kind in ("start", "step", "all"):
        times = times_of(results, kind)
        if times:
            figures[f"{name}, {kind}: count"] = len(times)
            figures[f"{name}, {kind}: never"] = int(np.isinf(times).sum())
            for label, percent in (("median", 50), ("90 %", 90), ("99 %", 99)):
                figures[f"{name}, {kind}: {label}, s"] = float(np.percentile(times, percent, method="higher"))
    late, total = np.sum([r["late"] for r in results], axis=0)
    waited = sum(w["available"] if w["seconds"] is None else w["seconds"] for r in results for w in r["waits"])
    cost, frames = np.sum([r["placement"] for r in results], axis=0)
    figures[f"{name}: misaligned afterwards, %"] = 100 * late / total
    figures[f"{name}: misaligned in all, s per start or step"] = (waited + FRAME_S * late) / len(times_of(results))
    figures[f"{name}: cost of the place, dB"] = cost / frames
    figures[f"{name}: false moves"] = sum(r["false_moves"] for r in results)
    return figures


def figures_of(results):
    """The figures by which estimators are compared: name -> number."""
    kinds = {kind: [r for r in results if r["kind"] == kind] for kind in ("scene", "recording", "unrelated")}
    figures = figures_of_kind("scenes", kinds["scene"])
    if kinds["recording"]:
        near = times_of([r for r in kinds["recording"] if r["category"].split()[1] in ("+0", "+3000")], "start")
        figures["recordings, start as recorded or +3000: never"] = int(np.isinf(near).sum())
        figures.update(figures_of_kind("recordings", kinds["recording"]))
    if kinds["unrelated"]:
        figures["unrelated pairs"] = len(kinds["unrelated"])
        figures["unrelated pairs that move"] = sum(r["false_moves"] > 0 for r in kinds["unrelated"])
    return figures


def page(results, before=None):
    """The figures as a table, beside those of other results."""
    now = figures_of(results)
    rows = [(name, shown(value)) for name, value in now.items()]
    if not before:
        return report.table(("figure", "now"), rows)
    old = figures_of(before)
    return report.table(("figure", "before", "now"), [(name, shown(old.get(name)), value) for name, value in rows])


def shown(value):
    return "" if value is None else str(value) if isinstance(value, int) else \
        "never" if np.isinf(value) else f"{value:.3f}"
