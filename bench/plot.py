"""The results as a picture: processor time per delivery, a panel for each part of the table."""

from __future__ import annotations

from pathlib import Path

from bench.cells import Cell
from bench.report import Results, cpu

_COLUMNS = 2
_INCHES = (8.0, 4.5)


def write_png(results: Results, path: Path) -> None:
    """Draws the results; writes nothing when there are none."""
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    parts = list(dict.fromkeys(cell.part for cell, _ in results))
    if not parts:
        return
    rows = -(-len(parts) // _COLUMNS)
    size = (_COLUMNS * _INCHES[0], rows * _INCHES[1])
    figure, panels = pyplot.subplots(rows, _COLUMNS, figsize=size, squeeze=False)
    for panel in panels.flat[len(parts) :]:
        panel.axis("off")
    for panel, part in zip(panels.flat, parts):
        _draw(panel, results, part)
    figure.tight_layout()
    figure.savefig(path, dpi=100)
    pyplot.close(figure)


def _draw(panel, results: Results, part: str) -> None:
    """A group of bars for each cell; the scale is logarithmic, since ratios matter."""
    cells: list[Cell] = list(dict.fromkeys(cell for cell, _ in results if cell.part == part))
    daemons = list(dict.fromkeys(name for cell, name in results if cell.part == part))
    width = 0.8 / len(daemons)
    for number, daemon in enumerate(daemons):
        found = [(at, cpu(results, cell, daemon)) for at, cell in enumerate(cells)]
        known = [(at, value) for at, value in found if value]
        panel.bar(
            [at + (number - (len(daemons) - 1) / 2) * width for at, _ in known],
            [value.median for _, value in known],
            width,
            yerr=[value.spread for _, value in known],
            label=daemon,
        )
    panel.set_yscale("log")
    panel.set_title(part)
    panel.set_ylabel(f"us CPU per {' or '.join(dict.fromkeys(cell.unit for cell in cells))}")
    panel.set_xticks(range(len(cells)), [cell.label for cell in cells], rotation=45, ha="right")
    panel.legend(fontsize="small")
