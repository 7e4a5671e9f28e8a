#!/bin/sh
# tests/install/template.sh BUILD-DIR|PREFIX CMAKE GENERATOR CXX: copies examples/template out of the
# tree, gives the copy another name, and builds, tests, installs and runs it as its README says,
# against an installed library: that of PREFIX (/usr for the Debian packages), or one that is
# installed from BUILD-DIR into a prefix of its own.
set -eu
tree=$1 cmake=${2:-cmake} generator=${3:-Unix Makefiles} cxx=${4:-c++}
template=$(cd "$(dirname "$0")/../../examples/template" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

prefix=$tree
if [ -e "$tree/CMakeCache.txt" ]; then
  prefix=$work/prefix
  "$cmake" --install "$tree" --prefix "$prefix" >/dev/null
fi
[ -d "$prefix/include/vornfc" ] || fail "no library is installed in $prefix"

# Nothing but what is installed may be found.
cp -r "$template" "$work/copy"
cd "$work/copy"
rm -rf build
sed -i 's/greetd/minuted/g; s/Greetd/Minuted/g' ./*
for file in greetd*; do mv "$file" "minuted${file#greetd}"; done
! grep -ri greetd . || fail "the former name is left"

CXX=$cxx "$cmake" -G "$generator" -S . -B build -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_INSTALL_PREFIX="$work/installed" -DCMAKE_CXX_FLAGS=-Werror
"$cmake" --build build
CTEST_OUTPUT_ON_FAILURE=1 "$cmake" --build build --target test
"$cmake" --install build

unit=$work/installed/lib/systemd/system/minuted.service
command=$(sed -n 's/^ExecStart=//p' "$unit")
program=${command%% *}
[ -x "$program" ] || fail "the unit starts $program, which is not there"
(cd / && env -i VORNTRC_FILENAME=stderr "$program" -h) 2>&1 | grep -q '^minuted \[-D workdir\]' ||
  fail "the installed program does not run"
if command -v systemd-analyze >/dev/null; then
  systemd-analyze verify "$unit" || fail "the unit is not well formed"
else
  echo "systemd-analyze is not installed: the unit was not verified"
fi
echo "ok: the template"
