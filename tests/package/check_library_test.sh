#!/usr/bin/env bash
# scripts/check-library.sh lets a well-built library pass and names what is wrong with any other.
# usage: check_library_test.sh CHECK_LIBRARY CC. Empty libraries stand for Android's own.
set -euo pipefail
check=$1 cc=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

cat >good.c <<'C'
const char* TAG = "TARNBOOSTER";
int (*logFunc)(int, const char*, const char*, ...);
void *g_jvm, *g_classUdpEngine;
#define HIDDEN __attribute__((visibility("hidden")))
C
printf 'void %s(void) {}\n' JNI_OnLoad register_com_tarn_performance_TarnBoosterJNI jstringToChars jintArrayToInts \
  c2Java_OnData >>good.c
version=$(sed -n 's/^project(tarnbooster VERSION \([0-9.]*\).*/\1/p' "$(dirname "$check")/../CMakeLists.txt")
note() {
  echo "__attribute__((used, aligned(4), section(\".note.tarnbooster\"))) static const struct { int sizes[3]; char texts[2][12]; }" \
    "note = {{12, 12, 1}, {\"tarnbooster\", \"$1\"}};"
}
cp good.c unversioned.c
note "$version" >>good.c
with() { { cat good.c; printf '%s\n' "$2"; } >"$1"; } # with NAME CODE: a source with one thing more
with extra.c 'int extra;'
with bad.c '__asm__(".text\n.quad TAG\n"); int pthread_cancel(unsigned long); HIDDEN char big[491520] = {1};
  HIDDEN int end(void) { return pthread_cancel(0); }'
with local.c 'static __thread int local = 1; HIDDEN int* address(void) { return &local; }'
{ cat unversioned.c; note 0.9; } >version.c
sed '/c2Java_OnData/d' good.c >missing.c
sed 's/^const char\* TAG.*/void TAG(void) {}/' good.c >kind.c

common='-shared -fPIC -Wl,-soname,libtarnbooster.so -Wl,-z,nodelete -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--build-id
  -Wl,-z,max-page-size=16384 -Wl,-z,common-page-size=16384'
linux="$cc $common" target='clang --target=aarch64-linux-android24 -nostdlib -fuse-ld=lld'
android="$target -s $common -L$work -Wl,--no-as-needed -lc -llog"
for name in c log c++_shared; do $target -shared -Wl,-soname,lib$name.so -o lib$name.so -x c /dev/null; done
$cc -shared -Wl,-soname,libother.so -o libother.so -x c /dev/null

# expect FAILING COMMAND: builds and checks; FAILING is the checks that must fail, and no others may.
expect() {
  local wanted=$1 found status=0
  shift
  # shellcheck disable=SC2048,SC2086  # the words are the command
  $* -o lib.so >build.log 2>&1 || { cat build.log; echo "could not build: $*"; exit 1; }
  "$check" lib.so >check.log 2>&1 || status=$?
  found=$(awk '$1 == "FAIL" { print $2 }' check.log | xargs)
  [ "$found $status" != "$wanted $([ -z "$wanted" ]; echo $?)" ] || return 0
  echo "FAILED: expected [$wanted], found [$found], status $status: $*"
  cat check.log
  exit 1
}

expect ''         "$linux" good.c
expect exports    "$linux" extra.c
expect exports    "$linux" missing.c
expect exports    "$linux" kind.c
expect 'text imports size' "$linux" bad.c -Wl,-z,notext
expect 'stack relro binding lifetime build-id' "$(sed 's/-Wl,-z,nodelete//; s/relro/norelro/; s/now/lazy/; s/noexec/exec/
  s/--build-id/--build-id=none/' <<<"$linux")" good.c
expect 'pages lifetime version' "$(sed 's/-Wl,-soname,libtarnbooster.so//; s/page-size=16384/page-size=4096/g' <<<"$linux")" version.c
expect 'needed version' "$linux" unversioned.c -L. -Wl,--no-as-needed -lother

expect ''         "$android" good.c
expect 'needed path tls stripped' "${android/ -s / }" -g local.c -fno-emulated-tls -lc++_shared -Wl,-rpath,/data
expect relro      "${android/common-page-size=16384/common-page-size=4096}" good.c
expect 'pages relro' "${android//page-size=16384/page-size=4096}" good.c

$android -o lib.so good.c
! "$check" --symbols lib.so >check.log 2>&1 && grep -q 'FAIL  symbols' check.log || { echo "FAILED: symbols were seen"; exit 1; }
[ "$("$check" good.c >check.log 2>&1; echo $?)" -eq 2 ] || { echo "FAILED: a text file was read"; exit 1; }
