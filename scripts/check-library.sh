#!/usr/bin/env bash
# Checks that a built libtarnbooster.so is fit to be loaded into other people's processes.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
export LC_ALL=C  # the words of readelf are compared
allowedImports=$(dirname "$0")/allowed-imports.txt

usage() {
  cat <<'HELP'
usage: scripts/check-library.sh [--platform linux|android] [--imports] [--symbols] [--max-size BYTES] LIB

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
  stripped     Android: no symbol table, no debug sections (--symbols: both are there, for reading crash reports)
  build-id     there, since it tells which symbols belong to a crash
  version      the one of this source tree, readable in the file
  size         bytes of the file without symbols: at most 160 KiB with protobuf-lite shared, 480 KiB without

--platform overrides what the library's own C library tells; --imports checks the imports of an Android
library too, for one that was linked without the NDK. Exit status: 0 all is well, 1 a check failed,
2 the library could not be read. READELF names another readelf than the one that is found.
HELP
}

platform='' maxSize='' library='' imports=no stripped=yes
while [ $# -gt 0 ]; do
  case $1 in
    --help) usage; exit 0 ;;
    --platform) platform=${2:?}; shift 2 ;;
    --imports) imports=yes; shift ;;
    --symbols) stripped=no; shift ;;
    --max-size) maxSize=${2:?}; shift 2 ;;
    -*) usage >&2; exit 2 ;;
    *) library=$1; shift ;;
  esac
done
[ -n "$library" ] || { usage >&2; exit 2; }
useReadelf
segments=$("$READELF" -lW "$library") && dynamic=$("$READELF" -dW "$library") &&
  symbols=$("$READELF" --dyn-syms -W "$library") && sections=$("$READELF" -SW "$library") &&
  notes=$("$READELF" -nW "$library") ||
  { echo "error: cannot read $library" >&2; exit 2; }
# The tool itself is content with any file.
grep -q 'Elf file type is DYN' <<<"$segments" ||
  { echo "error: $library is not a shared library" >&2; exit 2; }

failures=0
# report NAME PROBLEMS [DETAIL]: one line; fails when there are problems, of which it shows the first dozen.
report() {
  if [ -z "$2" ]; then
    printf '  ok    %-9s %s\n' "$1" "${3:-}"
  else
    printf '  FAIL  %-9s %s\n' "$1" "$(head -n 12 <<<"$2" | tr '\n' ' ')"
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
  local found
  found=$(grep -oE '\.(symtab|debug_(info|line)) ' <<<"$sections" | sort -u) || true
  if [ "$stripped" = yes ]; then
    report stripped "$found" yes
  elif [ "$(wc -l <<<"$found")" -eq 3 ]; then
    report symbols '' "for reading crash reports"
  else
    report symbols "of a symbol table, functions and lines there is only: $found"
  fi
}

checkIdentity() {
  local problems='' wanted found
  grep -qE 'Build ID: [0-9a-f]{16}' <<<"$notes" || problems='none'
  report build-id "$problems" "$(sed -n 's/.*Build ID: *//p' <<<"$notes")"
  wanted=$(projectVersion)
  found=$("$READELF" -p .note.tarnbooster "$library" 2>/dev/null | sed -n 's/^ *\[ *[0-9a-f]*\] *\([0-9][0-9.]*\)$/\1/p') || true
  problems=''
  [ "$found" = "$wanted" ] || problems="it is '$found', the sources are $wanted"
  report version "$problems" "$found"
}

# What a file without symbols has: what is loaded, a comment, names of sections, a row of 64 bytes for each section.
checkSize() {
  local size problems=''
  if [ -z "$maxSize" ]; then
    maxSize=$((480 * 1024))
    ! grep -q '^libprotobuf-lite' <<<"$needed" || maxSize=$((160 * 1024))
  fi
  size=$(segment LOAD | awk '{ if ($1 + $3 > end) end = $1 + $3 } END { print end + 0 }')
  size=$((size + 512 + 64 * $(grep -cE '\] \.[a-z.]' < <(grep -vE '\.(debug_|symtab|strtab)' <<<"$sections"))))
  [ "$size" -le "$maxSize" ] || problems="$size bytes without symbols, at most $maxSize are wanted"
  report size "$problems" "$size bytes without symbols, of $maxSize"
}

echo "$library ($platform)"
checkExports
checkNeeded
checkPages
checkRelro
checkDynamic
checkImports
checkAndroid
checkIdentity
checkSize
[ "$failures" -eq 0 ] || { echo "$library: $failures checks failed" >&2; exit 1; }
