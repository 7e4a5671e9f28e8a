#!/bin/sh
# day.sh APPLICATION: after a day of a daemon there are exactly the files and records there should be.
# shellcheck source=tests/apps/expect.sh disable=SC2154  # the application writes some variables
. "$(dirname "$0")/expect.sh"
app=$1
export TZ=UTC DAY_CONF="$dir/day.conf" DAY_LOG="$dir/logs/day" DAY_STATE="$dir/state"
mkdir "$dir/logs"
printf '[log]\nFILENAME = %s\nCYCLEFREQ = HOURLY\nTIMEPREC = NONE\nLEVEL = 3\n' "$DAY_LOG" >"$DAY_CONF"

"$app" -C "$DAY_CONF" -L log:day -D "$dir" 2>"$dir/err"
await [ -s "$DAY_STATE" ]
# shellcheck disable=SC1090  # written by the application
. "$DAY_STATE"
# shellcheck disable=SC2154
await gone "$pid"
# shellcheck disable=SC2154
expect [ "$ticks $reloads" = "960 100" ]

# One file for each hour, named by its first record.
expect [ "$(cd "$dir/logs" && echo *)" = "day-26111508 day-26111509 day-26111510 day-26111511 \
day-26111512 day-26111513 day-26111514 day-26111515" ]
cat "$dir/logs"/day-* >"$dir/all"
messages() { sed "s/^[^ ]* [A-Z]* day-$pid-[0-9]* //" "$dir/all"; }

# Every record is whole, in its file, and in order.
expect [ "$(grep -cvE "^20261115-(0[89]|1[0-5]):[0-5][0-9]:[0-5][0-9] [A-Z]+ day-$pid-[0-9]+ " "$dir/all")" -eq 0 ]
for file in "$dir/logs"/day-*; do
  hour=${file#"${file%??}"}
  expect [ "$(grep -c "^20261115-$hour:" "$file")" -eq "$(wc -l <"$file")" ]
  expect [ "$(grep -c ' tick ' "$file")" -eq 120 ]
done
seq -f 'tick %.0f' 960 >"$dir/expected"
messages | grep '^tick ' >"$dir/found"
expect cmp "$dir/expected" "$dir/found"

# Details are there exactly while the level was 4.
# shellcheck disable=SC2154
expect [ "$(messages | grep -c '^detail ')" -eq "$details" ]
expect [ "$(messages | grep -c '^AppShell: Issuing Reconfigure for ')" -eq 100 ]
expect [ "$(messages | grep -c '^AppShell: Trace level increased from INFO to DBG$')" -eq 50 ]
expect [ "$(messages | grep -c '^AppShell: Trace level decreased from DBG to INFO$')" -eq 50 ]
expect [ ! -s "$dir/err" ]
