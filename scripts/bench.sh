#!/usr/bin/env bash
# Builds the benchmarks and prints every figure beside its floor.
#
# A benchmark program is an executable build/bench/bench/*_bench. It takes
#
#   --rows=FILE                 where to write its rows, as a JSON array of objects with the members
#                                 name    text, what was measured; the same in every run
#                                 unit    text
#                                 value   number, the median over the alternated repetitions
#                                 floor   number, the same for the bare program beside it; null without one
#                                 ratio   number, value / floor; null without one
#                                 target  text, ">= N" or "<= N" for the ratio (or for the value, without a floor);
#                                         empty for a figure that has none
#                                 met     true or false
#                                 plot    text, the plot that shows it, x number, its place there; may be missing
#   --cpu=N                     to run on processor N alone, its floors and all their helpers included
#   --benchmark_repetitions=N   how often every measurement is repeated, alternating with its floor
#   --benchmark_filter=REGEX    which measurements to make
#
# and ends with a status other than 0 when a measurement failed (not when a target was missed). Programs of
# bench/support/Main.cpp do all that: bench/support/Rows.h shows how. Each is run twice with few repetitions free to
# use all processors, and once with all repetitions on one, for the figures that count.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
  cat <<TXT
Usage: scripts/bench.sh [--repetitions N] [--filter REGEX] [--only PROGRAM] [--plots FOLDER] [--help]

Builds the benchmarks and runs them, twice unpinned, then pinned to one processor, and prints one table: every figure,
the floor from the same run, their ratio, its target, and the range of the ratio unpinned. Takes about a quarter of an
hour; a machine that does other things meanwhile shows it.

  --repetitions N   of every measurement when pinned (9)
  --filter REGEX    only the measurements (of Google Benchmark's names) that match
  --only PROGRAM    only this program, as in "request_bench"; may be given several times
  --plots FOLDER    also draws the plots into FOLDER, from the same figures (needs gnuplot)

The rows are kept in build/bench/rows/, one file for each program and run. Exit status: 0 when everything could be
measured, whatever the targets say; 1 otherwise.
TXT
}

repetitions=9 filter=. only=() plots=''
while [ $# -gt 0 ]; do
  case "$1" in --repetitions | --filter | --only | --plots) [ -n "${2:-}" ] || die "$1 needs a value; see --help" ;; esac
  case "$1" in
    --repetitions) repetitions=$2; shift 2 ;;
    --filter) filter=$2; shift 2 ;;
    --only) only+=("$2"); shift 2 ;;
    --plots) plots=$(realpath "$2"); shift 2 ;;
    --help | -h) usage && exit 0 ;;
    *) die "unknown argument: $1; see --help" ;;
  esac
done

installPackages "${buildPackages[@]}" libbenchmark-dev libenet-dev zlib1g-dev python3 ${plots:+gnuplot-nox}
useJava17
tree=$BUILD/bench
say "building"
cmake -G Ninja -S "$ROOT" -B "$tree" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNBOOSTER_BUILD_BENCHMARKS=ON \
  -DTARNBOOSTER_BUILD_TESTS=OFF >"$tree.log" 2>&1 || { cat "$tree.log" && die "cmake could not configure"; }
cmake --build "$tree"

rows=$tree/rows
mkdir -p "$rows"
rm -f "$rows"/*.json
cpu=$(taskset -pc $$ | sed 's/.*: //; s/.*[-,]//')  # the last one allowed; the first serves more interrupts
failed=0
# run KIND REPETITIONS OPTION...: all programs once.
run() {
  local kind=$1 count=$2 program name
  shift 2
  for program in "$tree"/bench/*_bench; do
    name=$(basename "$program")
    [ ${#only[@]} -eq 0 ] || [[ " ${only[*]} " == *" $name "* ]] || continue
    say "$name, $kind"
    "$program" --rows="$rows/$name.$kind.json" --benchmark_repetitions="$count" --benchmark_filter="$filter" \
      "$@" >"$rows/$name.$kind.log" 2>&1 ||
      { tail -n 30 "$rows/$name.$kind.log" && echo "$name failed ($kind)" && failed=1; }
  done
}
run free-1 3
run free-2 3
run pinned "$repetitions" --cpu="$cpu"

say "figures (medians of $repetitions, pinned to processor $cpu; the last column is the ratio unpinned)"
python3 "$ROOT/bench/support/table.py" "$rows"
if [ -n "$plots" ]; then
  python3 "$ROOT/bench/support/plots.py" "$rows" "$plots"
fi
exit $failed
