#!/usr/bin/env bash
# Checks that a built libtarnbooster.so is fit to be loaded into other people's processes.
set -euo pipefail
export LC_ALL=C  # the words of readelf are compared
allowedImports=$(dirname "$0")/allowed-imports.txt

usage() {
  cat <<'HELP'
usage: scripts/check-library.sh [--platform linux|android] [--imports] [--max-size BYTES] LIB

Checks a built library, for x86-64 or arm64, Linux or Android, and prints one line for each property:

  exports      exactly the nine names of the interface, functions and variables
  needed       only libraries that the platform has
  pages        LOAD segments fit 16 KiB pages and share none
  relro        starts with a writable segment and ends at a 16 KiB boundary
  binding      everything is resolved at load (full RELRO)
  stack        not executable, nor any other segment both writable and executable
  text         no relocations in code
  lifetime     never unloaded: the library's threads run for the life of the process
  imports      no C library function that Android at API level 24 lacks (a build with the NDK is not asked: its
               linker has checked that against the NDK's own lists)
  path, tls    Android: no search path, no thread-local segment (before API 29 the loader refuses it)
  stripped     Android: no symbol table, no debug sections
  size         loaded bytes of the file: at most 512 KiB, or 1 MiB for Android, where the C++ runtime is inside

--platform overrides what the library's own C library tells; --imports checks the imports of an Android
library too, for one that was linked without the NDK. Exit status: 0 all is well, 1 a check failed,
2 the library could not be read.
HELP
}

platform='' maxSize='' library='' imports=no
while [ $# -gt 0 ]; do
  case $1 in
    --help) usage; exit 0 ;;
    --platform) platform=${2:?}; shift 2 ;;
    --imports) imports=yes; shift ;;
    --max-size) maxSize=${2:?}; shift 2 ;;
    -*) usage >&2; exit 2 ;;
    *) library=$1; shift ;;
  esac
done
[ -n "$library" ] || { usage >&2; exit 2; }
command -v readelf >/dev/null || { echo "error: readelf is needed (package binutils)" >&2; exit 2; }
segments=$(readelf -lW "$library") && dynamic=$(readelf -dW "$library") &&
  symbols=$(readelf --dyn-syms -W "$library") && sections=$(readelf -SW "$library") ||
  { echo "error: cannot read $library" >&2; exit 2; }
# The tool itself is content with any file.
grep -q 'Type is DYN\|Elf file type is DYN' <<<"$segments" ||
  { echo "error: $library is not a shared library" >&2; exit 2; }

failures=0
# report NAME PROBLEMS [DETAIL]: one line; fails when there are problems, of which it shows the first dozen.
report() {
  if [ -z "$2" ]; then
    printf '  ok    %-9s %s\n' "$1" "${3:-}"
  else
    printf '  FAIL  %-9s %s\n' "$1" "$(head -12 <<<"$2" | tr '\n' ' ')"
    failures=$((failures + 1))
  fi
}

needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic")
if [ -z "$platform" ]; then
  if grep -qxE 'libc\.so|liblog\.so' <<<"$needed"; then platform=android; else platform=linux; fi
fi
# segment TYPE: offset, address, file size, memory size, alignment (decimal) and flags of each such segment.
segment() {
  local type offset address _ fileSize memorySize rest
  while read -r type offset address _ fileSize memorySize rest; do
    [ "$type" = "$1" ] || continue
    echo $((offset)) $((address)) $((fileSize)) $((memorySize)) $((${rest##* })) "$(tr -d ' ' <<<"${rest% *}")"
  done <<<"$segments"
}
page=16384

checkExports() {
  local wanted found
  wanted=$(sort <<'NAMES'
FUNC JNI_OnLoad
FUNC c2Java_OnData
FUNC jintArrayToInts
FUNC jstringToChars
FUNC register_com_tarn_performance_TarnBoosterJNI
OBJECT TAG
OBJECT g_classUdpEngine
OBJECT g_jvm
OBJECT logFunc
NAMES
  )
  found=$(awk '$7 != "UND" && $1 ~ /^[0-9]+:$/ && ($5 == "GLOBAL" || $5 == "WEAK" || $5 == "UNIQUE") {
    sub(/@.*/, "", $8); print $4, $8 }' <<<"$symbols" | sort)
  report exports "$(diff <(echo "$wanted") <(echo "$found") | sed -n 's/^</missing:/p; s/^>/unwanted:/p')" "the nine"
}

checkNeeded() {
  local allowed
  case $platform in
    linux) allowed='libprotobuf-lite\.so\.[0-9]+|liblog\.so\.0|libnativehelper\.so\.0|libstdc\+\+\.so\.6|libgcc_s\.so\.1|libc\.so\.6|libm\.so\.6|ld-linux-[a-z0-9-]+\.so\.[0-9]' ;;
    android) allowed='lib(log|c|m|dl)\.so' ;;
    *) echo "error: unknown platform $platform" >&2; exit 2 ;;
  esac
  report needed "$(grep -vxE "$allowed" <<<"$needed" || true)" "$(tr '\n' ' ' <<<"$needed")"
}

