#!/usr/bin/env bash
# Checks that an Android package of this project is whole.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

if [ $# -ne 1 ] || [ "$1" = --help ]; then
  cat <<'HELP'
usage: scripts/check-aar.sh AAR

Checks an Android package: its files and no others, the manifest's minimum API level, classes for Java 8 with
the natives and onData, rules for the shrinker, an arm64 library fit to be loaded (scripts/check-library.sh),
the same one for native code, with the header and descriptions that Prefab reads. Exit status 0 when all is well.
HELP
  [ $# -eq 1 ]
  exit
fi

[ -f "$1" ] || die "there is no package $1"
package=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
useJava17
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
cd "$tree"
jar --extract --file "$package" || die "$package is no archive"

wanted='AndroidManifest.xml
R.txt
classes.jar
jni/arm64-v8a/libtarnbooster.so
prefab/modules/tarnbooster/include/tarnbooster/tarnbooster.h
prefab/modules/tarnbooster/libs/android.arm64-v8a/abi.json
prefab/modules/tarnbooster/libs/android.arm64-v8a/libtarnbooster.so
prefab/modules/tarnbooster/module.json
prefab/prefab.json
proguard.txt'
diff <(echo "$wanted") <(find . -type f -printf '%P\n' | LC_ALL=C sort) || die "these files are missing (<) or unwanted (>)"

grep -q 'android:minSdkVersion="24"' AndroidManifest.xml || die "the manifest has another minimum API level than 24"
grep -q 'package="com.tarn.performance"' AndroidManifest.xml || die "the manifest names another package"

# Class files begin with the magic, the minor and the major version, 16 bits each; 52 is Java 8.
mkdir classes && (cd classes && jar --extract --file ../classes.jar)
find classes -name '*.class' -print0 | while IFS= read -r -d '' class; do
  [ "$(od -An -j6 -N2 -tu1 "$class" | tr -d ' ')" = 052 ] || die "$class is not for Java 8"
done
natives=$(javap -p -cp classes com.tarn.performance.TarnBoosterJNI)
[ "$(grep -c ' native ' <<<"$natives")" -eq 23 ] || die "the class has not the 23 natives"
grep -q 'static void onData(int, long, int, int, int, byte\[\])' <<<"$natives" || die "the class has no onData"
grep -q 'native <methods>' proguard.txt && grep -q 'onData' proguard.txt || die "proguard.txt does not keep the natives and onData"

readelf -h jni/arm64-v8a/libtarnbooster.so | grep -q 'Machine: *AArch64' || die "the library is not for arm64"
"$ROOT/scripts/check-library.sh" --platform android jni/arm64-v8a/libtarnbooster.so
cmp jni/arm64-v8a/libtarnbooster.so prefab/modules/tarnbooster/libs/android.arm64-v8a/libtarnbooster.so ||
  die "Prefab has another library than the application"

# json FILE KEY VALUE: the file is an object whose KEY is VALUE.
cat >json.cmake <<'CMAKE'
file(READ "${file}" text)
string(JSON found GET "${text}" "${key}")
if(NOT found STREQUAL value)
  message(FATAL_ERROR "${file}: ${key} is ${found}, not ${value}")
endif()
CMAKE
json() { cmake -Dfile="$1" -Dkey="$2" -Dvalue="$3" -P json.cmake; }
abi=prefab/modules/tarnbooster/libs/android.arm64-v8a/abi.json
json prefab/prefab.json schema_version 2
json prefab/prefab.json name tarnbooster
json prefab/modules/tarnbooster/module.json library_name libtarnbooster
json $abi abi arm64-v8a
json $abi api 24
json $abi static OFF
printf '%s: whole, %d bytes\n' "$package" "$(stat -c %s "$package")"
