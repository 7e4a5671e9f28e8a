#!/bin/sh
# tests/install/abi.sh LIBVORNFC_MT.SO COMPILER: the library is what packaging/abi declares; and the
# comparison notices changes, here of a copy of the headers and of the declaration. 77: skipped.
set -eu
library=$1 compiler=$2
top=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

status=0
"$top/tools/check-abi" "$library" "$compiler" || status=$?
[ $status -eq 0 ] || exit $status

# notices WHAT FILE SED-SCRIPT LINE: with FILE changed by the script the comparison fails and shows LINE.
notices() {
  rm -rf "$work/copy"
  mkdir "$work/copy"
  cp -R "$top/CMakeLists.txt" "$top/include" "$top/packaging" "$top/tools" "$work/copy"
  sed "$3" "$top/$2" >"$work/copy/$2"
  if cmp -s "$top/$2" "$work/copy/$2"; then
    echo "FAILED: $2 has nothing that could be changed: $1" >&2
    exit 1
  fi
  status=0
  "$work/copy/tools/check-abi" "$library" "$compiler" >"$work/output" 2>&1 || status=$?
  if [ $status -ne 1 ] || ! grep -qxF -e "  $4" "$work/output"; then
    echo "FAILED: $1 ended with $status:" >&2
    cat "$work/output" >&2
    exit 1
  fi
  echo "noticed: $1"
}

notices "a virtual function in the middle" include/vornfc/timer.h \
  's/^  virtual void timerStopped() = 0;/  virtual void timerPaused() = 0;\n&/' \
  '+vornfc::VrnTimer slot 4 _ZN6vornfc8VrnTimer12timerStoppedEv'
notices "virtual functions in another order" include/vornfc/timer.h \
  's/timerExpired() = 0/OTHER() = 0/; s/timerStopped() = 0/timerExpired() = 0/; s/OTHER/timerStopped/' \
  '+vornfc::VrnTimer slot 2 _ZN6vornfc8VrnTimer12timerStoppedEv'
notices "a public data member" include/vornfc/log.h 's/^  int level = 3;/  int fresh = 0;\n&/' \
  '+vornfc::VrnLogSpec member level at 84 is int'
notices "a private data member" include/vornfc/timer.h \
  's/^  std::unique_ptr<ImplTimer> impl;/&\n  int fresh = 0;/' '+vornfc::VrnTimer size 24'
notices "a result of another type" include/vornfc/timer.h 's/^  bool stopTimer(bool/  int stopTimer(bool/' \
  '+vornfc::VrnTimer returns int from _ZN6vornfc8VrnTimer9stopTimerEb'
notices "a name that is gone" packaging/abi/names '/^exports main /i exports _ZN6vornfc4goneEv vornfc::gone()' \
  '-exports _ZN6vornfc4goneEv vornfc::gone()'
notices "a name that is new" packaging/abi/names '/^exports main /d' '+exports main main'
notices "a name more that the application has to bring" packaging/abi/names '/^needs gnl_init$/d' \
  '+needs gnl_init'
