"""The SVG charts that bench/quality draws of its figures."""
import numpy as np

from cases import FRAME_S
from report import SYSTEMS, by_category


def draw(results, folder):
    """SVG charts: delay and echo removed over time of some scenes, and echo removed by category."""
    import matplotlib
    matplotlib.use("Agg")
    from matplotlib import pyplot
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "quality", "font.size": 9,
                                "axes.spines.top": False, "axes.spines.right": False})
    colours = dict(zip(SYSTEMS, ("#1f6fb4", "#123f6b", "#2a9d5c", "#7fb069", "#b0b0b0", "#d98324", "#303030", "#9b4fb5",
                                  "#c49ad6", "#e8b77c")))
    folder.mkdir(parents=True, exist_ok=True)

    def save(figure, name):
        figure.tight_layout()
        figure.savefig(folder / f"{name}.svg", metadata={"Date": None})
        pyplot.close(figure)

    for r in (r for r in results if "series" in r):
        curves = r["series"]
        figure, (upper, lower) = pyplot.subplots(2, 1, figsize=(7, 4), sharex=True)
        times = np.arange(len(curves["true"])) * FRAME_S
        upper.plot(times[::4], curves["true"][::4], color="#303030", lw=3, alpha=0.35, label="true")
        upper.plot(times[::4], curves["applied"][::4], color=colours["library"], label="applied")
        for system, values in curves["removed"].items():
            lower.plot((np.arange(len(values)) + 0.5) * 0.5, values, color=colours[system], label=system)
        upper.set_title(r["name"], loc="left")
        upper.set(ylabel="delay, ms")
        lower.set(ylabel="removed, dB", xlabel="time, s")
        for axis in (upper, lower):
            axis.legend(frameon=False, ncols=3, fontsize=8)
        save(figure, r["name"].replace("+", ""))
    categories = by_category(results)
    names = [n for n, row in categories.items() if row["library_whole"] is not None]
    shown = [s for s in SYSTEMS if any(categories[n][f"{s}_whole"] for n in names)]
    figure, axis = pyplot.subplots(figsize=(7.5, 3.2))
    width = 0.85 / len(shown)
    for i, system in enumerate(shown):
        axis.bar(np.arange(len(names)) + (i - len(shown) / 2 + 0.5) * width,
                 [categories[n][f"{system}_whole"] or 0 for n in names], width,
                 color=colours[system], label=system)
    axis.set_xticks(range(len(names)), names, rotation=35, ha="right")
    axis.set_ylabel("echo removed, dB")
    axis.legend(frameon=False, ncols=len(shown), fontsize=8, loc="upper left", bbox_to_anchor=(0, 1.15))
    save(figure, "categories")
