#!/bin/sh
# daemon.sh APPLICATION: daemons, started in every way, reloaded and ended by signals.
# shellcheck source=tests/apps/expect.sh disable=SC2154  # the application writes some variables
. "$(dirname "$0")/expect.sh"
app=$1
export STATE="$dir/state"
export VORNTRC_FILENAME="$dir/log" VORNTRC_LEVEL=4

# Starts the application with the arguments given and leaves in $starter the process that was
# started, and in $pid, $session, ... what the daemon has to say.
start() {
  rm -f "$STATE" "$dir/log"
  "$app" "$@" >"$dir/out" 2>"$dir/err" &
  starter=$!
  wait "$starter" || fail "exit status $? of the starting process"
  read_state
}
read_state() {
  await [ -e "$STATE" ]
  # shellcheck disable=SC1090  # written by the application
  . "$STATE"
  # shellcheck disable=SC2154
  pids="$pids $pid"
}
stop() {
  kill -TERM "$pid"
  await gone "$pid"
}
mask() { echo $((0x$(awk -v field="$1:" '$1 == field { print $2 }' "/proc/$pid/status"))); }

# ---- detached ----

umask 027
start -D /
expect [ "$pid" -ne "$starter" ]
expect [ "$directory" = / ]
expect [ "$umask" = 0 ]
expect [ "$flags" = 1 ]
# Started by a script, so no leader of a group: it began the session itself and forked once.
expect [ "$session" -eq "$starter" ]
expect [ "$group" -eq "$starter" ]
# It detached before the initialisation.
expect [ "$process_at_init" -eq "$pid" ]
expect [ "$process_at_app_init" -eq "$pid" ]
expect has "$dir/log" "AppShell: Daemonised from PID=$starter to $pid [daemon]"

# SIGHUP, SIGINT, SIGUSR2 and SIGPIPE; SIGUSR1 and SIGTERM.
expect [ $(($(mask SigIgn) & 0x1803)) -eq $((0x1803)) ]
expect [ $(($(mask SigCgt) & 0x4200)) -eq $((0x4200)) ]
expect [ $(($(mask SigIgn) & 0x4200)) -eq 0 ]
for signal in HUP INT PIPE USR2; do kill -$signal "$pid"; done

# Input, output and error stay what they were.
expect [ "$(readlink "/proc/$pid/fd/1")" = "$dir/out" ]
expect [ "$(readlink "/proc/$pid/fd/2")" = "$dir/err" ]

# Without -L a reload notifies and leaves the logger alone.
kill -USR1 "$pid"
await has "$dir/log" 'notified by Config=: key='
expect has "$dir/log" 'AppShell: Issuing Reconfigure for '
refuse has "$dir/log" 'Trace level'

stop
expect has "$dir/log" 'EvtMgr: Received signal=15 - delivering to AppShell'
expect has "$dir/log" ' appTerminated'
# The processes that were left behind ran no exit handlers and flushed nothing.
expect [ "$(count "$dir/err" 'at exit')" -eq 1 ]
expect [ "$(count "$dir/out" 'buffered')" -eq $((exit_flushes + 1)) ]

# ---- the leader of a group forks twice ----

rm -f "$STATE"
setsid "$app" -D / >"$dir/out" 2>"$dir/err" &
starter=$!
wait "$starter" || fail "exit status $?"
read_state
if [ "$session" -eq "$starter" ]; then
  # setsid(1) itself was no leader, so the application has its process id, and leads.
  fail "a leader of a group was not left behind"
fi
expect [ "$session" -ne "$pid" ]
expect [ "$pid" -ne "$starter" ]
expect gone "$session"
stop

# ---- the working directory ----

start -D -
expect [ "$directory" = /tmp ]
stop
VORN_WORKDIR=/var/tmp start -D -
expect [ "$directory" = /var/tmp ]
stop
VORN_WORKDIR=/var/tmp start -D /usr
expect [ "$directory" = /usr ]
stop

