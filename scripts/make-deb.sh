#!/usr/bin/env bash
# Makes Debian packages of this machine's architecture, and tries them in a root of their own.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
  cat <<'HELP'
usage: scripts/make-deb.sh [--build FOLDER] [--check] [--help]

Builds for the prefix /usr and packs libtarnbooster, libtarnbooster-java, libtarnbooster-dev, tarnbooster-service and
tarnbooster as Debian packages into build/deb/packages.

  --build FOLDER  take this configured build, whose prefix becomes /usr, and make FOLDER/packages
  --check         then install them into a fresh Debian system in a temporary folder, run both programs there, remove
                  the packages, and see that nothing is left (about a minute; as root, or where a user may make
                  namespaces)
HELP
}

build=$BUILD/deb check=no
while [ $# -gt 0 ]; do
  case $1 in
    --help | -h) usage; exit 0 ;;
    --build)
      [ -f "${2:-}/CMakeCache.txt" ] || die "--build takes a configured build, and ${2:-nothing} is none"
      build=$2
      shift 2
      ;;
    --check) check=yes; shift ;;
    *) die "unknown argument: $1; see --help" ;;
  esac
done

installPackages "${buildPackages[@]}" dpkg-dev
useJava17
say "building Debian packages"
mkdir -p "$build"
build=$(cd "$build" && pwd)
options=()
[ -f "$build/CMakeCache.txt" ] || options=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNBOOSTER_BUILD_TESTS=OFF)
cmake -S "$ROOT" -B "$build" -DCMAKE_INSTALL_PREFIX=/usr "${options[@]}" >"$build/configure.log" 2>&1 ||
  { cat "$build/configure.log"; die "no configuration"; }
cmake --build "$build"
rm -rf "$build/packages"
(cd "$build" && cpack -G DEB -B packages >package.log 2>&1) || { cat "$build/package.log"; die "cpack failed"; }
rm -rf "$build/packages/_CPack_Packages"
ls -l "$build"/packages/*.deb
[ "$check" = yes ] || exit 0

# Runs inside the root: everything about the installed packages that a user would notice.
inside() {
  cat <<'SH'
set -eu
before=$(find / -xdev -path /tmp -prune -o -path /var -prune -o -print | sort)
apt-get -qq install -y --no-install-recommends /tmp/packages/*.deb >/dev/null 2>&1
dpkg --audit
tarnbooster-service --name deb >/tmp/log 2>&1 &
service=$!
trap 'kill $service' EXIT
for i in 1 2 3 4 5 6 7 8 9 10; do ! grep -q @deb /tmp/log || break; sleep 0.5; done
tarnbooster --socket deb check-permission
trap - EXIT
kill $service
wait $service
# A clean end leaves no record; what a killed service has left goes with the purge.
test -z "$(ls -A /run/tarnbooster)"
touch /run/tarnbooster/killed.record
for file in /usr/share/java/tarnbooster.jar /usr/lib/*/libtarnbooster.so /usr/lib/*/cmake/tarnbooster/tarnboosterConfig.cmake \
  /usr/lib/systemd/system/tarnbooster.socket /usr/share/bash-completion/completions/tarnbooster; do
  test -s "$file"
done
if ldd /usr/lib/*/libtarnbooster.so | grep 'not found'; then exit 1; fi
apt-get -qq purge -y tarnbooster tarnbooster-service libtarnbooster libtarnbooster-java libtarnbooster-dev >/dev/null 2>&1
apt-get -qq autoremove --purge -y >/dev/null 2>&1
find / -xdev -path /tmp -prune -o -path /var -prune -o -print | sort >/tmp/after
left=$(printf '%s\n' "$before" | comm -13 - /tmp/after)
[ -z "$left" ] || { echo "left behind: $left"; exit 1; }
SH
}

installPackages mmdebstrap
say "installing, running and removing them in a root of their own"
sources=/etc/apt/sources.list.d/debian.sources
[ -f "$sources" ] || sources=/etc/apt/sources.list
inside >"$build/inside.sh"
# The root exists for the hooks alone; what becomes of it is thrown away.
mmdebstrap --quiet --variant=apt \
  --customize-hook="mkdir -p \"\$1/tmp/packages\" && cp $(printf '%q' "$build")/packages/*.deb \"\$1/tmp/packages\"" \
  --customize-hook="cp $(printf '%q' "$build/inside.sh") \"\$1/tmp/inside.sh\" && chroot \"\$1\" sh /tmp/inside.sh" \
  bookworm /dev/null "$sources" || die "the packages do not install, run or go away as they should"
say "the Debian packages are well"
