#!/usr/bin/env bash
# Makes what an Android application takes in: a Maven repository folder, the bare package, the symbols.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

usage() {
  cat <<'HELP'
usage: scripts/make-aar.sh --library LIB [--library LIB]... --jar JAR [--output FOLDER] [--for-tests]

Assembles Android packages without Gradle, checks them, and puts into FOLDER:

  maven/                           a repository: com.tarn:tarnbooster:VERSION with POM, sources, Javadoc, checksums
  tarnbooster-VERSION.aar          the same package, bare
  tarnbooster-VERSION-symbols.zip  the libraries with symbols, one folder for each ABI, for reading crash reports

  --library LIB    a library with symbols, as the NDK's build leaves it: build/android-arm64/jni/libtarnbooster.so; the
                   copy without symbols is taken from the folder stripped beside it. Once for each ABI
  --jar JAR        tarnbooster.jar, as the preset jar builds it: build/jar/java/tarnbooster.jar; its sources and Javadoc
                   lie beside it
  --output FOLDER  build/package by default
  --for-tests      accept libraries that no NDK has built; the version then ends in -tests

ABI, API level and NDK are what each library's own notes tell. Equal inputs give equal packages. Needs bash, a JDK from
17 on, CMake, and readelf of binutils or of the NDK (ANDROID_NDK_HOME).
HELP
}

libraries=() jar='' output=$BUILD/package forTests=no
while [ $# -gt 0 ]; do
  case $1 in
    --help) usage; exit 0 ;;
    --library) libraries+=("${2:?--library needs a file}"); shift 2 ;;
    --jar) jar=${2:?--jar needs a file}; shift 2 ;;
    --output) output=${2:?--output needs a folder}; shift 2 ;;
    --for-tests) forTests=yes; shift ;;
    *) die "unknown argument: $1; see --help" ;;
  esac
done
[ ${#libraries[@]} -gt 0 ] && [ -n "$jar" ] || { usage >&2; exit 2; }
for file in "${libraries[@]}" "$jar" "${jar%.jar}-sources.jar" "${jar%.jar}-javadoc.jar"; do
  [ -f "$file" ] || die "there is no $file"
done
useJava17
useReadelf

version=$(projectVersion)
[ "$forTests" = no ] || version=$version-tests
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT

# put FROM TO: copies a file, making the folders.
put() {
  mkdir -p "$(dirname "$2")"
  cp "$1" "$2"
  chmod 644 "$2"
}

# pack ARCHIVE FOLDER: everything in the folder, always in the same order and with the same time.
pack() {
  (cd "$2" && find . -type f | sed 's,^\./,,' | LC_ALL=C sort |
    xargs jar --create --no-manifest --date=2024-01-01T00:00:00Z --file "$1")
}

# abiOf LIBRARY: Android's name of its processor.
abiOf() {
  case $("$READELF" -h "$1" | sed -n 's/^ *Machine: *//p') in
    AArch64) echo arm64-v8a ;;
    *X86-64*) echo x86_64 ;;
    *) die "$1 is for a processor that has no place in the package: arm64-v8a and x86_64 have" ;;
  esac
}

# androidNote LIBRARY: its API level and the NDK's major version, of the note that the NDK puts into every library:
# sizes of name and content, a type, "Android", the level as a number of 32 bits, the NDK's release as text.
androidNote() {
  local place level release
  # Offset and size, in hexadecimal, follow the section's name, type and address.
  place=$("$READELF" -SW "$1" | sed -n 's/.*\.note\.android\.ident *[A-Z]* *[0-9a-f]* *\([0-9a-f]*\) *\([0-9a-f]*\).*/0x\1/p')
  [ -n "$place" ] || return 0
  level=$(od -An -j$((place + 20)) -N4 -tu4 "$1" | tr -d ' ')
  release=$(dd if="$1" bs=1 skip=$((place + 24)) count=64 2>/dev/null | tr -d '\0' | sed 's/^r*\([0-9]*\).*/\1/')
  printf '%s %s\n' "$level" "${release:-0}"
}

