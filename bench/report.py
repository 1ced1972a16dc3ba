"""The pages that bench/quality makes of its figures, in Markdown."""
import numpy as np

SYSTEMS = ("library", "suppressed", "perfect", "lines", "none", "speex", "best", "webrtc", "today", "speex_pre")


def mean(values):
    values = [v for v in values if v is not None]
    return float(np.mean(values)) if values else None


def summarise(results):
    """The figures of one summary row: name -> number or None (for a time: never)."""
    late = np.sum([r["late"] for r in results], axis=0)
    row = dict(scenes=len(results), misaligned=100 * late[0] / late[1] if late[1] else None,
               false_moves=sum(r["false_moves"] for r in results),
               resets=sum(r["resets"] for r in results))
    for kind in ("start", "step", "all"):
        times = [np.inf if w["seconds"] is None else w["seconds"]
                 for r in results for w in r["waits"] if kind in (w["kind"], "all")]
        if times:
            row[f"{kind}_count"], row[f"{kind}_never"] = len(times), int(np.isinf(times).sum())
            for name, percent in (("median", 50), ("p90", 90), ("worst", 100)):
                value = float(np.percentile(times, percent, method="higher"))
                row[f"{kind}_{name}"] = None if np.isinf(value) else value
    for system in SYSTEMS:
        figures = [r["figures"][system] for r in results if system in r["figures"]]
        for i, name in enumerate(("whole", "second")):
            row[f"{system}_{name}"] = mean([f["removed"][i] for f in figures if f["removed"]])
        for i, name in enumerate(("si_sdr", "level", "quiet")):
            row[f"{system}_{name}"] = mean([f["near"][i] for f in figures])
    return row


def text(value, digits=1):
    return "" if value is None else f"{value:.{digits}f}"


def waits_text(result, kind):
    """The times until aligned after starts or steps; where never, the seconds there were."""
    return ", ".join(f"never ({w['available']:.0f} s)" if w["seconds"] is None else f"{w['seconds']:.2f}"
                     for w in result["waits"] if kind in (w["kind"], "all"))


def table(header, rows):
    """A Markdown table, numbers to the right."""
    align = "|" + "|".join([" --- "] + [" ---: "] * (len(header) - 1)) + "|"
    return "\n".join(["| " + " | ".join(header) + " |", align] +
                     ["| " + " | ".join(str(c) for c in row) + " |" for row in rows]) + "\n"


def waits_table(total):
    """Times until aligned after starts, steps and both."""
    waits = [(label, total[f"{kind}_count"], total[f"{kind}_never"],
              *(text(total[f"{kind}_{q}"], 2) or "never" for q in ("median", "p90", "worst")))
             for kind, label in (("start", "start"), ("step", "step of the delay"), ("all", "both"))
             if f"{kind}_count" in total]
    return table(("after a", "count", "never", "median", "90 %", "worst"), waits)


def by_category(results):
    """The summary of each category."""
    return {c: summarise([r for r in results if r["category"] == c])
            for c in dict.fromkeys(r["category"] for r in results)}


