#!/usr/bin/env bash
# Assembles tarnbooster.aar, what an Android application takes in, from a built library and jar.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

usage() {
  cat <<'HELP'
usage: scripts/make-aar.sh --library LIB --jar JAR [--output AAR] [--ndk MAJOR]

Assembles an Android package without Gradle and checks it.

  --library LIB  libtarnbooster.so for arm64 Android: build/android-arm64/jni/libtarnbooster.so of the
                 android-arm64 preset
  --jar JAR      tarnbooster.jar: build/host-release/java/tarnbooster.jar of a build for this machine
  --output AAR   tarnbooster.aar here, by default
  --ndk MAJOR    the major version of the NDK that built the library, 26 by default; native code that links
                 the library through Prefab is told

Equal inputs give equal packages.
HELP
}

library='' jar='' output=tarnbooster.aar ndk=26
while [ $# -gt 0 ]; do
  case $1 in
    --help) usage; exit 0 ;;
    --library) library=${2:?}; shift 2 ;;
    --jar) jar=${2:?}; shift 2 ;;
    --output) output=${2:?}; shift 2 ;;
    --ndk) ndk=${2:?}; shift 2 ;;
    *) usage >&2; exit 2 ;;
  esac
done
[ -n "$library" ] && [ -n "$jar" ] || { usage >&2; exit 2; }
[ -f "$library" ] || die "there is no library $library"
[ -f "$jar" ] || die "there is no jar $jar"
useJava17

version=$(sed -n 's/^project(tarnbooster VERSION \([0-9.]*\).*/\1/p' "$ROOT/CMakeLists.txt")
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT

install -D -m 644 "$ROOT/android/AndroidManifest.xml" "$tree/AndroidManifest.xml"
install -D -m 644 "$jar" "$tree/classes.jar"
# The jar carries its rules for tools that take them from there; the package has them in its own place too.
install -D -m 644 "$ROOT/java/META-INF/proguard/tarnbooster.pro" "$tree/proguard.txt"
: >"$tree/R.txt"  # no resources; the format wants the file
install -D -m 644 "$library" "$tree/jni/arm64-v8a/libtarnbooster.so"

# Prefab: the library once more, for native code of the application that links it.
module=$tree/prefab/modules/tarnbooster
install -D -m 644 "$library" "$module/libs/android.arm64-v8a/libtarnbooster.so"
install -D -m 644 "$ROOT/android/include/tarnbooster/tarnbooster.h" "$module/include/tarnbooster/tarnbooster.h"
cat >"$tree/prefab/prefab.json" <<JSON
{"schema_version": 2, "name": "tarnbooster", "version": "$version", "dependencies": []}
JSON
cat >"$module/module.json" <<'JSON'
{"export_libraries": [], "library_name": "libtarnbooster", "android": {}}
JSON
# No C++ runtime shows through the interface, so the application's own may be any ("none").
cat >"$module/libs/android.arm64-v8a/abi.json" <<JSON
{"abi": "arm64-v8a", "api": 24, "ndk": $ndk, "stl": "none", "static": false}
JSON

mkdir -p "$(dirname "$output")"
package=$(cd "$(dirname "$output")" && pwd)/$(basename "$output")
rm -f "$package"
(cd "$tree" && find . -type f -printf '%P\n' | LC_ALL=C sort |
  xargs jar --create --no-manifest --date=2024-01-01T00:00:00Z --file "$package")
"$ROOT/scripts/check-aar.sh" "$package" || { rm -f "$package" && die "no package was made"; }
