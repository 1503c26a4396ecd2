#!/usr/bin/env bash
# Builds everything for 64-bit Arm and runs it under emulation; then builds the library in Android's shape.
set -euo pipefail
. "$(dirname "$0")/lib.sh"

usage() {
  cat <<'HELP'
usage: scripts/test-arm64.sh [--asan] [--no-demo]

On a Debian machine of another processor: installs a cross compiler and qemu, makes a folder of arm64 packages,
builds the project for 64-bit Arm Linux with the protobuf runtime compiled in, as Android needs it, and runs the
unit tests, the tests in an arm64 OpenJDK and the demo under qemu. Then checks the library's file, builds it once
more as an Android compiler and linker see it, for emulators on a PC too, checks that, and assembles an Android package.

  --asan     also the library's unit tests under AddressSanitizer and UndefinedBehaviorSanitizer
  --no-demo  without the demo
HELP
}
asan=no demo=yes
for argument in "$@"; do
  case $argument in
    --asan) asan=yes ;;
    --no-demo) demo=no ;;
    --help) usage; exit 0 ;;
    *) die "unknown argument: $1; see --help" ;;
  esac
done

began=$SECONDS
step() { say "[$((SECONDS - began)) s] $*"; }

installPackages "${buildPackages[@]}" "${testPackages[@]}" g++-aarch64-linux-gnu qemu-user-static mmdebstrap
useJava17
folder=$("$ROOT/scripts/arm64-folder.sh")
protobuf=$("$ROOT/scripts/protobuf-source.sh")
export TARNBOOSTER_ARM64_FOLDER=$folder

# For the tests and the demo: how programs of the other processor are started, by them too. The virtual machine
# starts processes through a helper program, which the kernel here could not run; VFORK does without it.
export TARN_EMULATED=1
export TARN_EMULATOR="qemu-aarch64-static -L $folder"
export TARN_JAVA="$TARN_EMULATOR $folder/usr/lib/jvm/java-17-openjdk-arm64/bin/java -Djdk.lang.Process.launchMechanism=VFORK"

# build NAME SOURCE OPTION...: configures SOURCE as $BUILD/NAME and builds it.
build() {
  cmake -G Ninja -S "$2" -B "$BUILD/$1" -DTARNBOOSTER_WERROR=ON -DTARNBOOSTER_STATIC_PROTOBUF=ON \
    "-DTARNBOOSTER_PROTOBUF_SOURCE=$protobuf" "${@:3}" >"$BUILD/$1.configure.log" 2>&1 ||
    { cat "$BUILD/$1.configure.log"; die "$1 could not be configured"; }
  cmake --build "$BUILD/$1" -j"$(nproc)" >"$BUILD/$1.build.log" 2>&1 ||
    { tail -n 60 "$BUILD/$1.build.log"; die "$1 could not be built"; }
}
arm64=(--preset arm64-linux)
mkdir -p "$BUILD"
cd "$ROOT"

step "building for 64-bit Arm"
build arm64 "$ROOT" "${arm64[@]}"
step "tests under qemu"
ctest --test-dir "$BUILD/arm64" --output-on-failure --no-tests=error -j"$(nproc)"
"$ROOT/scripts/check-library.sh" "$BUILD/arm64/jni/stripped/libtarnbooster.so"

if [ "$demo" = yes ]; then
  step "the demo in an arm64 virtual machine"
  "$ROOT/scripts/demo.sh" --build "$BUILD/arm64" --java "$TARN_JAVA" --emulator "$TARN_EMULATOR"
fi

if [ "$asan" = yes ]; then
  step "unit tests with sanitizers under qemu"
  # The leak checker needs a tracer, which the emulator has not.
  export ASAN_OPTIONS=detect_leaks=0
  build arm64-asan "$ROOT" "${arm64[@]}" -DTARNBOOSTER_SANITIZE=address,undefined -DTARNBOOSTER_STATIC_PROTOBUF=OFF \
    -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=-O1 -DTARNBOOSTER_BUILD_JAVA=OFF -DTARNBOOSTER_BUILD_SERVICE=OFF \
    -DTARNBOOSTER_BUILD_TOOLS=OFF
  ctest --test-dir "$BUILD/arm64-asan" --output-on-failure --no-tests=error -j"$(nproc)"
fi

libraries=()
for abi in arm64-v8a x86_64; do
  step "the library in Android's shape for $abi, as part of an application"
  build "shape-$abi" "$ROOT/cmake/application" --toolchain "$ROOT/cmake/android-shape.cmake" \
    "-DTARNBOOSTER_SHAPE_ABI=$abi" -DCMAKE_BUILD_TYPE=RelWithDebInfo
  library=$BUILD/shape-$abi/tarnbooster/jni/libtarnbooster.so
  "$ROOT/scripts/check-library.sh" --imports "${library%/*}/stripped/libtarnbooster.so"
  libraries+=("$library")
done

step "the Android package around them"
cmake --preset jar -B "$BUILD/jar" >"$BUILD/jar.log" && cmake --build "$BUILD/jar" --target tarnbooster_jar_published >>"$BUILD/jar.log" ||
  { cat "$BUILD/jar.log"; die "the jars could not be built"; }
"$ROOT/tests/package/aar_test.sh" "$BUILD/jar/java/tarnbooster.jar" "$BUILD/arm64/jni/stripped/libtarnbooster.so" "${libraries[@]}"

step "64-bit Arm is well"
