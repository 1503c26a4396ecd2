# Shared by the scripts of this folder: `. scripts/lib.sh` from any of them.
# shellcheck shell=bash

set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# Everything that is built or downloaded goes here, outside the sources' folders.
BUILD=${TARNBOOSTER_BUILD:-$ROOT/build}
# What is fetched once and serves every checkout.
CACHE=${XDG_CACHE_HOME:-$HOME/.cache}/tarnbooster

say() { printf '\n== %s\n' "$*"; }
die() {
  printf 'error: %s\n' "$*" >&2
  exit 1
}

# installPackages PACKAGE...: installs what is missing of Debian's packages, and says so.
installPackages() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  command -v apt-get >/dev/null || die "these packages are needed and there is no apt-get to install them: ${missing[*]}"
  local sudo=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || die "run this once as root, or install by hand: ${missing[*]}"
    sudo=(sudo)
  fi
  say "installing ${#missing[@]} packages: ${missing[*]}"
  "${sudo[@]}" apt-get -qq update || die "apt-get update failed: check the machine's package sources"
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq install -y --no-install-recommends "${missing[@]}" >/dev/null ||
    die "apt-get could not install: ${missing[*]}"
}

# What every build of the project needs.
buildPackages=(g++ lld cmake ninja-build protobuf-compiler libprotobuf-dev android-liblog-dev
  openjdk-17-jdk-headless libjetbrains-annotations-java libcli11-dev libfmt-dev nlohmann-json3-dev)
# What the tests need beside that.
testPackages=(clang llvm clang-format clang-tidy cppcheck libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev libenet-dev
  zlib1g-dev junit4 valgrind proguard-cli android-libnativehelper-dev mscgen tshark libxml2-utils groff-base man-db pkg-config systemd)

# useJava17: points JAVA_HOME and PATH at Debian's OpenJDK 17, whatever other Java the machine has; without it at any
# JDK from 17 on that JAVA_HOME or PATH leads to.
useJava17() {
  local home
  for home in /usr/lib/jvm/java-17-openjdk-* "${JAVA_HOME:-}"; do
    if [ -x "$home/bin/javac" ]; then
      export JAVA_HOME=$home PATH=$home/bin:$PATH
      break
    fi
  done
  javac -version 2>/dev/null | grep -qE '^javac (1[7-9]|[2-9][0-9])' ||
    die "no JDK from 17 on: install openjdk-17-jdk-headless, or set JAVA_HOME"
}

# useReadelf: sets READELF, unless it is set, to the machine's readelf or to the NDK's.
useReadelf() {
  local readelf
  for readelf in ${READELF:+"$READELF"} readelf llvm-readelf "${ANDROID_NDK_HOME:-}"/toolchains/llvm/prebuilt/*/bin/llvm-readelf; do
    if command -v "$readelf" >/dev/null; then
      export READELF=$readelf
      return 0
    fi
  done
  die "readelf is needed: install binutils, or set ANDROID_NDK_HOME"
}

# projectVersion: the one version of library, jar and packages.
projectVersion() { sed -n 's/^project(tarnbooster VERSION \([0-9.]*\).*/\1/p' "$ROOT/CMakeLists.txt"; }
