#!/usr/bin/env bash
# Runs JUnit classes in one virtual machine with checked JNI: run.sh OUTPUT-FOLDER LIBRARY-FOLDER CLASSPATH CLASS...
# From the environment: TARN_SERVICE, the service's program. To run a build for another processor: TARN_JAVA, the
# command that starts its java, and TARN_EMULATOR, the command in front of its programs; both may have several words.
# Fails when a test does, and when JNI is used wrongly.
set -euo pipefail

output=$1 library=$2 classpath=$3
shift 3
read -ra java <<<"${TARN_JAVA:-${TARN_DEFAULT_JAVA:-java}}"
mkdir -p "$output"

# The tests read the library's log lines from standard error, so it is a file that they can find. Names of files are
# cached as old virtual machines do it.
status=0
"${java[@]}" -Xcheck:jni -Dsun.io.useCanonCaches=true -Djava.library.path="$library" -Dtarn.stderr="$output/stderr" \
  -cp "$classpath" org.junit.runner.JUnitCore "$@" >"$output/stdout" 2>"$output/stderr" || status=$?

# The library leaves what onData leaves pending alone, and onData leaves nothing; that it does not look is expected.
# The warning comes with its stack, up to an empty line.
expected='WARNING in native method: JNI call made without checking exceptions when required to from CallStaticVoidMethod'
for stream in stdout stderr; do
  sed "/$expected/,/^\$/d" "$output/$stream" >"$output/$stream.rest"
done
if grep -aHE 'WARNING in native|FATAL ERROR in native|WARNING: JNI|Checked JNI' "$output"/*.rest; then
  printf 'JNI was used wrongly\n'
  status=1
fi
if [ "$status" -ne 0 ]; then
  cat "$output/stdout.rest"
  printf -- '---- the last lines of standard error\n'
  tail -n 60 "$output/stderr.rest"
fi
exit "$status"
