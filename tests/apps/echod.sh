#!/bin/sh
# echod.sh ECHOD ECHO_LOAD: the example echo server under load, with silent callers, and at its end.
set -eu
echod=$1
load=$2
dir=$(mktemp -d)
pid=
trap '[ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null; rm -rf "$dir"' EXIT

fail() {
  echo "FAILED: $*"
  tail -n 20 "$dir/log" 2>/dev/null
  exit 1
}

# Waits, for 20 s at most, until the command given succeeds.
await() {
  tries=0
  until "$@" >/dev/null 2>&1; do
    tries=$((tries + 1))
    [ $tries -lt 200 ] || fail "never came true: $*"
    sleep 0.1
  done
}

# Starts echod, with the options given, on a port that is free, and leaves it in $port.
start() {
  port=$("$(dirname "$0")/../../tools/free-ports" 1)
  rm -f "$dir/log"
  VORNTRC_FILENAME=$dir/log "$echod" -a "127.0.0.1:$port" "$@" &
  pid=$!
  await grep -q 'Serving on' "$dir/log"
}

stop() {
  kill -"$1" "$pid"
  wait "$pid" || fail "exit status $? after SIG$1"
  pid=
}

descriptors() { find "/proc/$pid/fd" -mindepth 1 | wc -l; }
few_descriptors() { [ "$(descriptors)" -eq "$before" ]; }

start -t 60
before=$(descriptors)
"$load" "$port" 200 1024 || fail "the load"
await few_descriptors
[ "$(grep -c 'connected$' "$dir/log")" -eq 200 ] || fail "not 200 callers"
[ "$(grep -c 'gone$' "$dir/log")" -eq 200 ] || fail "callers that never left"
stop TERM
grep -q 'Received signal 15' "$dir/log" || fail "SIGTERM was not logged"
! grep -qE ' ERR ' "$dir/log" || fail "errors in the log"

# A caller that says nothing is closed.
start -t 2
"$load" "$port" 1 -1 & silent=$!
await grep -q 'gone$' "$dir/log"
wait "$silent" || fail "the silent caller was not closed by the server"
stop INT
grep -q 'Received signal 2' "$dir/log" || fail "SIGINT was not logged"

# Callers that are connected at the end see their connection closed.
start -t 60
"$load" "$port" 3 -1 & waiting=$!
await sh -c "[ \$(grep -c 'connected\$' '$dir/log') -eq 3 ]"
stop TERM
wait "$waiting" || fail "a caller was left open"
grep -q 'Closing 3 callers' "$dir/log" || fail "the callers were not closed"

# Bad input is named.
VORNTRC_FILENAME=stderr "$echod" -t soon 2>"$dir/err" || fail "exit status $?"
grep -q 'Invalid idle time (soon)' "$dir/err" || fail "a bad idle time was not named"
VORNTRC_FILENAME=stderr "$echod" -a nowhere.invalid:7 2>"$dir/err" || fail "exit status $?"
grep -q 'Bad hostspec (nowhere.invalid)' "$dir/err" || fail "a bad host was not named"
echo "echod: all is well"
