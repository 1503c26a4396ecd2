#!/usr/bin/env bash
# Counts the instructions of the library's jobs and compares them with the committed figures.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
  cat <<TXT
Usage: scripts/check-instructions.sh [--update] TREE

Runs bench/instructions of the build folder TREE (configured with -DTARNBOOSTER_BUILD_BENCHMARKS=ON, optimised, without
sanitizers) under valgrind, which counts the same every time, and compares one request, one reply, one datagram and one
sample with bench/instructions.txt. A job that costs more than 5 % over its figure fails. One that costs more than 5 %
less is told of: commit its new figure, or the gain can be lost again unnoticed.

The figures belong to a processor, a compiler and a C library. With others there is nothing to compare: that is said in
large letters and is no failure.

  --update   writes the figures of this toolchain into bench/instructions.txt
TXT
}

update=false tree=''
for argument in "$@"; do
  case "$argument" in
    --update) update=true ;;
    --help | -h) usage && exit 0 ;;
    -*) usage >&2 && die "unknown argument: $argument" ;;
    *) tree=$argument ;;
  esac
done
program=$tree/bench/instructions figures=$ROOT/bench/instructions.txt
[ -x "$program" ] || die "no $program: build it with -DTARNBOOSTER_BUILD_BENCHMARKS=ON"
command -v valgrind >/dev/null || die "valgrind is needed"
toolchain="$(uname -m) $(sed -n 's/^CMAKE_CXX_COMPILER:[^=]*=//p' "$tree/CMakeCache.txt" | xargs -I{} sh -c '{} --version' | head -n 1) glibc $(getconf GNU_LIBC_VERSION | cut -d' ' -f2)"
toolchain=${toolchain//  / }

# count JOB COUNT: all instructions of so many.
count() {
  valgrind --tool=callgrind --callgrind-out-file=/dev/null "$program" "$1" "$2" 2>&1 |
    sed -n 's/.*Collected : //p' | tail -n 1 | grep . || die "valgrind could not run $program $1"
}

if ! $update && ! grep -qF "# $toolchain" "$figures"; then
  printf '\n%s\n' '!!! INSTRUCTIONS NOT COMPARED: no figures for this toolchain !!!' "!!! $toolchain" \
    "!!! scripts/check-instructions.sh --update $tree writes them."
  exit 0
fi

failed=0 lines=("# $toolchain")
for job in request reply datagram sample; do
  few=$(count $job 200) many=$(count $job 1200)
  cost=$(((many - few) / 1000))
  lines+=("$job $cost")
  $update && echo "$job: $cost instructions" && continue
  figure=$(awk -v t="# $toolchain" -v j=$job '/^#/ { here = $0 == t } here && $1 == j { print $2 }' "$figures")
  change=$(awk -v a="$cost" -v b="$figure" 'BEGIN { printf "%+.1f", (a / b - 1) * 100 }')
  echo "$job: $cost instructions, $change % against $figure"
  if awk -v c="$change" 'BEGIN { exit !(c > 5) }'; then
    echo "  FAIL: more than 5 % over; mend it, or commit the new figure with scripts/check-instructions.sh --update"
    failed=1
  elif awk -v c="$change" 'BEGIN { exit !(c < -5) }'; then
    echo "  a gain: commit it with scripts/check-instructions.sh --update"
  fi
done
if $update; then
  awk -v t="# $toolchain" '/^#/ { here = $0 == t } !here' "$figures" 2>/dev/null >"$figures.new" || true
  printf '%s\n' "${lines[@]}" >>"$figures.new"
  mv "$figures.new" "$figures"
fi
exit $failed