aar=$tree/aar
put "$ROOT/android/AndroidManifest.xml" "$aar/AndroidManifest.xml"
put "$jar" "$aar/classes.jar"
# The jar carries its rules for tools that take them from there; the package has them in its own place too.
put "$ROOT/java/META-INF/proguard/tarnbooster.pro" "$aar/proguard.txt"
: >"$aar/R.txt"  # no resources; the format wants the file
put "$ROOT/android/aar-metadata.properties" "$aar/META-INF/com/android/build/gradle/aar-metadata.properties"

# Prefab: the library once more, for native code of the application that links it.
module=$aar/prefab/modules/tarnbooster
put "$ROOT/android/include/tarnbooster/tarnbooster.h" "$module/include/tarnbooster/tarnbooster.h"
cat >"$aar/prefab/prefab.json" <<JSON
{"schema_version": 2, "name": "tarnbooster", "version": "$(projectVersion)", "dependencies": []}
JSON
cat >"$module/module.json" <<'JSON'
{"export_libraries": [], "library_name": "libtarnbooster", "android": {}}
JSON

minimum=$(sed -n 's/.*minSdkVersion="\([0-9]*\)".*/\1/p' "$ROOT/android/AndroidManifest.xml")
for library in "${libraries[@]}"; do
  abi=$(abiOf "$library")
  stripped=$(dirname "$library")/stripped/libtarnbooster.so
  [ -f "$stripped" ] || die "there is no $stripped: build the target tarnbooster"
  [ ! -e "$aar/jni/$abi" ] || die "two libraries for $abi: $library is the second"
  "$ROOT/scripts/check-library.sh" --platform android --symbols "$library" >"$tree/log" || { cat "$tree/log"; exit 1; }
  read -r level ndk < <(androidNote "$library") || {
    [ "$forTests" = yes ] || die "$library has no Android note: no NDK has built it (--for-tests accepts it all the same)"
    level=$minimum ndk=0
  }
  [ "$level" -eq "$minimum" ] || die "$library is for API level $level, the package for $minimum"
  put "$stripped" "$aar/jni/$abi/libtarnbooster.so"
  put "$stripped" "$module/libs/android.$abi/libtarnbooster.so"
  put "$library" "$tree/symbols/$abi/libtarnbooster.so"
  # No C++ runtime shows through the interface, so the application's own may be any ("none").
  cat >"$module/libs/android.$abi/abi.json" <<JSON
{"abi": "$abi", "api": $level, "ndk": $ndk, "stl": "none", "static": false}
JSON
done

name=tarnbooster-$version
pack "$tree/$name.aar" "$aar"
"$ROOT/scripts/check-aar.sh" "$tree/$name.aar" || die "no package was made"
pack "$tree/$name-symbols.zip" "$tree/symbols"

place=$tree/maven/com/tarn/tarnbooster/$version
put "$tree/$name.aar" "$place/$name.aar"
put "${jar%.jar}-sources.jar" "$place/$name-sources.jar"
put "${jar%.jar}-javadoc.jar" "$place/$name-javadoc.jar"
sed "s/@VERSION@/$version/" "$ROOT/android/tarnbooster.pom" >"$place/$name.pom"
(cd "$place" && for file in tarnbooster-*; do
  for sum in md5 sha1 sha256 sha512; do
    cmake -E ${sum}sum "$file" | sed 's/ .*//' >"$file.$sum"
  done
done)

mkdir -p "$output/maven"
cp -R "$tree/maven/." "$output/maven/"  # beside other versions
put "$ROOT/NOTICE" "$output/NOTICE"
[ ! -f "$ROOT/LICENSE" ] || put "$ROOT/LICENSE" "$output/LICENSE"
put "$tree/$name.aar" "$output/$name.aar"
put "$tree/$name-symbols.zip" "$output/$name-symbols.zip"
say "com.tarn:tarnbooster:$version is in $output/maven; beside it the bare package and the symbols"
