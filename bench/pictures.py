"""The figures as pictures (SVG), the same bytes for the same figures."""

import math
import statistics

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plot  # noqa: E402
from measure import TABLES  # noqa: E402

COLOURS = {"e": "#777777", "e2": "#bbbbbb", "c": "#b8860b", "d": "#8c564b", "stock": "#1f77b4",
           "host": "#c00000", "startAll": "#c00000", "startMaps": "#777777",
           "startMapsDrawn": "#bbbbbb",
           "startTunnelIf": "#1f77b4", "startInetConfig": "#b8860b", "startIpsec": "#2e8b57"}
LABELS = {"e": "e, arithmetic", "e2": "e2, whole bulks", "c": "c, container", "d": "d, tdata",
          "startAll": "three machines", "startMaps": "std::map",
          "startMapsDrawn": "std::map, drawn",
          "startTunnelIf": "tunnelIf", "startInetConfig": "inetConfig", "startIpsec": "ipsec"}
LABEL_GAP = 0.14  # inches


def lines(axes, of_name, scale, log):
    """One line for each name; {name: {rows: [ns]}}."""
    ends = []
    for name, by_rows in of_name.items():
        medians = [statistics.median(values) * scale for values in by_rows.values()]
        quartiles = [statistics.quantiles(values, method="inclusive")
                     for values in by_rows.values()]
        low = [lower * scale for lower, _, _ in quartiles]
        high = [upper * scale for _, _, upper in quartiles]
        axes.plot(list(by_rows), medians, color=COLOURS[name], marker="o", markersize=3,
                  linewidth=1.4)
        axes.fill_between(list(by_rows), low, high, color=COLOURS[name], alpha=0.15, linewidth=0)
        ends.append((medians[-1], name))
    axes.set_xscale("log")
    sizes = list(next(iter(of_name.values())))
    axes.set_xticks(sizes, [f"{rows:,}" for rows in sizes])
    if log:
        axes.set_yscale("log")
        axes.yaxis.set_major_formatter(lambda value, _: f"{value:,g}")
    else:
        axes.set_ylim(bottom=0)
    axes.minorticks_off()
    label(axes, ends)
    axes.spines[["top", "right"]].set_visible(False)
    axes.grid(axis="y", linewidth=0.4, color="#dddddd")


def label(axes, ends):
    """Names the lines at their right ends, far enough from each other to be read."""
    scale = math.log if axes.get_yscale() == "log" else float
    low, high = (scale(limit) for limit in axes.get_ylim())
    gap = LABEL_GAP / (axes.get_position().height * axes.figure.get_figheight())
    at = -gap
    for value, name in sorted(ends):
        at = max((scale(value) - low) / (high - low), at + gap)
        axes.text(1.02, at, LABELS.get(name, name), transform=axes.transAxes, va="center",
                  fontsize=8, color=COLOURS[name])


def by_mode(by_rows, operation):
    modes = next(iter(by_rows.values()))[operation]
    return {mode: {rows: operations[operation][mode] for rows, operations in by_rows.items()}
            for mode in modes}


def figure(rows, columns, height):
    made, axes = plot.subplots(rows, columns, figsize=(11, height), squeeze=False)
    return made, axes


def save(made, path):
    made.tight_layout(w_pad=5)
    made.savefig(path, metadata={"Date": None, "Creator": None})
    plot.close(made)


def walks(results, path):
    made, axes = figure(1, len(TABLES), 3.4)
    for axis, (name, title) in zip(axes[0], TABLES.items()):
        lines(axis, by_mode(results[name], "bulk50"), 1e-3, log=False)
        axis.set_title(title, fontsize=10)
        axis.set_xlabel("rows")
    axes[0][0].set_ylabel("GETBULK walk: CPU, µs per varbind")
    save(made, path)


def requests(results, path):
    made, axes = figure(2, len(TABLES), 6)
    titles = {"get": "GET: CPU, µs", "miss": "GET of a missing row: CPU, µs"}
    for row, (operation, title) in zip(axes, titles.items()):
        for axis, (name, table) in zip(row, TABLES.items()):
            lines(axis, by_mode(results[name], operation), 1e-3, log=operation == "miss")
            axis.set_title(table, fontsize=10)
            axis.set_xlabel("rows")
        row[0].set_ylabel(title)
    save(made, path)


def start(results, path):
    made, axes = figure(1, 1, 4)
    made.set_size_inches(6.5, 4)
    lines(axes[0][0], results["start"], 1e-6, log=True)
    axes[0][0].set_xlabel("tunnels")
    axes[0][0].set_ylabel("start: CPU, ms")
    save(made, path)


PICTURES = {"performance-walks.svg": (walks, "CPU of a GETBULK walk against the number of rows"),
            "performance-requests.svg": (requests, "CPU of a GET, found and missing"),
            "performance-start.svg": (start, "CPU from nothing to complete tables")}


def draw(results, folder):
    """Draws all; returns {file name: title}."""
    matplotlib.rcParams.update({"svg.hashsalt": "TunnelIntfSnmp", "svg.fonttype": "none",
                                "font.size": 9})
    for name, (make, _) in PICTURES.items():
        make(results, folder / name)
    return {name: title for name, (_, title) in PICTURES.items()}