def scene_page(results, provenance):
    """The report on scenes."""
    total, categories = summarise(results), by_category(results)
    shown = [s for s in SYSTEMS if any(s in r["figures"] for r in results)]
    columns = [f"{s} dB" for s in shown]
    means = [(s, *(text(total[f"{s}_{f}"]) for f in ("whole", "second", "si_sdr")),
              *(text(total[f"{s}_{f}"], 2) for f in ("level", "quiet"))) for s in shown]
    category_rows = [(name, row["scenes"], text(row.get("start_median"), 2), text(row.get("step_median"), 2),
                      row.get("all_never", ""), text(row["misaligned"]), row["false_moves"],
                      *(text(row[f"{s}_whole"]) for s in shown), text(row["library_si_sdr"]))
                     for name, row in categories.items()]
    scene_rows = []
    for r in results:
        pairs = [r["figures"].get(s, {}).get("removed") for s in shown]
        scene_rows.append((r["name"], waits_text(r, "start"), waits_text(r, "step"), late_text(r),
                           r["false_moves"],
                           *("" if p is None else f"{p[0]:.1f} / {p[1]:.1f}" for p in pairs),
                           *map(text, r["figures"].get("library", {}).get("near", []))))
    return "\n".join([
        "# Quality\n", f"{total['scenes']} scenes. {provenance}",
        "## Time until aligned (s of active far end)\n", waits_table(total),
        f"Misaligned afterwards: {text(total['misaligned'], 2)} % of active frames. "
        f"False moves: {total['false_moves']}. Resets of the canceller: {total['resets']}.\n",
        "## Mean figures (dB)\n",
        table(("system", "echo removed", "second half", "SI-SDR gain", "near level, double talk",
               "near level, no echo"), means),
        "## Categories (medians; echo removed over the whole stretch)\n",
        table(("category", "scenes", "start s", "step s", "never", "misaligned %", "false moves", *columns,
               "SI-SDR gain dB"), category_rows),
        "## Scenes (echo removed over the whole stretch / second half)\n",
        table(("scene", "start s", "steps s", "misaligned %", "false moves", *columns, "SI-SDR gain dB",
               "near level dB", "near level, no echo dB"), scene_rows)])


def late_text(result):
    """The share of active frames misaligned after the delay was found, in %."""
    wrong, active = result["late"]
    return text(100 * wrong / active) if active else ""


def loss(result, system, half):
    """By how much the library removed less than a system over the whole stretch (0) or its second
    half (1), in dB, or None."""
    pair = [result["figures"].get(s, {}).get("removed") for s in (system, "library")]
    return pair[0][half] - pair[1][half] if all(pair) else None


def losses(results, system):
    """By how much the library removed less than a system: mean over whole stretches, over second
    halves, and the worst second half, as text."""
    values = [[v for r in results if (v := loss(r, system, half)) is not None] for half in (0, 1)]
    return [text(mean(values[0]), 2), text(mean(values[1]), 2), text(max(values[1], default=None))]


def moves_text(result):
    """The moves of the applied delay, the first six."""
    more = len(result["moves"]) - 6
    return " ".join(f"{to}@{at:.1f}" for at, to in result["moves"][:6]) + (f" and {more} more" if more > 0 else "")


def recording_row(result, shown):
    """One recording in the tables of worst ones."""
    pairs = [result["figures"].get(s, {}).get("removed") for s in shown]
    return (result["name"], " to ".join(map(str, dict.fromkeys(result["true"]))), moves_text(result),
            waits_text(result, "all"), late_text(result), result["false_moves"],
            *("" if p is None else f"{p[0]:.1f} / {p[1]:.1f}" for p in pairs))


def recording_groups(results):
    """The results of recordings: all, by rate, by added delay, by both."""
    groups = {"all": results}
    for names in (lambda c: c.split()[:1], lambda c: c.split()[1:], lambda c: [c]):
        for r in results:
            for name in names(r["category"]):
                groups.setdefault(name, []).append(r)
    return groups


def recording_tables(results, shown):
    """Delays and echo removed of all recordings and by group."""
    delays, dB = [], []
    for name, group in recording_groups(results).items():
        row = summarise(group)
        delays.append((name, row["scenes"], row.get("all_count", ""), row.get("all_never", ""),
                       *(text(row.get(f"all_{q}"), 2) or "never" for q in ("median", "p90", "worst")),
                       text(row["misaligned"], 2), row["false_moves"]))
        if shown:
            dB.append((name, sum(bool(r["figures"]["library"]["removed"]) for r in group),
                       *(f"{text(row[f'{s}_whole'])} / {text(row[f'{s}_second'])}" for s in shown),
                       *(cell for s in ("perfect", "lines") if s in shown for cell in losses(group, s))))
    header = ["stretches", "count", *shown,
              *(f"below {s}: {what}" for s in ("perfect", "lines") if s in shown
                for what in ("whole", "second half", "worst second half"))]
    return ["## Time until aligned, after a start or a step (s of active far end)\n",
            table(("recordings", "count", "starts and steps", "never", "median", "90 %", "worst",
                   "misaligned afterwards, %", "false moves"), delays),
            *(["## Echo removed, dB (whole stretch / second half)\n", table(header, dB)] if shown else [])]


