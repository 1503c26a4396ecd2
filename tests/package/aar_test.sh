#!/usr/bin/env bash
# scripts/make-aar.sh makes a repository that Gradle can read, out of what an NDK has built and nothing else;
# scripts/check-aar.sh refuses packages that an application could not use.
# usage: aar_test.sh JAR LINUX-LIBRARY ARM64-LIBRARY X86_64-LIBRARY. The last two, with their stripped copies, have
# Android's shape and not its note; the other has no place in a package.
set -euo pipefail
jar=$(realpath "$1") linuxLibrary=$(realpath "$2") arm64=$(realpath "$3") x86=$(realpath "$4")
scripts=$(cd "$(dirname "$0")/../../scripts" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
failed() { echo "FAILED: $*"; cat log; exit 1; }
make() { "$scripts/make-aar.sh" --jar "$jar" "$@" >log 2>&1; }

# Without a note only for tests; with the NDK's note the package tells what that says.
! make --library "$arm64" && grep -q 'no Android note' log || failed "a library without a note was taken"
make --library "$arm64" --library "$x86" --for-tests --output out || failed "no package for tests"
good=$(realpath out/tarnbooster-*-tests.aar) || failed "the name does not tell that it is for tests"
{ printf '\10\0\0\0\204\0\0\0\1\0\0\0Android\0\30\0\0\0' && printf 'r26b%060d12345%059d' 0 0 | tr 0 '\0'; } >note
noted() { # noted LIBRARY NOTE: its path with the note
  mkdir -p "noted/$2/stripped"
  llvm-objcopy --add-section ".note.android.ident=$2" "$1" "noted/$2/libtarnbooster.so" 2>/dev/null
  cp "$(dirname "$1")/stripped/libtarnbooster.so" "noted/$2/stripped"
  echo "noted/$2/libtarnbooster.so"
}
make --library "$(noted "$arm64" note)" --output ndk || failed "no package of a library with a note"
(mkdir abi && cd abi && jar --extract --file ../ndk/tarnbooster-*.aar)
grep -q '"api": 24, "ndk": 26,' abi/prefab/modules/tarnbooster/libs/android.arm64-v8a/abi.json || failed "another NDK"
sed 's/\x18/\x15/' note >older
! make --library "$(noted "$arm64" older)" && grep -q 'for API level 21' log || failed "another API level was taken"

# The repository: a POM of the same name beside everything that a consumer looks for, sums that are right.
version=$(basename "$good" .aar)
cd "out/maven/com/tarn/tarnbooster/${version#tarnbooster-}"
for suffix in .aar .pom -sources.jar -javadoc.jar; do
  for sum in md5 sha1 sha256 sha512; do
    echo "$(cat "$version$suffix.$sum")  $version$suffix" | "${sum}sum" --quiet --check || failed "$sum of $suffix"
  done
done
grep -q "<version>${version#tarnbooster-}</version>" "$version.pom" && cmp "$version.aar" "$good"
jar --list --file "$version-sources.jar" | grep -q '^com/tarn/performance/TarnBooster.java$' || failed "no sources"
cd "$work" && jar --extract --file "out/$version-symbols.zip" && readelf -SW x86_64/libtarnbooster.so | grep -q debug_line

# refused MESSAGE COMMAND: spoils the unpacked package with the command; the check must say the message.
refused() {
  rm -rf tree spoiled.aar
  mkdir tree
  (cd tree && jar --extract --file "$good" && eval "$2")
  jar --create --no-manifest --file spoiled.aar -C tree .
  ! "$scripts/check-aar.sh" spoiled.aar >log 2>&1 && grep -q -- "$1" log || failed "passed, or not refused for '$1': $2"
}

# What is put in place of a class: the same, as Java 17 would have it.
newerClass='mkdir new && cd new && jar -x -f ../classes.jar && printf "\075" |
  dd of=com/tarn/performance/TarnBoosterJNI.class bs=1 seek=7 conv=notrunc status=none &&
  jar -c -f ../classes.jar com META-INF && cd .. && rm -r new'
module=prefab/modules/tarnbooster

refused '< proguard.txt'      'rm proguard.txt'
refused '> extra'             'touch extra'
refused 'minimum API level'   'sed -i s/24/21/ AndroidManifest.xml'
refused 'not for Java 8'      "$newerClass"
refused 'another version'     'mkdir new && cd new && jar -x -f ../classes.jar && jar -c -f ../classes.jar com && cd .. && rm -r new'
refused 'does not keep'       'echo >proguard.txt'
refused 'checks failed'       "cp $linuxLibrary jni/arm64-v8a/libtarnbooster.so"
refused 'not for arm64'       'cp jni/x86_64/libtarnbooster.so jni/arm64-v8a/libtarnbooster.so'
refused 'Prefab has another'  "echo >>$module/libs/android.x86_64/libtarnbooster.so"
refused 'api is 21'           "sed -i s/24/21/ $module/libs/android.arm64-v8a/abi.json"
refused 'library_name'        "echo '{}' >$module/module.json"
