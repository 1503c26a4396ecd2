#!/usr/bin/env bash
# The Java code that a document shows compiles as it stands: readme_test.sh DOCUMENT JAVAC JAR OUTPUT-FOLDER
set -euo pipefail
document=$1 javac=$2 jar=$3 output=$4
rm -rf "$output" && mkdir -p "$output"
{
  printf 'import com.tarn.performance.*;\nclass Shown {\n'
  printf 'static java.util.concurrent.Executor mainExecutor;\nstatic TarnBooster booster;\n'
  printf 'static void openTheGallery() {}\nstatic void log(String text) {}\n'
  awk '/^```java$/ { inside = 1; print "static void shown" ++count "() {"; next }
       /^```$/ && inside { inside = 0; print "}" }
       inside' "$document"
  printf '}\n'
} >"$output/Shown.java"
[ "$(grep -c 'void shown' "$output/Shown.java")" -ge 3 ] || { echo "$document shows less Java than it did"; exit 1; }
sed -n '/^cat >Try.java/,/^END/{/^cat\|^END/d;p}' "$document" >"$output/Try.java"
grep -q main "$output/Try.java" || { echo "$document shows no program to try"; exit 1; }
"$javac" --release 8 -Xlint:all,-options,-try -Werror -cp "$jar" -d "$output" "$output/Shown.java" "$output/Try.java"
