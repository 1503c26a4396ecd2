#!/usr/bin/env bash
# scripts/check-aar.sh refuses packages that an application could not use.
# usage: aar_test.sh AAR LIBRARY: a good package, and a library for arm64 Linux, which has no place in one.
set -euo pipefail
good=$(realpath "$1") linuxLibrary=$(realpath "$2")
check=$(cd "$(dirname "$0")/../../scripts" && pwd)/check-aar.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# refused MESSAGE COMMAND: spoils the unpacked package with the command; the check must say the message.
refused() {
  rm -rf tree spoiled.aar
  mkdir tree
  (cd tree && jar --extract --file "$good" && eval "$2")
  jar --create --no-manifest --file spoiled.aar -C tree .
  if ! "$check" spoiled.aar >check.log 2>&1 && grep -q -- "$1" check.log; then return 0; fi
  echo "FAILED: passed, or not refused for '$1': $2"
  cat check.log
  exit 1
}

# What is put in place of a class: the same, as Java 17 would have it.
newerClass='jar -x -f classes.jar && printf "\075" |
  dd of=com/tarn/performance/TarnBoosterJNI.class bs=1 seek=7 conv=notrunc status=none &&
  jar -c -f classes.jar com META-INF && rm -r com META-INF'
module=prefab/modules/tarnbooster

refused '< proguard.txt'      'rm proguard.txt'
refused '> extra'             'touch extra'
refused 'minimum API level'   'sed -i s/24/21/ AndroidManifest.xml'
refused 'not for Java 8'      "$newerClass"
refused 'does not keep'       'echo >proguard.txt'
refused 'checks failed'       "cp $linuxLibrary jni/arm64-v8a/libtarnbooster.so"
refused 'not for arm64'       'cp /bin/true jni/arm64-v8a/libtarnbooster.so'
refused 'Prefab has another' "echo >>$module/libs/android.arm64-v8a/libtarnbooster.so"
refused 'api is 21'           "sed -i s/24/21/ $module/libs/android.arm64-v8a/abi.json"
refused 'library_name'        "echo '{}' >$module/module.json"
