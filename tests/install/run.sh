#!/bin/sh
# tests/install/run.sh BUILD-DIR CMAKE GENERATOR CXX: installs the build into a prefix of its own,
# then builds and runs the outside applications once through pkg-config and once through
# find_package(), and compiles every installed header alone.
set -eu
build=$1 cmake=$2 generator=$3 cxx=$4
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# expect PROGRAM LINE...: the program succeeds and its output has these lines and no others.
expect() {
  program=$1
  shift
  output=$("$program") || fail "$program ended with $?"
  [ "$output" = "$(printf '%s\n' "$@")" ] || fail "$program wrote: $output"
  echo "ok: $program"
}

# expect_all DIR: runs the applications that were built in DIR.
expect_all() {
  expect "$1/app" "app ticked"
  expect "$1/app_reversed" "app_reversed ticked"
  expect "$1/own_support" "own gnl_init" "own utime_diff" "own_support ticked"
  case $("$1/own_main") in
    *"thrown in own main"*) echo "ok: $1/own_main" ;;
    *) fail "$1/own_main did not run its own main" ;;
  esac
}

"$cmake" --install "$build" --prefix "$prefix" >/dev/null
pc_file=$(find "$prefix" -name vornfc.pc)
[ -n "$pc_file" ] || fail "no vornfc.pc was installed"
"$prefix/bin/vornfc-conf" --version || fail "vornfc-conf does not run where it was installed"
PKG_CONFIG_PATH=$(dirname "$pc_file")
LD_LIBRARY_PATH=$(dirname "$PKG_CONFIG_PATH")
export PKG_CONFIG_PATH LD_LIBRARY_PATH

CXX_COMPILERS=$cxx "$here/../../tools/check-headers" "$prefix/include"

# compile PROGRAM "PACKAGES" SOURCE...
compile() {
  program=$1 packages=$2
  shift 2
  # shellcheck disable=SC2046,SC2086  # lists of words
  (cd "$here" && "$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror \
    -o "$work/$program" "$@" $(pkg-config --cflags --libs $packages))
}
compile app "vornfc vornsupport" app.cpp
compile app_reversed "vornsupport vornfc" app.cpp
compile own_support "vornfc vornsupport" app.cpp own_support.cpp
compile own_main "vornfc vornsupport" own_main.cpp
expect_all "$work"

"$cmake" -G "$generator" -S "$here" -B "$work/outside" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
"$cmake" --build "$work/outside"
expect_all "$work/outside"
