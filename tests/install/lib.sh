# Shared by the install tests: strict mode, a scratch directory removed at exit, kestil-sim on loopback.
set -euo pipefail
BUILD_DIR=$1
SOURCE_DIR=$2
WORK=$(mktemp -d)
SIM_PID=""

fail() { echo "FAIL: $*" >&2; exit 1; }

finish() {
  if [[ -n $SIM_PID ]]; then kill -TERM "$SIM_PID" 2>/dev/null || true; fi
  rm -rf "$WORK"
}
trap finish EXIT

start_sim() {
  local bin=$1
  shift
  mkfifo "$WORK/sim-err"
  timeout -k 5 100 "$bin" "$@" >"$WORK/sim-trace.txt" 2>"$WORK/sim-err" &
  SIM_PID=$!
  exec {SIM_ERR}<"$WORK/sim-err"
  local line=""
  read -r -t 10 -u "$SIM_ERR" line || fail "kestil-sim did not start"
  [[ $line == "kestil-sim: serving"* ]] || fail "kestil-sim: $line"
}

stop_sim() {
  kill -TERM "$SIM_PID"
  local status=0
  wait "$SIM_PID" || status=$?
  SIM_PID=""
  ((status == 0)) || fail "kestil-sim exited with $status"
}

expect_eq() { [[ $2 == "$3" ]] || fail "$1: expected [$2], got [$3]"; }

md5_of() { md5sum "$1" | cut -d' ' -f1; }

make_file() { head -c "$2" < <(yes "kestil block content $3" | tr -d '\n') >"$1"; }
