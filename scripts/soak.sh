#!/usr/bin/env bash
# Soaks the library in a Java virtual machine.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
  cat <<TXT
Usage: scripts/soak.sh MINUTES [--tsan]

Sixteen Java threads call all natives for MINUTES (1 or more), with traces starting and stopping and the debug and
enable switches switching, while the service is killed, stopped and continued, and while another takes its name that
reads nothing, garbles its replies, claims lengths, floods and hangs up. At the end every request must have returned,
every thread be alive, and memory (apart from the copies of arguments that the natives keep by design, which are
counted), descriptors and threads be where they were at a quiet moment after the first minute (or half of the time).

  --tsan    with the library under ThreadSanitizer; memory is not compared then

Builds go to build/ (or \$TARNBOOSTER_BUILD), and output to build/soak.
TXT
}

minutes=''
tree=release
for argument in "$@"; do
  case "$argument" in
    --tsan) tree=tsan ;;
    --help | -h) usage && exit 0 ;;
    *) [[ "$argument" =~ ^[1-9][0-9]*$ ]] || { usage >&2 && die "not a number of minutes: $argument"; }
      minutes=$argument ;;
  esac
done
[ -n "$minutes" ] || { usage >&2 && die "say for how many minutes"; }

cd "$ROOT"
installPackages "${buildPackages[@]}" "${testPackages[@]}"
useJava17
say "building"
output=$BUILD/soak/$tree
mkdir -p "$output"
rm -f "$output"/*
[ -f "$BUILD/release/build.ninja" ] ||
  cmake -G Ninja -S . -B "$BUILD/release" -DCMAKE_BUILD_TYPE=RelWithDebInfo >"$output/cmake"
[ -f "$BUILD/$tree/build.ninja" ] ||
  cmake -G Ninja -S . -B "$BUILD/$tree" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=-O1 -DTARNBOOSTER_BUILD_JAVA=OFF \
    -DTARNBOOSTER_SANITIZE=thread >"$output/cmake"
cmake --build "$BUILD/release" --target tarnbooster-service tarnbooster_soak_jar
cmake --build "$BUILD/$tree" --target tarnbooster

release=$BUILD/release
# A heap of one size, one compiler that is soon done, one arena that gives back: what grows is the library's.
java=(java -Xms64m -Xmx64m -XX:+AlwaysPreTouch -XX:+UseSerialGC -XX:TieredStopAtLevel=1
  -XX:-UseDynamicNumberOfCompilerThreads "-XX:ErrorFile=$output/hs_err"
  -cp "$release/tests/soak/tarnbooster-soak.jar:$release/java/tarnbooster.jar" "-Djava.library.path=$BUILD/$tree/jni")
environment=(MALLOC_ARENA_MAX=1 MALLOC_MMAP_THRESHOLD_=131072 MALLOC_TRIM_THRESHOLD_=131072)
memory=true
if [ "$tree" = tsan ]; then
  memory=false
  environment=("LD_PRELOAD=$(gcc -print-file-name=libtsan.so)"
    "TSAN_OPTIONS=handle_segv=0:report_thread_leaks=0:exitcode=66:log_path=$output/tsan:suppressions=$ROOT/tests/soak/tsan.txt")
fi
say "soaking for $minutes minutes, $tree"
status=0
# The library's own lines are not of interest; what else is said on standard error is.
env "${environment[@]}" "${java[@]}" com.tarn.performance.Soak $((minutes * 60)) \
  "$release/service/tarnbooster-service" "$memory" \
  2> >(grep --line-buffered -av TARNBOOSTER >"$output/stderr") || status=$?
head -c 20000 "$output"/stderr "$output"/tsan.* 2>/dev/null || true
[ "$status" -eq 0 ] || die "the soak failed with $status; see $output"
compgen -G "$output/tsan.*" >/dev/null && die "ThreadSanitizer found what stands above"
say "the soak passed"
