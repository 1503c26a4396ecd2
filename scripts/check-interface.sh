#!/usr/bin/env bash
# Compares what a built jar offers to applications with the list of it in android/interface.txt.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
  cat <<'HELP'
usage: scripts/check-interface.sh [--update] JAR

Lists the public and protected members of every public class in JAR, with the values of constants, and compares
them with android/interface.txt: what an application may have been compiled against does not change unseen.

  --update  write the list instead, for a change that is wanted
HELP
}

update=no
[ "${1:-}" != --help ] || { usage; exit 0; }
[ "${1:-}" != --update ] || { update=yes; shift; }
[ $# -eq 1 ] || { usage >&2; exit 2; }
[ -f "$1" ] || die "there is no jar $1"
useJava17
list=$ROOT/android/interface.txt

# Only what is public at the top is listed, and what is in it; the first line of each class tells that.
found=$(jar --list --file "$1" | sed -n 's/\.class$//p' | LC_ALL=C sort | tr / . |
  xargs javap -protected -constants -cp "$1" | sed '/^Compiled from/d' |
  awk '/^[a-z].*[{]$/ { shown = /^public / } shown { sub(/^  /, "    "); print }')
[ -n "$found" ] || die "$1 has no public class"
if [ "$update" = yes ]; then
  printf '%s\n' "$found" >"$list"
  exit 0
fi
diff "$list" <(printf '%s\n' "$found") || die "the interface has changed (< the list, > the jar): if that is wanted, note it in
CHANGELOG.md and run: scripts/check-interface.sh --update $1"
