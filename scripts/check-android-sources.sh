#!/usr/bin/env bash
# Compiles the library's sources as an Android compiler sees them, where there is no NDK.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
. "$(dirname "$0")/imports.sh"

if [ $# -ne 1 ] || [ "$1" = --help ]; then
  cat <<'HELP'
usage: scripts/check-android-sources.sh BUILD

Compiles every source of jni/ and the generated messages for aarch64-linux-android24 with clang: the
__ANDROID__ branches, Android's ABI, its own jni.h and log.h. The C and C++ headers are those of the arm64
folder, so what the C library must have is checked by name afterwards, against scripts/allowed-imports.txt.
BUILD is an arm64 build folder, for the generated messages.
HELP
  [ $# -eq 1 ]
  exit
fi

generated=$(cd "$1" && pwd)/jni/generated
[ -f "$generated/amc.pb.cc" ] || die "no generated messages in $1: build the target amc_messages first"
installPackages clang binutils
folder=$("$ROOT/scripts/arm64-folder.sh")
objects=$(mktemp -d)
trap 'rm -rf "$objects"' EXIT

flags=(--target=aarch64-linux-android24 --sysroot="$folder" -std=c++17 -O2 -fPIC -fvisibility=hidden
  -fno-exceptions -fno-rtti -nostdinc++)
for include in usr/include/c++/12 usr/include/aarch64-linux-gnu/c++/12 usr/include/android/nativehelper \
  usr/include/android usr/include/aarch64-linux-gnu usr/include; do
  flags+=(-isystem "$folder/$include")
done
flags+=(-isystem "$generated")

# compile FLAG... -- SOURCE...
compile() {
  local given=()
  while [ "$1" != -- ]; do given+=("$1"); shift; done
  shift
  (cd "$objects" && printf '%s\0' "$@" | xargs -0 -n1 -P"$(nproc)" clang++ -c "${flags[@]}" "${given[@]}")
}
compile -Wall -Wextra -Werror -- "$ROOT"/jni/*.cpp || die "the sources do not compile for Android"
compile -w -- "$generated/amc.pb.cc" || die "the generated messages do not compile for Android"

# What the objects want and none of them has.
forbidden=$(nm -A "$objects"/*.o | awk '$(NF-1) ~ /^[TDBRVWu]$/ { have[$NF] } $(NF-1) == "U" { want[$NF] }
  END { for (name in want) if (!(name in have)) print name }' | forbiddenImports)
[ -z "$forbidden" ] || die "Android at API level 24 has no such functions, or nobody has looked them up yet:
$forbidden"
printf '%d sources compile for Android and use nothing that it lacks\n' "$(find "$objects" -name '*.o' | wc -l)"
