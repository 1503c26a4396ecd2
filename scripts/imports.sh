# Which functions of the C library the code may use: `. scripts/imports.sh`.
# shellcheck shell=bash

ALLOWED_IMPORTS=$(dirname "${BASH_SOURCE[0]}")/allowed-imports.txt

# forbiddenImports: reads symbol names, one a line, NAME or NAME@VERSION, and prints those of C functions and
# variables that are not on the list. C++ names, and the names of the compiler's runtime, are passed over: an
# Android build brings its own of both along.
forbiddenImports() {
  awk -v list="$ALLOWED_IMPORTS" '
    BEGIN {
      while ((getline line < list) > 0) {
        sub(/#.*/, "", line)
        if (split(line, field, " ") > 0) allowed[field[1]] = 1
      }
    }
    /^_Z/ || /@+(GLIBCXX|CXXABI|GCC)_/ || /^(__cxa_|__gxx_|_Unwind_|_ITM_|__gmon_start__|__gcc_|__dso_handle$)/ { next }
    { sub(/@.*/, "") }
    $0 != "" && !($0 in allowed) { print }' | sort -u
}
