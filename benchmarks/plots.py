"""The bench's plots: how each cost grows with the work, on logarithmic axes."""

import figures


def draw(curves, directory):
    """One SVG file for each curve; the result is their paths. Raises ImportError without
    matplotlib."""
    import matplotlib  # pylint: disable=import-outside-toplevel

    matplotlib.use("svg")
    # Text stays text, and the same figures give the same file.
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "varn"})
    from matplotlib import pyplot  # pylint: disable=import-outside-toplevel

    paths = []
    for curve in curves:
        sizes, costs = zip(*curve["points"])
        figure, axes = pyplot.subplots(figsize=(6, 3.6), layout="constrained")
        axes.loglog(sizes, costs, "o-", label=f"measured, slope {curve['slope']:.3f}")
        last_size, last_cost = curve["points"][-1]
        line = [last_cost * size / last_size for size in sizes]
        axes.loglog(sizes, line, "--", color="grey", label="as the work grows (slope 1)")
        axes.set_ylim(bottom=min(costs) / 3)
        axes.set_xlabel(curve["size"])
        axes.set_ylabel("processor seconds, best run")
        axes.set_title(curve["name"])
        axes.set_xticks(sizes, [figures.count(size) for size in sizes])
        axes.minorticks_off()
        axes.grid(True, color="#dddddd")
        axes.legend()
        path = directory / f"growth-{'-'.join(curve['name'].replace('(),', '').split())}.svg"
        path = path.with_name(path.name.lower().replace(",", ""))
        figure.savefig(path, metadata={"Date": None})
        pyplot.close(figure)
        paths.append(path)
    return paths