# Fails to start: the starting process has left by then, with status 0.
expect_failure() { # TEXT OPTION...
  text=$1
  shift
  rm -f "$STATE" "$dir/log"
  "$app" "$@" >"$dir/out" 2>"$dir/err" || fail "exit status $?"
  await has "$dir/err" 'at exit'
  expect has_line "$dir/err" "$text"
  expect has "$dir/log" " AppShell.start: $text"
  expect has "$dir/log" ' appTerminated'
  expect [ ! -e "$STATE" ]
}
expect_failure 'VrnException: Error=2 (errno=2) - Daemon failed to set workding dir to /nonexistent' \
  -D /nonexistent
VORN_WORKDIR='' expect_failure \
  'VrnException: Error=2 (errno=2) - Daemon failed to set workding dir to ' -D -

# ---- an initialisation of the application's own that fails ----

DAEMON_FAIL='no licence' expect_failure \
  'VrnException: Error=10 (errno=13) - Initialisation failed [no licence]'

# ---- a late event manager: what goes before is done in the foreground ----

DAEMON_LATE=1 start -D /
expect [ "$process_at_init" -eq "$starter" ]
expect [ "$process_at_app_init" -eq "$starter" ]
expect [ "$pid" -ne "$starter" ]
expect [ "$flags" = 1 ]
expect [ "$directory" = / ]
stop

# ---- the application detaches itself ----

# Its second request, for another directory, does nothing.
DAEMON_SELF=/usr start
expect [ "$pid" -ne "$starter" ]
expect [ "$directory" = /usr ]
expect [ "$flags" = 0 ]
stop
# Nor does the first one while there is no event manager; -D is still carried out later.
DAEMON_LATE=1 DAEMON_SELF=/nonexistent start -D /usr
expect [ "$directory" = /usr ]
stop

# Without a directory of its own it has that of the environment.
DAEMON_SELF='' VORN_WORKDIR=/var/tmp start
expect [ "$directory" = /var/tmp ]
stop

# ---- a signal that the application takes from the shell ----

DAEMON_DEAF=1 start -D /
await has "$dir/log" 'AppShell.signalStopped: sig=10'
kill -USR1 "$pid"
stop
refuse has "$dir/log" 'AppShell: Issuing Reconfigure'

# ---- configuration and reload ----

unset VORNTRC_FILENAME VORNTRC_LEVEL
export HOME="$dir" # for the logger before the configured one
configure() { # LEVEL VALUE
  printf '[main]\nkey=%s\n[log]\nFILENAME=%s\nLEVEL=%s\n' "$2" "$dir/log" "$1" >"$dir/app.cfg.new"
  mv "$dir/app.cfg.new" "$dir/app.cfg"
}
reload() { # VALUE
  kill -USR1 "$pid"
  await has "$dir/log" "notified by Config=app.cfg: key=$1"
}
notices() { count "$dir/log" 'AppShell: Trace level'; }

# The file's name is relative, and stays good when the daemon has gone elsewhere.
configure 3 first
cd "$dir"
start -D / -C app.cfg:main -L log:tag
cd /
expect [ "$directory" = / ]

configure 5 second
reload second
await has "$dir/log" 'MUST tag-'
expect has "$dir/log" 'AppShell: Trace level increased from INFO to TRC'
expect [ "$(notices)" -eq 1 ]

configure 5 third
reload third
kill -USR1 "$pid" # once more; in the order of the signals the first one is done with
await [ "$(count "$dir/log" 'key=third')" -ge 1 ]

configure 3 fourth
reload fourth
await has "$dir/log" 'AppShell: Trace level decreased from TRC to INFO'
expect [ "$(notices)" -eq 2 ]

# At the least level the notice is still written.
configure 1 fifth
reload fifth
await has "$dir/log" 'AppShell: Trace level decreased from INFO to ERR'

# A file that does not parse, a level that is none: reported, and the daemon goes on as it was.
printf 'no group\n' >"$dir/app.cfg"
kill -USR1 "$pid"
await has "$dir/log" 'EvtMgr: Handler for Signal=10 threw on signal [VrnException: Error=9'
configure NONSENSE sixth
reload sixth
await [ "$(grep -c 'Handler for Signal=10 threw' "$dir/log")" -eq 2 ]
configure 3 seventh
reload seventh
await has "$dir/log" 'AppShell: Trace level increased from ERR to INFO'
expect [ "$(notices)" -eq 4 ]
stop
expect has "$dir/log" ' appTerminated'
