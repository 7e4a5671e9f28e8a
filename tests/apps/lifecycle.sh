#!/bin/sh
# lifecycle.sh APPLICATION: the life of a process, from its command line to its exit status.
# shellcheck source=tests/apps/expect.sh disable=SC2154  # the application writes some variables
. "$(dirname "$0")/expect.sh"
app=$1
name=$(basename "$app")

# Runs the application with the arguments given: exit status 0, always.
run() {
  "$app" "$@" >"$dir/out" 2>"$dir/err" || fail "exit status $?: $*"
}
expect_hooks() {
  printf '%s\n' "$@" >"$dir/wanted"
  expect cmp -s "$dir/wanted" "$dir/out"
}
usage="
Prints its hooks: lifecycle 1.0
USAGE:
$name [-D workdir] [-C filename[:group]] [-L group[:apptag]]
$name -h

  -D: Daemon process. Use hypen (-) to specify default working directory
  -C: Config file, and top-level group
  -L: Logger's config group, and its application tag
  -h: Display this usage synopsis
"
export HOME="$dir" # for the default logger's file

run
expect_hooks "appSetup $name" appInit appRun 'appRun returns' appTerminated destroyed
expect [ ! -s "$dir/err" ]

run one -s two -- -h
expect_hooks "appSetup $name" 'parameter 1 one' 'parameter 2 two' 'parameter 3 -h' appInit appRun \
  'appRun returns' appTerminated destroyed

# The name is the base name, with a directory in front of it or without.
(PATH=$(dirname "$app"):$PATH && "$name" >"$dir/out" 2>"$dir/err") || fail "exit status $?"
expect has_line "$dir/out" "appSetup $name"

run -h
expect_hooks "appSetup $name" appTerminated destroyed
printf '%s\n' "$usage" >"$dir/wanted"
expect cmp "$dir/wanted" "$dir/err"

# A command line that is malformed, one way or the other.
run -q
expect_hooks "appSetup $name" appTerminated destroyed
printf 'Invalid command-line [unknown option -q]\n%s\n' "$usage" >"$dir/wanted"
expect cmp "$dir/wanted" "$dir/err"
run -i
expect has_line "$dir/err" 'Invalid command-line [option -i needs an argument]'

run -f
expect_hooks "appSetup $name" appInit appRun 'appRun returns' appTerminated destroyed

run -i boom
expect_hooks "appSetup $name" appInit appTerminated destroyed
printf '\nVrnException: Error=7 (errno=0) - boom\n\n' >"$dir/wanted"
expect cmp "$dir/wanted" "$dir/err"
expect has "$dir/VORN.LOG" ' AppShell.start: VrnException: Error=7 (errno=0) - boom'

LIFECYCLE_NO_SETUP=1 run -h
expect_hooks "appSetup $name" appTerminated destroyed
expect [ ! -s "$dir/err" ]

run -C /nonexistent/app.cfg
expect_hooks "appSetup $name" appTerminated destroyed
expect has "$dir/VORN.LOG" ' AppShell.args: VrnException: Error=9'

# A logger that cannot be made at the beginning is the end.
status=0
# shellcheck disable=SC3045  # as in every sh of the systems meant
(ulimit -c 0; VORNTRC_FILENAME=/nonexistent/log exec "$app" >"$dir/out" 2>"$dir/err") || status=$?
expect [ "$status" -ne 0 ]
expect [ ! -s "$dir/out" ]

# In the foreground the signals keep their default actions.
touch "$dir/running"
rm "$dir/out"
"$app" -w "$dir/running" >"$dir/out" 2>"$dir/err" &
pid=$!
pids=$pid
await has_line "$dir/out" appRun
for field in SigCgt SigIgn; do
  mask=0x$(awk -v field="$field:" '$1 == field { print $2 }' "/proc/$pid/status")
  expect [ $((mask & 0x4200)) -eq 0 ] # neither SIGTERM nor SIGUSR1
done
rm "$dir/running"
wait "$pid" || fail "exit status $?"
expect has_line "$dir/out" 'appRun returns'

touch "$dir/running"
rm "$dir/out"
"$app" -w "$dir/running" >"$dir/out" 2>"$dir/err" &
pid=$!
pids=$pid
await has_line "$dir/out" appRun
kill -TERM "$pid"
status=0
wait "$pid" || status=$?
expect [ "$status" -eq 143 ]
refuse has_line "$dir/out" appTerminated
pids=
