#!/usr/bin/env bash
# An application that was shrunk with the package's rules still works with the library, and not without them.
# usage: shrinker_test.sh APPLICATION-JAR TARNBOOSTER-JAR RULES LIBRARY-FOLDER WORK-FOLDER
set -euo pipefail
application=$1 library=$2 rules=$3 folder=$4 work=$5
mkdir -p "$work" && cd "$work"
read -ra java <<<"${TARN_JAVA:-${TARN_DEFAULT_JAVA:-java}}"

# run NAME RULE...: shrinks the application, then runs it. The shrinker cannot read this JDK, and is told not to mind.
run() {
  proguard -injars "$application:$library" -outjars "$1.jar" -dontwarn '**' -dontnote -forceprocessing \
    -keep 'class com.tarn.example.Application { public static void main(java.lang.String[]); }' \
    "${@:2}" >"$1.log" 2>&1 || { cat "$1.log"; exit 1; }
  "${java[@]}" -Djava.library.path="$folder" -cp "$1.jar" com.tarn.example.Application >"$1.out" 2>"$1.err"
}

run kept -include "$rules" || { cat kept.out kept.err; echo "the shrunk application fails"; exit 1; }
diff <(printf 'request -3\nonData -20001\n') <(sort -r kept.out)

! run bare || { echo "the application works without the rules too, so this test shows nothing"; exit 1; }
grep -qE 'UnsatisfiedLinkError|NoClassDefFoundError|NoSuchMethodError' bare.err || { cat bare.out bare.err; exit 1; }
