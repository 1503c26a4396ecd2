#!/usr/bin/env bash
# Checks that an Android package of this project is whole.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

if [ $# -ne 1 ] || [ "$1" = --help ]; then
  cat <<'HELP'
usage: scripts/check-aar.sh AAR

Checks an Android package: its files and no others, the manifest's minimum API level, classes of this
version for Java 8 with the natives and onData, rules for the shrinker, for each ABI a library fit to be loaded (scripts/check-library.sh),
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
useReadelf
abis=$(cd jni 2>/dev/null && ls) || die "there is no library in the package"

module=prefab/modules/tarnbooster
wanted() {
  printf '%s\n' AndroidManifest.xml META-INF/com/android/build/gradle/aar-metadata.properties R.txt classes.jar proguard.txt \
    prefab/prefab.json $module/module.json $module/include/tarnbooster/tarnbooster.h
  printf 'jni/%s/libtarnbooster.so\n' $abis
  printf "$module/libs/android.%s/abi.json\n" $abis
  printf "$module/libs/android.%s/libtarnbooster.so\n" $abis
}
diff <(wanted | LC_ALL=C sort) <(find . -type f | sed 's,^\./,,' | LC_ALL=C sort) ||
  die "these files are missing (<) or unwanted (>)"

grep -q 'android:minSdkVersion="24"' AndroidManifest.xml || die "the manifest has another minimum API level than 24"
grep -q 'package="com.tarn.performance"' AndroidManifest.xml || die "the manifest names another package"

# Class files begin with the magic, the minor and the major version, 16 bits each; 52 is Java 8.
mkdir classes && (cd classes && jar --extract --file ../classes.jar)
find classes -name '*.class' -print0 | while IFS= read -r -d '' class; do
  [ "$(od -An -j6 -N2 -tu1 "$class" | tr -d ' ')" = 052 ] || die "$class is not for Java 8"
done
grep -q "^Implementation-Version: $(projectVersion)" classes/META-INF/MANIFEST.MF || die "the classes are of another version"
natives=$(javap -p -cp classes com.tarn.performance.TarnBoosterJNI)
[ "$(grep -c ' native ' <<<"$natives")" -eq 23 ] || die "the class has not the 23 natives"
grep -q 'static void onData(int, long, int, int, int, byte\[\])' <<<"$natives" || die "the class has no onData"
grep -q 'native <methods>' proguard.txt && grep -q 'onData' proguard.txt || die "proguard.txt does not keep the natives and onData"

# json FILE KEY VALUE: the file is an object whose KEY is VALUE.
cat >json.cmake <<'CMAKE'
file(READ "${file}" text)
string(JSON found GET "${text}" "${key}")
if(NOT found STREQUAL value)
  message(FATAL_ERROR "${file}: ${key} is ${found}, not ${value}")
endif()
CMAKE
json() { cmake -Dfile="$1" -Dkey="$2" -Dvalue="$3" -P json.cmake; }
json prefab/prefab.json schema_version 2
json prefab/prefab.json name tarnbooster
json $module/module.json library_name libtarnbooster
for abi in $abis; do
  case $abi in
    arm64-v8a) machine=AArch64 ;;
    x86_64) machine=X86-64 ;;
    *) die "no libraries are made for $abi" ;;
  esac
  "$READELF" -h "jni/$abi/libtarnbooster.so" | grep -q "Machine: .*$machine" || die "the library is not for $abi"
  "$ROOT/scripts/check-library.sh" --platform android "jni/$abi/libtarnbooster.so"
  cmp "jni/$abi/libtarnbooster.so" "$module/libs/android.$abi/libtarnbooster.so" ||
    die "Prefab has another library than the application"
  json "$module/libs/android.$abi/abi.json" abi "$abi"
  json "$module/libs/android.$abi/abi.json" api 24
  json "$module/libs/android.$abi/abi.json" static OFF
done
printf '%s: whole, for %s, %d bytes\n' "$package" "$(echo $abis)" "$(wc -c <"$package")"
