#!/usr/bin/env bash
# Makes the folder of Debian's arm64 packages that cross builds use, and prints its path.
#
# The packages are extracted, not installed: the machine's own packages and its list of architectures stay
# as they are. A folder that is there with the same packages is used again.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

if [ "${1:-}" = --help ]; then
  cat <<'HELP'
usage: scripts/arm64-folder.sh

Makes the folder of arm64 packages for cross builds (about 370 MB, ten seconds) and prints its path on
standard output. TARNBOOSTER_ARM64_FOLDER says where; by default it is tarnbooster/arm64-bookworm in the
user's cache ($XDG_CACHE_HOME or ~/.cache).
HELP
  exit 0
fi

# The release of the folder goes with the cross compiler and with protoc, whose code must match the runtime.
release=bookworm
folder=${TARNBOOSTER_ARM64_FOLDER:-$CACHE/arm64-$release}
packages=(libc6-dev libgcc-12-dev libstdc++-12-dev libprotobuf-dev android-liblog-dev libgtest-dev libgmock-dev
  libcli11-dev libfmt-dev nlohmann-json3-dev openjdk-17-jre-headless junit4 android-libnativehelper-dev)

# The virtual machine's package has no jni.h, and the development package is large; the header and its Linux
# companion are the same on every architecture, so the building machine's are taken.
copyJniHeaders() {
  local header from
  for header in /usr/lib/jvm/java-17-openjdk-*/include/jni.h; do
    [ -f "$header" ] || die "no jni.h of OpenJDK 17 on this machine: install openjdk-17-jdk-headless"
    from=$(dirname "$header")
    cp -r "$from" "$1/usr/lib/jvm/java-17-openjdk-arm64/"
    return 0
  done
}

# Links to absolute paths would lead out of the folder, into the building machine's files.
relativiseLinks() {
  local root=$1 link target
  find "$root" -type l -lname '/*' -print0 | while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    ln -sfnr "$root$target" "$link"
  done
}

makeFolder() {
  local sources=/etc/apt/sources.list.d/debian.sources made
  [ -f "$sources" ] || sources=/etc/apt/sources.list
  [ -f "$sources" ] || die "no package sources found in /etc/apt"
  mkdir -p "$(dirname "$folder")"
  made=$(mktemp -d "$folder.XXXXXX")
  # shellcheck disable=SC2064  # the name is wanted as it is now
  trap "rm -rf '$made'" EXIT
  mmdebstrap --quiet --variant=extract --architectures=arm64 --aptopt='APT::Install-Recommends "false"' \
    --include="$(IFS=,; echo "${packages[*]}")" "$release" "$made" "$sources" >&2 ||
    die "mmdebstrap could not fetch the arm64 packages"
  relativiseLinks "$made"
  copyJniHeaders "$made"
  # The emulator looks every path up in the folder first: these must be the running machine's.
  rm -rf "${made:?}/tmp" "$made/dev" "$made/proc" "$made/sys" "$made/run" "$made/etc/resolv.conf"
  printf '%s\n' "${packages[@]}" >"$made/packages"
  chmod 755 "$made"
  rm -rf "$folder"
  mv "$made" "$folder"
}

installPackages mmdebstrap openjdk-17-jdk-headless >&2
if [ ! -f "$folder/packages" ] || [ "$(cat "$folder/packages")" != "$(printf '%s\n' "${packages[@]}")" ]; then
  say "making the arm64 folder $folder" >&2
  makeFolder
fi
printf '%s\n' "$folder"
