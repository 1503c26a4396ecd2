#!/usr/bin/env bash
# The whole system at work: an application in a virtual machine, the library, the reference service.
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
  cat <<'END'
Usage: scripts/demo.sh [--build DIR] [--java COMMAND] [--emulator COMMAND]

Installs what is missing (on Debian), builds, starts the reference service, and runs a small Java program against it
through the real library. The lines of the service and of the application stand side by side: boosts that come and go,
a service that is killed under an open one, a service that stands still. Exit code 0 only if everything was seen that
the summary at the end asks for. Takes a minute or two the first time, then half a minute.

  --build DIR          show this finished build instead; installs and builds nothing
  --java COMMAND       the command that starts java (or TARN_JAVA in the environment)
  --emulator COMMAND   goes in front of the service's program (or TARN_EMULATOR), to show a build for another processor
  -h, --help           this text

The builds go to the folder build, or to the one that TARNBOOSTER_BUILD names.
END
}

build=
java=${TARN_JAVA:-}
emulator=${TARN_EMULATOR:-}
while [ $# -gt 0 ]; do
  case $1 in
    -h | --help)
      usage
      exit 0
      ;;
    --build | --java | --emulator)
      [ $# -ge 2 ] || die "$1 needs a value; see --help"
      declare "${1#--}=$2"
      shift 2
      ;;
    *) die "unknown option $1; see --help" ;;
  esac
done

# quietly LOG COMMAND...: shows what the command has written only if it fails; on a terminal, how far it has come.
quietly() {
  local log=$1
  shift
  "$@" 2>&1 | tee "$log" | countSteps || {
    cat "$log"
    die "$1 failed, as told above (and in $log)"
  }
}

countSteps() {
  local line
  while IFS= read -r line; do
    if [ -t 1 ] && [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]]; then
      printf '\r   step %s of %s ' "${BASH_REMATCH[1]}" "${BASH_REMATCH[2]}"
    fi
  done
  [ ! -t 1 ] || printf '\r%30s\r' ''
}

buildEverything() {
  build=$BUILD/demo
  installPackages "${buildPackages[@]}"
  useJava17
  say "building the library, the service and the demo"
  mkdir -p "$build"
  quietly "$build/configure.log" cmake -G Ninja -S "$ROOT" -B "$build" -DCMAKE_BUILD_TYPE=Release \
    -DTARNBOOSTER_BUILD_TESTS=OFF -DTARNBOOSTER_BUILD_TOOLS=OFF
  quietly "$build/build.log" cmake --build "$build" --target tarnbooster tarnbooster-service tarnbooster_demo_jar
}

[ -n "$build" ] || buildEverything
build=$(cd "$build" && pwd) || die "there is no such build"
for product in jni/libtarnbooster.so service/tarnbooster-service java/tarnbooster.jar java/tarnbooster-demo.jar; do
  [ -e "$build/$product" ] || die "the build has no $product"
done
[ -n "$java" ] || java=$(sed -n 's/^TARNBOOSTER_JAVA:[^=]*=//p' "$build/CMakeCache.txt")
read -ra javaCommand <<<"$java"
read -ra emulatorCommand <<<"$emulator"

# Only what is started here is ended here, by its id.
name=tarnbooster-demo-$$
work=$(mktemp -d)
servicePid=
appPid=
cleanUp() {
  local pid
  for pid in $appPid $servicePid; do kill "$pid" 2>/dev/null || true; done
  wait
  rm -rf "$work"
}
trap cleanUp EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# What the service says, in words: without its numbers for requests, processes and a good status.
inWords='s/^10[01][0-9] //; s/ pid=[0-9]* uid=[0-9]*( tid=[0-9]*)?//; s/ scene=0//; s/ action=0//; s/ -> status 0/ -> done/'
inWords+='; s/-> status 1 /-> done in part /; s/-> status ([0-9]+)/-> refused (\1)/; s:([.][.]/etc/){9,}:.../:g; s/^(.{200}).*/\1.../; s/^/  service | /'

# startService ARGUMENT...: starts it and waits until it listens.
startService() {
  : >"$work/ready"
  "${emulatorCommand[@]}" "$build/service/tarnbooster-service" --lines plain --name "$name" "$@" \
    > >(tee -a "$work/service" "$work/ready" | sed -uE "$inWords") 2>&1 &
  servicePid=$!
  local try
  for ((try = 0; try < 600; ++try)); do
    ! grep -q '^listening on' "$work/ready" || return 0
    kill -0 "$servicePid" 2>/dev/null || break
    sleep 0.05
  done
  die "the service does not listen"
}

# endService SIGNAL
endService() {
  kill "-$1" "$servicePid"
  wait "$servicePid" 2>/dev/null || true
  servicePid=
}

# inShell WORD...: the command as one types it.
inShell() {
  local words
  printf -v words '%q ' "$@"
  printf '%s' "${words% }"
}

say "starting the service, then the application"
startService --push-on-register "7:application not responding"
mkfifo "$work/toApp" "$work/fromApp"
application=("${javaCommand[@]}" -Djava.library.path="$build/jni"
  -cp "$build/java/tarnbooster-demo.jar:$build/java/tarnbooster.jar" com.tarn.performance.demo.Demo)
"${application[@]}" "$name" <"$work/toApp" >"$work/fromApp" 2>"$work/errors" &
appPid=$!
exec {toApp}>"$work/toApp" {fromApp}<"$work/fromApp"
while IFS= read -r line <&"$fromApp"; do
  case $line in
    @kill)
      endService KILL
      printf '  service | (killed)\n'
      ;;
    @start)
      startService --push-on-register "8:back again"
      ;;
    @stop)
      kill -STOP "$servicePid"
      printf '  service | (stopped: it still has its socket, and reads nothing)\n'
      ;;
    @continue)
      kill -CONT "$servicePid"
      printf '  service | (continues)\n'
      ;;
    *)
      printf '%s\n' "$line"
      continue
      ;;
  esac
  printf 'done\n' >&"$toApp"
done
status=0
wait "$appPid" || status=$?
appPid=
endService TERM

printf '\nWhat the service has seen\n'
served=$(sed -nE 's/^(10(0[1-9]|1[0-4])) .* -> status .*/\1/p' "$work/service" | sort -u | wc -l)
if [ "$served" -eq 14 ]; then
  printf '  seen    all fourteen requests, each answered\n'
else
  printf '  MISSED  of the fourteen requests it saw %d\n' "$served"
  status=1
fi

if [ "$status" -ne 0 ]; then
  printf '\nThe library'\''s log ended so:\n'
  tail -n 30 "$work/errors"
  die "not everything was seen"
fi
say "everything was seen"

cat <<END

Now try, in two terminals. End the service with Ctrl-C and start it again, and see the boost come back
(lines that begin with TARNBOOSTER are the library's log):

  $(inShell "${emulatorCommand[@]}" "$build/service/tarnbooster-service" --name try --push-on-register 7:hello)

  $(inShell "${application[@]}" --hold try)
END
