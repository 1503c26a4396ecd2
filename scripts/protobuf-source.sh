#!/usr/bin/env bash
# Fetches the source of Debian's protobuf package, with Debian's fixes, and prints its path: what
# TARNBOOSTER_PROTOBUF_SOURCE takes on a machine that has no copy of its own.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

if [ "${1:-}" = --help ]; then
  cat <<'HELP'
usage: scripts/protobuf-source.sh

Fetches the protobuf source that belongs to this machine's protoc into the user's cache and prints its path
on standard output; apt checks it against the signed lists of its archive. The machine's list of package sources
stays as it is.
HELP
  exit 0
fi

installPackages protobuf-compiler dpkg-dev >&2
version=$(dpkg-query -W -f='${Version}' protobuf-compiler)
upstream=${version%%-*}
folder=$CACHE/protobuf-$version

# fetch FOLDER: unpacks the source package as FOLDER/protobuf-UPSTREAM. apt gets lists of its own, with the
# same places and keys but of sources.
fetch() (
  work=$1 list=$1/wanted.sources
  if [ -f /etc/apt/sources.list.d/debian.sources ]; then
    sed 's/^Types:.*/Types: deb-src/' /etc/apt/sources.list.d/debian.sources >"$list"
  else
    list=$work/wanted.list
    sed -n 's/^deb /deb-src /p' /etc/apt/sources.list >"$list"
  fi
  apt=(apt-get -qq -o "Dir::Etc::sourcelist=$list" -o Dir::Etc::sourceparts=/dev/null
    -o "Dir::State::lists=$work/lists" -o "Dir::Cache=$work/cache" -o APT::Sandbox::User=root)
  mkdir -p "$work/lists/partial" "$work/cache/archives/partial" && cd "$work" && "${apt[@]}" update || return
  # The installed version may be gone from the server; a release keeps its upstream version.
  "${apt[@]}" source "protobuf=$version" >/dev/null || "${apt[@]}" source protobuf >/dev/null
)

if [ ! -f "$folder/src/google/protobuf/message_lite.h" ]; then
  say "fetching the source of protobuf $version" >&2
  mkdir -p "$CACHE"
  work=$(mktemp -d "$CACHE/protobuf.XXXXXX")
  trap 'rm -rf "$work"' EXIT
  fetch "$work" >&2 || die "the source of protobuf $version cannot be had from this machine's package sources"
  rm -rf "$folder"
  mv "$work/protobuf-$upstream" "$folder"
fi
printf '%s\n' "$folder"
