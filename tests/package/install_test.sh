#!/usr/bin/env bash
# What `cmake --install` puts into a prefix works from there, with nothing of the build's environment.
# usage: install_test.sh BUILD-FOLDER CC JAVA APPLICATION-JAR
set -euo pipefail
build=$1 cc=$2 java=$3 application=$4
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
service=''
trap '[ -z "$service" ] || kill "$service"; rm -rf "$work"' EXIT
prefix=$work/prefix
failed() { echo "FAILED: $*"; exit 1; }
alone() { env -i PATH="$PATH" HOME="$work" "$@"; }
eventually() { local i; for i in {1..200}; do ! "$@" 2>/dev/null || return 0; sleep 0.05; done; failed "in 10 s: $*"; }

cmake --install "$build" --prefix "$prefix" >"$work/log" || { cat "$work/log"; exit 1; }
library=$(dirname "$(find "$prefix" -name libtarnbooster.so)")
cd "$work"

# The programs find their libraries, and each other.
name=tarnbooster-install-$$
alone "$prefix/bin/tarnbooster-service" --name "$name" >service.log 2>&1 &
service=$!
eventually grep -q "@$name" service.log
alone "$prefix/bin/tarnbooster" --socket "$name" check-permission >/dev/null || failed "the programs do not meet"

# Somebody else's build finds the library, in two ways, and an application its jar.
alone cmake -S "$here/outside" -B outside -DCMAKE_C_COMPILER="$cc" -DCMAKE_PREFIX_PATH="$prefix" >log 2>&1 &&
  cmake --build outside >>log 2>&1 || { cat log; failed "find_package"; }
alone outside/outside >/dev/null || failed "the outside program"
export PKG_CONFIG_PATH=$library/pkgconfig
jni=$(sed -n 's/^TARNBOOSTER_JNI_INCLUDE_DIR:PATH=//p' outside/CMakeCache.txt)
# shellcheck disable=SC2046  # the words are options
"$cc" -fPIC "$here/package_header_test.c" -isystem "$jni" -isystem "$jni/linux" $(pkg-config --cflags --libs tarnbooster) -o user
LD_LIBRARY_PATH=$library ./user >/dev/null || failed "the program built with pkg-config"
alone "$java" -Djava.library.path="$library" -cp "$application:$prefix/share/java/tarnbooster.jar" \
  com.tarn.example.Application >java.log 2>&1 || { cat java.log; failed "the application in Java"; }

# The pages are good roff and name what --help names; the completion knows it, too.
for page in man1/tarnbooster.1 man8/tarnbooster-service.8; do
  problems=$(groff -man -Tutf8 -ww -z "$prefix/share/man/$page" 2>&1)
  [ -z "$problems" ] || failed "$page: $problems"
  program=$(basename "${page%.*}")
  grep -oE '^  (-.,)?--[a-z-]+' < <(alone "$prefix/bin/$program" --help) | sed 's/.*--/--/' | while read -r option; do
    grep -q -- "${option//-/\\\\-}" "$prefix/share/man/$page" || failed "$page does not tell $option"
    grep -q -- "[ ']$option" "$prefix/share/bash-completion/completions/$program" || failed "no completion of $option"
  done
done
. "$prefix/share/bash-completion/completions/tarnbooster"
COMP_WORDS=(tarnbooster --socket x check-) COMP_CWORD=3
_tarnbooster
[ "${COMPREPLY[*]}" = check-permission ] || failed "check- is completed to ${COMPREPLY[*]}"

# What shows a recording is there.
[ -s "$prefix/share/tarnbooster/tarnbooster.lua" ] || failed "no dissector"

# The units are sound, and say where this prefix has the program.
for unit in service socket; do
  sed "s,^\(ExecStart=\)[^ ]*/bin/,\1$prefix/bin/," "$prefix/lib/systemd/system/tarnbooster.$unit" >"tarnbooster.$unit"
done
problems=$(MANPATH=$prefix/share/man systemd-analyze verify ./tarnbooster.service ./tarnbooster.socket 2>&1) || true
[ -z "$problems" ] || failed "the units: $problems"
systemd-analyze security --offline=true --threshold=30 ./tarnbooster.service >log 2>&1 || { tail -n 1 log; failed "exposed"; }
