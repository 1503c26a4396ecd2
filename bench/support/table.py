"""Prints the rows in FOLDER (see scripts/bench.sh) as one table, in Markdown. Usage: table.py FOLDER"""
import json
import pathlib
import sys


def show(value):
    return "" if value is None else f"{value:.4g}" if abs(value) < 10000 else f"{value:,.0f}"


folder = pathlib.Path(sys.argv[1])
print("| what | reached | floor | ratio | target | | unpinned |\n|---|---|---|---|---|---|---|")
for pinned in sorted(folder.glob("*.pinned.json")):
    free = [
        {row["name"]: row for row in json.loads(file.read_text())}
        for file in folder.glob(pinned.name.replace(".pinned.", ".free-*."))
    ]
    for row in json.loads(pinned.read_text()):
        key = "value" if row["ratio"] is None else "ratio"
        others = sorted(run[row["name"]][key] for run in free if row["name"] in run)
        span = " to ".join(dict.fromkeys(show(other) for other in (others[0], others[-1]))) if others else ""
        verdict = "" if not row["target"] else "met" if row["met"] else "missed"
        cells = [row["name"], f"{show(row['value'])} {row['unit']}", show(row["floor"]), show(row["ratio"])]
        print("| " + " | ".join(cells + [row["target"], verdict, span]) + " |")
