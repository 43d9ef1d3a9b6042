"""The arithmetic of the bench: ratios of samples, their noise, slopes, and the table of them all.
Nothing here measures anything."""

import math
import statistics

# A cost that grows with this power of the work, or a higher one, grows faster than the work.
STEEPEST = 1.05

# What the mark before a row says.
WITHIN, UNSURE, BEYOND = "", "~", "!"


def ratios(ours, limit):
    """Ours by the limit's: of the medians and of the best runs. The limit may be one number."""
    if not isinstance(limit, list):
        limit = [limit]
    return {
        "median": statistics.median(ours) / statistics.median(limit),
        "best": min(ours) / min(limit),
    }


def differences(ours, limit):
    """How much more ours is than the limit's, likewise."""
    return {
        "median": statistics.median(ours) - statistics.median(limit),
        "best": min(ours) - min(limit),
    }


def spread(samples):
    """How far the middle half of the samples lies apart, as a part of their median."""
    if not isinstance(samples, list) or len(samples) < 2:
        return 0.0
    low, _, high = statistics.quantiles(samples, n=4, method="inclusive")
    return (high - low) / statistics.median(samples)


def mark(found, target):
    """BEYOND when medians and best runs are both above the target, UNSURE when one of them is."""
    if target is None:
        return WITHIN
    above = sum(found[kind] > target for kind in ("median", "best"))
    return (WITHIN, UNSURE, BEYOND)[above]


def row(piece, limit, target, ours, limits, peers=None, skipped=None, form="ratio", note=""):
    """One row: what was measured, beside which limit, and the figures. `form` is "ratio", "speed"
    (of the limit's, where more is better, and the target is the least), a unit ("ms") of which
    `ours` are plain numbers, or a unit with "more" ("ms more") of which both are, and the figure
    is their difference."""
    if form in ("ratio", "speed"):
        found = ratios(ours, limits)
    elif form.endswith(" more"):
        found = differences(ours, limits)
    else:
        found = ratios(ours, 1)
    marked = mark(found, 1 / target if form == "speed" and target else target)
    if form == "speed":
        found = {kind: 1 / value for kind, value in found.items()}
    compared = {}
    for name, samples in (peers or {}).items():
        if samples:
            compared[name] = ratios(samples, limits if form in ("ratio", "speed") else 1)
            if form == "speed":
                compared[name] = {kind: 1 / value for kind, value in compared[name].items()}
    return {
        "piece": piece,
        "limit": limit,
        "target": target,
        "form": form,
        "median": found["median"],
        "best": found["best"],
        "mark": marked,
        "noise": spread(limits if isinstance(limits, list) else ours),
        "samples": len(ours),
        "ours": statistics.median(ours),
        "limit_value": statistics.median(limits) if isinstance(limits, list) else limits,
        "peers": compared,
        "skipped": skipped or {},
        "note": note,
    }


def slope(points):
    """The power of the size that the cost grows with: the slope of the straight line through the
    logarithms of (size, cost), by least squares."""
    logarithms = [(math.log10(size), math.log10(cost)) for size, cost in points]
    sizes, costs = zip(*logarithms)
    middle_size, middle_cost = statistics.mean(sizes), statistics.mean(costs)
    above = sum((s - middle_size) * (c - middle_cost) for s, c in logarithms)
    return above / sum((s - middle_size) ** 2 for s in sizes)


def growing(points):
    """The points where the size shows: those before the cost has doubled are what a call costs
    whatever its size, and would make any slope look flat. At least the last three."""
    start = next((i for i, (_, cost) in enumerate(points) if cost >= 2 * points[0][1]), 0)
    return points[max(0, min(start, len(points) - 3)) :]


def growth(name, size, samples):
    """One curve: `samples` maps each size to its costs in seconds. The best run of each counts,
    which is the one that noise has added least to."""
    points = [(n, min(costs)) for n, costs in sorted(samples.items())]
    medians = [(n, statistics.median(costs)) for n, costs in sorted(samples.items())]
    kept = growing(points)
    return {
        "name": name,
        "size": size,
        "points": points,
        "medians": medians,
        "fitted_from": kept[0][0],
        "slope": slope(kept),
        "slope_of_medians": slope(medians[-len(kept) :]),
        "steeper_than_work": slope(kept) > STEEPEST,
    }


# ---- Words ---------------------------------------------------------------------------------------


def number(value):
    """Two or three digits."""
    if value == 0:
        return "0"
    for least, decimals in ((100, 0), (10, 1), (0.1, 2)):
        if abs(value) >= least:
            return f"{value:.{decimals}f}"
    return f"{value:.3f}"


def duration(seconds):
    for limit, factor, unit in ((1e-6, 1e9, "ns"), (1e-3, 1e6, "µs"), (1, 1e3, "ms")):
        if seconds < limit:
            return f"{number(seconds * factor)} {unit}"
    return f"{number(seconds)} s"


def count(value):
    """A size as people say it: 1,000,000 or, with binary powers, 4 GiB."""
    for power, unit in ((30, "GiB"), (20, "MiB"), (10, "KiB")):
        if value >= 1 << power and value % (1 << power) == 0:
            return f"{value >> power} {unit}"
    return f"{value:,}"


def figure(value, form):
    return f"{number(value)} {form}" if form not in ("ratio", "speed") else number(value)


def target_text(found):
    if found["target"] is None:
        return ""
    sign = "≥" if found["form"] == "speed" else "≤"
    return f"{sign} {figure(found['target'], found['form'])}"


def peers_text(found):
    # What a peer takes is no difference.
    form = found["form"].removesuffix(" more")
    said = [f"{name} {figure(peer['median'], form)}" for name, peer in found["peers"].items()]
    said += [f"{name} skipped: {why}" for name, why in found["skipped"].items()]
    return ", ".join(said)


HEAD = ["", "piece", "limit", "target", "median", "best", "noise", "peers (median)"]


def table(rows):
    """The rows as a Markdown table; its columns line up in a terminal as well."""
    cells = [HEAD]
    for found in rows:
        piece = found["piece"] + (f" ({found['note']})" if found["note"] else "")
        if "skipped_row" in found:
            cells.append(["", piece, "", "", "skipped", "", "", found["skipped_row"]])
            continue
        cells.append(
            [found["mark"], piece, found["limit"], target_text(found)]
            + [figure(found[kind], found["form"]) for kind in ("median", "best")]
            + [f"{found['noise'] * 100:.0f} %", peers_text(found)]
        )
    widths = [max(len(line[column]) for line in cells) for column in range(len(HEAD) - 1)]
    lines = [
        "| " + " | ".join([c.ljust(w) for c, w in zip(line, widths)] + [line[-1]]) + " |"
        for line in cells
    ]
    lines.insert(1, "|" + "|".join(["---"] * len(HEAD)) + "|")
    return "\n".join(lines)


def skipped_row(piece, why):
    return {"piece": piece, "note": "", "skipped_row": why}


def growth_table(curves):
    lines = ["| cost | of | from | to | slope | of the medians | |", "|---|---|--:|--:|--:|--:|---|"]
    for curve in curves:
        first, last = curve["points"][0], curve["points"][-1]
        lines.append(
            f"| {curve['name']} | {curve['size']} "
            f"| {count(first[0])}: {duration(first[1])} | {count(last[0])}: {duration(last[1])} "
            f"| {curve['slope']:.3f} | {curve['slope_of_medians']:.3f} "
            f"| {'steeper than the work' if curve['steeper_than_work'] else ''} |"
        )
    return "\n".join(lines)