checkPages() {
  local offset address fileSize memorySize align flags end=0 problems='' writableExecutable=''
  while read -r offset address fileSize memorySize align flags; do
    [ $((align % page)) -eq 0 ] && [ "$align" -gt 0 ] || problems+="alignment $align of the segment at $address; "
    [ $(((address - offset) % page)) -eq 0 ] || problems+="segment at $address does not lie as in the file; "
    [ $((address / page * page)) -ge "$end" ] || problems+="segment at $address shares a page; "
    end=$(((address + memorySize + page - 1) / page * page))
    case $flags in *W*E*) writableExecutable+="segment at $address is writable and executable; " ;; esac
  done < <(segment LOAD)
  report pages "$problems" "LOAD segments on 16 KiB pages"
  if [ -z "$(segment GNU_STACK)" ]; then
    writableExecutable+="no GNU_STACK entry, which means an executable stack; "
  elif [[ $(segment GNU_STACK) == *E ]]; then
    writableExecutable+="executable stack; "
  fi
  report stack "$writableExecutable" "not executable"
}

checkRelro() {
  local offset address fileSize memorySize align flags problems=''
  read -r offset address fileSize memorySize align flags < <(segment GNU_RELRO) || problems='no GNU_RELRO segment'
  if [ -z "$problems" ]; then
    # The protection covers whole pages: what else lies in its first or last one becomes read-only too, or
    # stays unprotected, as the loader rounds.
    segment LOAD | awk -v start="$address" '$2 == start && $6 ~ /W/ { found = 1 } END { exit !found }' ||
      problems+="begins inside a segment; "
    [ $(((address + memorySize) % page)) -eq 0 ] || problems+="ends at $(printf 0x%x $((address + memorySize)))"
  fi
  report relro "$problems" "fits 16 KiB pages"
}

checkDynamic() {
  local problems=''
  grep -qE '\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW|\(BIND_NOW\)' <<<"$dynamic" || problems='lazy binding'
  report binding "$problems" "at load"
  problems=''
  ! grep -qE '\(TEXTREL\)|\(FLAGS\).*TEXTREL' <<<"$dynamic" || problems='relocations in code'
  report text "$problems" "no relocations"
  problems=''
  grep -qE '\(FLAGS_1\).*NODELETE' <<<"$dynamic" || problems='can be unloaded under its threads'
  grep -qF '[libtarnbooster.so]' <(grep -F '(SONAME)' <<<"$dynamic") || problems+=' wrong or no SONAME'
  report lifetime "$problems" "loaded for good, SONAME libtarnbooster.so"
}

# forbiddenImports: reads symbol names, one a line, NAME or NAME@VERSION, and prints those of C functions and
# variables that are not on the list. C++ names, and the names of the compiler's runtime, are passed over: an
# Android build brings its own of both along.
forbiddenImports() {
  awk -v list="$allowedImports" '
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

checkImports() {
  [ "$platform" = linux ] || [ "$imports" = yes ] || return 0
  report imports "$(awk '$7 == "UND" { print $8 }' <<<"$symbols" | forbiddenImports)" "none that Android lacks"
}

checkAndroid() {
  [ "$platform" = android ] || return 0
  report path "$(grep -oE '\((RPATH|RUNPATH)\).*' <<<"$dynamic" || true)" none
  report tls "$(segment TLS | sed 's/.*/a TLS segment/')" none
  report stripped "$(grep -oE '\.(symtab|debug_[a-z]+)\b' <<<"$sections" | sort -u)" yes
}

checkSize() {
  local size problems=''
  [ -n "$maxSize" ] || { [ "$platform" = android ] && maxSize=1048576 || maxSize=524288; }
  size=$(segment LOAD | awk '{ sum += $3 } END { print sum + 0 }')
  [ "$size" -le "$maxSize" ] || problems="$size bytes are loaded, at most $maxSize are wanted"
  report size "$problems" "$size bytes loaded of $maxSize"
}

echo "$library ($platform)"
checkExports
checkNeeded
checkPages
checkRelro
checkDynamic
checkImports
checkAndroid
checkSize
[ "$failures" -eq 0 ] || { echo "$library: $failures checks failed" >&2; exit 1; }
