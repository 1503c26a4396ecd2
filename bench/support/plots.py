"""Draws the plots of the rows in ROWS (see scripts/bench.sh) into FOLDER, with gnuplot. Usage: plots.py ROWS FOLDER

Every row with a "plot" is a point of two curves, the figure and its floor, at its "x".
"""
import collections
import json
import pathlib
import re
import subprocess
import sys

rows, folder = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
folder.mkdir(parents=True, exist_ok=True)
plots = collections.defaultdict(list)
for file in sorted(rows.glob("*.pinned.json")):
    for row in json.loads(file.read_text()):
        if row.get("plot"):
            plots[row["plot"]].append(row)

for title, points in plots.items():
    name = re.sub(r"[^a-z0-9]+", "-", title.lower()).strip("-")
    points.sort(key=lambda row: row["x"])
    data = "\n".join(f"{p['x']} {p['value']} {p['floor'] if p['floor'] is not None else 'NaN'}" for p in points)
    steps = [p["x"] for p in points]
    wide = min(steps) > 0 and max(steps) / min(steps) > 50
    script = f"""
set terminal svg size 640,400 background 'white' font 'sans,13'
set output '{folder / name}.svg'
set title '{title}'
set ylabel '{points[0]["unit"]}'
set yrange [0:*]
{'set logscale x' if wide else ''}
set xtics ({', '.join(f"'{x:g}' {x}" for x in steps)})
set grid ytics
set key bottom right
$data << EOD
{data}
EOD
plot $data using 1:2 with linespoints lw 2 pt 7 title 'reached', $data using 1:3 with linespoints lw 2 pt 6 title 'floor'
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    print(folder / f"{name}.svg")