def recording_page(results, worst, provenance):
    """The report on recordings, with the worst ones."""
    shown = [s for s in SYSTEMS if any(s in r["figures"] for r in results)]

    def longest(r):
        return max((np.inf if w["seconds"] is None else w["seconds"] for w in r["waits"]), default=0)

    one = ("recording", "true", "moves (samples@s)", "waits s", "misaligned %", "false moves",
           *(f"{s} dB" for s in shown))
    orders = {"Longest until aligned": longest, "Misaligned afterwards": lambda r: r["late"][0],
              "False moves": lambda r: r["false_moves"],
              "Furthest below perfect in the second half": lambda r: loss(r, "perfect", 1) or 0,
              "Furthest below perfect over the whole stretch": lambda r: loss(r, "perfect", 0) or 0}
    parts = ["# Recordings\n", f"{len({r['item'] for r in results})} recordings in {len(results)} cases (rates, "
             f"delay added, jumps). {provenance}",
             *recording_tables(results, shown)]
    for title, key in orders.items():
        bad = [r for r in sorted(results, key=key, reverse=True)[:worst] if key(r) > 0]
        parts += [f"## {title}\n", table(one, [recording_row(r, shown) for r in bad])] if bad else []
    return "\n".join(parts)


def unrelated_page(results):
    """How many pairs without an echo had a move, and which."""
    moved = [r for r in results if r["false_moves"]]
    rows = [(r["name"], moves_text(r)) for r in moved]
    return "\n".join(["# Unrelated pairs\n", f"{len(moved)} of {len(results)} with a move.\n",
                      *([table(("pair", "moves (samples@s)"), rows)] if rows else [])])


def page(results, baseline, worst, provenance):
    """The whole report in Markdown."""
    kinds = {kind: [r for r in results if r["kind"] == kind] for kind in ("scene", "recording", "unrelated")}
    pages = [make(kinds[kind]) for kind, make in
             (("scene", lambda r: scene_page(r, provenance)),
              ("recording", lambda r: recording_page(r, worst, provenance)),
              ("unrelated", unrelated_page)) if kinds[kind]]
    if baseline:
        pages.append(comparison(results, baseline))
    return "\n".join(pages)


def comparison(results, baseline):
    """What changed against figures saved by --save, over the scenes in both, in Markdown."""
    figures = ("start_median", "start_p90", "step_median", "step_p90", "all_never", "misaligned",
               "false_moves", "library_whole", "library_second", "library_si_sdr", "perfect_whole")

    def cell(before, now):
        if before is None or now is None:
            return text(now, 2) if before == now else f"{text(before, 2) or 'none'} → {text(now, 2) or 'none'}"
        return f"{now:.2f}" + (f" ({now - before:+.2f})" if abs(now - before) > 0.004 else "")

    old, rows, changes = {r["name"]: r for r in baseline["results"]}, [], []
    both = [(old[r["name"]], r) for r in results if r["name"] in old]
    for name in ["all", *dict.fromkeys(now["category"] for _, now in both)]:
        before, now = (summarise([p[i] for p in both if name in ("all", p[1]["category"])]) for i in (0, 1))
        rows.append((name, now["scenes"], *(cell(before.get(f), now.get(f)) for f in figures)))
    for pair in both:
        waits = [waits_text(r, "all") for r in pair]
        moves = [r["false_moves"] for r in pair]
        dB = [(r["figures"].get("library", {}).get("removed") or [None])[0] for r in pair]
        if waits[0] != waits[1] or moves[0] != moves[1] or abs((dB[0] or 0) - (dB[1] or 0)) >= 0.3:
            changes.append((pair[1]["name"], *waits, *moves, *map(text, dB)))
    header = ("changed scene", "waits s before", "now", "false moves before", "now", "removed dB before", "now")
    return "\n".join(["## Against the baseline\n", table(("", "scenes", *figures), rows), table(header, changes)])
