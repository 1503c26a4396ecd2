#!/usr/bin/env bash
# Installs what is missing, builds without warnings and runs all tests.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
  cat <<TXT
Usage: scripts/test.sh [--quick] [--help]

Installs what the build and the tests need (Debian packages), then runs, in this order:
  format      clang-format over the project's sources, and cppcheck
  release     GCC, warnings as errors; every test, those in a real Java virtual machine and the
              checks of the library file included; the instructions of its jobs against the committed figures
  asan        AddressSanitizer and UndefinedBehaviorSanitizer; the C++ tests
  tsan        ThreadSanitizer; the C++ tests
  soak        the library in a virtual machine for a minute, and for another under ThreadSanitizer
  clang       clang, warnings as errors, with the platform's libnativehelper; the C++ tests
  tidy        clang-tidy
  fuzz        every fuzzer, for 20000 inputs

  --quick     only format and release

Builds go to build/ (or \$TARNBOOSTER_BUILD). A first run takes about half an hour on two cores.
TXT
}

quick=false
for argument in "$@"; do
  case "$argument" in
    --quick) quick=true ;;
    --help | -h) usage && exit 0 ;;
    *) usage >&2 && die "unknown argument: $argument" ;;
  esac
done

cd "$ROOT"
installPackages "${buildPackages[@]}" "${testPackages[@]}"
useJava17

# buildTree NAME CMAKE-OPTION...: configures and builds $BUILD/NAME with warnings as errors.
buildTree() {
  local name=$1
  shift
  say "building $name"
  cmake -G Ninja -S "$ROOT" -B "$BUILD/$name" -DTARNBOOSTER_WERROR=ON "$@" >"$BUILD/$name.log" 2>&1 ||
    { cat "$BUILD/$name.log" && die "cmake could not configure $name"; }
  cmake --build "$BUILD/$name"
}

# runTests NAME CTEST-OPTION...
runTests() {
  local name=$1
  shift
  say "testing $name"
  ctest --test-dir "$BUILD/$name" --output-on-failure --no-tests=error -j 2 "$@"
}

say "checking the format"
mkdir -p "$BUILD"
folders=(jni java shared service tools tests bench android)
find "${folders[@]}" -name '*.h' -o -name '*.c' -o -name '*.cpp' -o -name '*.java' -o -name '*.proto' |
  xargs clang-format --dry-run -Werror || die "run clang-format -i over the files named above"

say "cppcheck"
cppcheck --enable=warning,performance,portability --std=c++17 --language=c++ -j2 --quiet --error-exitcode=1 \
  --suppressions-list=scripts/cppcheck-suppressions.txt -I jni -I . jni shared service tools

buildTree release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNBOOSTER_BUILD_BENCHMARKS=ON
runTests release
scripts/check-library.sh "$BUILD/release/jni/libtarnbooster.so"
scripts/check-instructions.sh "$BUILD/release"
$quick && exit 0

# The sanitizers' builds are of the C++ side alone; a virtual machine brings too many findings of its own.
sanitized=(-DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=-O1 -DTARNBOOSTER_BUILD_JAVA=OFF)
buildTree asan "${sanitized[@]}" -DTARNBOOSTER_SANITIZE=address,undefined
runTests asan
buildTree tsan "${sanitized[@]}" -DTARNBOOSTER_SANITIZE=thread
TSAN_OPTIONS=atexit_sleep_ms=0 runTests tsan  # many programs end, and each would wait a second for its threads
scripts/soak.sh 1
scripts/soak.sh 1 --tsan

buildTree clang -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DTARNBOOSTER_PLATFORM_NATIVEHELPER=ON \
  -DTARNBOOSTER_BUILD_JAVA=OFF
runTests clang

say "clang-tidy"
# tidy FOLDERS OPTION...
tidy() {
  local folders=$1
  shift
  # shellcheck disable=SC2086
  find $folders -name '*.cpp' | xargs -P 2 -n 4 clang-tidy -p "$BUILD/clang" --quiet "$@" 2>/dev/null ||
    die "clang-tidy found what stands above"
}
tidy "jni shared"
# The analyzer looks at fewer paths of the programs than of the library: at all of them takes as long as a tree's build.
tidy "service tools" --extra-arg=-Xclang --extra-arg=-analyzer-config --extra-arg=-Xclang --extra-arg=max-nodes=40000

scripts/fuzz.sh --runs 20000

say "all tests passed"
