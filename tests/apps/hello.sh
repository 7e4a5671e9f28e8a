#!/bin/sh
# hello.sh HELLO: the smallest application says hello at once, then every second, until it is ended.
# shellcheck source=tests/apps/expect.sh
. "$(dirname "$0")/expect.sh"
VORNTRC_FILENAME=$dir/log "$1" >"$dir/out" &
pids=$!
begin=$(date +%s)
said() { [ "$(count "$dir/out" 'Hello, world')" -ge "$1" ]; }
await said 4
expect [ $(($(date +%s) - begin)) -ge 2 ]
expect [ -z "$(grep -vx 'Hello, world' "$dir/out")" ]
kill -TERM "$pids"
status=0
wait "$pids" || status=$?
expect [ "$status" -eq 143 ]
expect [ ! -s "$dir/log" ]
