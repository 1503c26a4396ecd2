#!/usr/bin/env bash
# Makes the pictures (SVG) from their descriptions (*.msc). --check: says whether they are up to date, instead.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
command -v mscgen >/dev/null || { echo "mscgen is needed (Debian package mscgen)" >&2 && exit 1; }
made=$(mktemp -d)
trap 'rm -rf "$made"' EXIT
for source in *.msc; do
  mscgen -T svg -i "$source" -o "$made/${source%.msc}.svg"
done
if [ "${1:-}" = --check ]; then
  for picture in "$made"/*.svg; do
    cmp "$picture" "$(basename "$picture")" || { echo "run docs/pictures/make.sh" >&2 && exit 1; }
  done
else
  mv "$made"/*.svg .
fi
