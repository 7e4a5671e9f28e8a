#!/bin/sh
# tests/install/run.sh BUILD-DIR CMAKE GENERATOR CXX: installs the build into a prefix of its own,
# then builds and runs the outside applications once through pkg-config and once through
# find_package(), each with the shared library and with the archive, and compiles every installed
# header alone.
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

# expect_all DIR [SUFFIX]: runs the applications that were built in DIR, of one kind of linking.
expect_all() {
  suffix=${2-}
  expect "$1/app$suffix" "app$suffix ticked"
  expect "$1/app_reversed$suffix" "app_reversed$suffix ticked"
  expect "$1/own_support$suffix" "own gnl_init" "own utime_diff" "own_support$suffix ticked"
  expect "$1/own_main$suffix" "VrnException: Error=9 (errno=0) - thrown in own main" \
    "an event manager of the known kind" "exception 6" "Duplicate EvtMgr"
}

# expect_kind KIND PROGRAM...: the programs need the library as a shared one (shared), only others
# (static), or none at all (all_static).
expect_kind() {
  expected=$1
  shift
  for program; do
    needed=$(readelf -d "$program" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
    case $needed in
      *libvornfc_mt.so.1*) kind=shared ;;
      '') kind=all_static ;;
      *) kind=static ;;
    esac
    [ "$kind" = "$expected" ] || fail "$program is not $expected: it needs ${needed:-nothing}"
  done
}

"$cmake" --install "$build" --prefix "$prefix" >/dev/null
pc_file=$(find "$prefix" -name vornfc.pc)
[ -n "$pc_file" ] || fail "no vornfc.pc was installed"
"$prefix/bin/vornfc-conf" --version || fail "vornfc-conf does not run where it was installed"
PKG_CONFIG_PATH=$(dirname "$pc_file")
LD_LIBRARY_PATH=$(dirname "$PKG_CONFIG_PATH")
export PKG_CONFIG_PATH LD_LIBRARY_PATH

CXX_COMPILERS=$cxx "$here/../../tools/check-headers" "$prefix/include"

# compile PROGRAM "PACKAGES" "--static" SOURCE...: with shared libraries when the third is empty.
compile() {
  program=$1 packages=$2 static=$3
  shift 3
  # shellcheck disable=SC2046,SC2086  # lists of words
  (cd "$here" && "$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror \
    ${static:+-static} -o "$work/$program" "$@" $(pkg-config $static --cflags --libs $packages))
}
compile app "vornfc vornsupport" "" app.cpp
compile app_reversed "vornsupport vornfc" "" app.cpp
compile own_support "vornfc vornsupport" "" app.cpp own_support.cpp
compile own_main "vornfc vornsupport" "" own_main.cpp
expect_all "$work"
expect_kind shared "$work/app" "$work/app_reversed" "$work/own_support" "$work/own_main"

# With --static, package vornfc is complete. The linker warns that name resolution needs the shared
# libraries of the C library at run time.
compile app_all_static vornfc --static app.cpp
compile app_reversed_all_static "vornsupport vornfc" --static app.cpp
compile own_support_all_static vornfc --static app.cpp own_support.cpp
compile own_main_all_static vornfc --static own_main.cpp
expect_all "$work" _all_static
expect_kind all_static "$work"/*_all_static

"$cmake" -G "$generator" -S "$here" -B "$work/outside" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
"$cmake" --build "$work/outside"
for suffix in '' _static _all_static; do
  expect_all "$work/outside" "$suffix"
done
expect_kind shared "$work/outside/app" "$work/outside/own_main"
expect_kind static "$work/outside/app_static" "$work/outside/own_main_static"
expect_kind all_static "$work"/outside/*_all_static
