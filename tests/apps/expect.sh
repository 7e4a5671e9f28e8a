# shellcheck shell=sh
# What the scripts of this directory share; they source it. A directory of the test's own, $dir, is
# removed at the end, and the processes named in $pids are ended.
set -eu
dir=$(mktemp -d)
pids=
trap 'for pid in $pids; do kill -KILL "$pid" 2>/dev/null || true; done; rm -rf "$dir"' EXIT
unset VORN_WORKDIR VORNTRC_APPTAG VORNTRC_FILENAME VORNTRC_LEVEL

fail() {
  echo "FAILED: $*"
  for file in "$dir"/*; do
    [ -f "$file" ] || continue
    echo "--- $file"
    tail -n 50 "$file"
  done
  exit 1
}

expect() { "$@" || fail "not true: $*"; }
refuse() { ! "$@" || fail "true: $*"; }

# Waits, for 20 s at most, until the command given succeeds.
await() {
  tries=0
  until "$@" 2>/dev/null; do
    tries=$((tries + 1))
    [ $tries -lt 400 ] || fail "never came true: $*"
    sleep 0.05
  done
}

# Whether the text is found in the file, or is a whole line of it; and how many lines have it.
has() { grep -qF -e "$2" "$1"; }
has_line() { grep -qxF -e "$2" "$1"; }
count() { grep -cF -e "$2" "$1" || true; }

# Whether the process has ended; nobody may have waited for it yet.
gone() { [ ! -e "/proc/$1/status" ] || grep -q '^State:.Z' "/proc/$1/status"; }
