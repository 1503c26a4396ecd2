#!/usr/bin/env bash
# Builds the fuzzers and runs them.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
  cat <<TXT
Usage: scripts/fuzz.sh [--runs N | --minutes M] [NAME...]

Builds the fuzzers (clang; AddressSanitizer and UndefinedBehaviorSanitizer) and runs each, or those that are
named, from the inputs in tests/fuzz/corpus/NAME. Without a limit each runs for a minute.

  --runs N      each runs N inputs
  --minutes M   each runs M minutes
  --list        prints the names

New inputs go to build/fuzz/inputs/NAME and are used again. An input that fails is kept as
build/fuzz/NAME-crash-*, and this script ends with an error; one run shows it again:
  build/fuzz/tests/fuzz/NAME_fuzzer build/fuzz/NAME-crash-...
TXT
}

limit=-max_total_time=60
names=()
while [ $# -gt 0 ]; do
  case "$1" in
    --runs | --minutes)
      [[ "${2:-}" =~ ^[1-9][0-9]*$ ]] || die "$1 takes a positive number"
      [ "$1" = --runs ] && limit=-runs=$2 || limit=-max_total_time=$(($2 * 60))
      shift 2
      continue
      ;;
    --list) ls "$ROOT/tests/fuzz/corpus" && exit 0 ;;
    --help | -h) usage && exit 0 ;;
    -*) usage >&2 && die "unknown argument: $1" ;;
    *) names+=("$1") ;;
  esac
  shift
done
[ ${#names[@]} -gt 0 ] || mapfile -t names < <(ls "$ROOT/tests/fuzz/corpus")
for name in "${names[@]}"; do
  [ -d "$ROOT/tests/fuzz/corpus/$name" ] || die "no fuzzer is called $name; scripts/fuzz.sh --list names them"
done

installPackages "${buildPackages[@]}" "${testPackages[@]}"
say "building the fuzzers"
tree=$BUILD/fuzz
mkdir -p "$BUILD"
(cd "$ROOT" && cmake --preset fuzz -B "$tree") >"$tree.log" 2>&1 || { cat "$tree.log" && die "cmake failed"; }
cmake --build "$tree" --target "${names[@]/%/_fuzzer}"

failed=()
for name in "${names[@]}"; do
  say "$name: $limit"
  mkdir -p "$tree/inputs/$name"
  "$tree/tests/fuzz/${name}_fuzzer" "$limit" -timeout=20 -rss_limit_mb=2048 \
    -artifact_prefix="$tree/$name-" -print_final_stats=1 "$tree/inputs/$name" "$ROOT/tests/fuzz/corpus/$name" 2>&1 |
    grep -vE '^(#[0-9]+[[:space:]]+(NEW|REDUCE|RELOAD)|INFO:|"|#####)' || failed+=("$name")
done
[ ${#failed[@]} -eq 0 ] || die "found something: ${failed[*]} (the input is named above)"
say "no fuzzer found anything"
