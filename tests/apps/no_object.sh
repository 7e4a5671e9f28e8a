#!/bin/sh
# no_object.sh APPLICATION: one without an application object says so and fails.
# shellcheck source=tests/apps/expect.sh disable=SC2154  # the application writes some variables
. "$(dirname "$0")/expect.sh"
status=0
"$1" 2>"$dir/err" || status=$?
expect [ "$status" -eq 1 ]
expect grep -qx '\*\*\* PID=[0-9]*: No Application object found !' "$dir/err"
expect [ "$(wc -l <"$dir/err")" -eq 1 ]

# With the details turned on, main() tells its program's base name before.
status=0
VORNTRC_APPTAG=Y "$1" 2>"$dir/err" || status=$?
expect [ "$status" -eq 1 ]
expect grep -q ": main: '$(basename "$1")' Starting\$" "$dir/err"
