#!/usr/bin/env bash
# Longer loss runs than make check can afford: get and put of one file through kestil-sim at
# several loss levels (with duplication and hold-back), timed, each file checked by MD5.
# Usage: sim/loss_run.sh [BIN_DIR] [SIZE_BYTES] [LOSS...]   (defaults: build/bin 200000 0 0.1 0.3)
set -euo pipefail

bin=$(cd "${1:-build/bin}" && pwd)
size=${2:-200000}
shift $(( $# > 2 ? 2 : $# ))
losses=("$@")
[[ ${#losses[@]} -gt 0 ]] || losses=(0 0.1 0.3)
addr=127.0.8.210

work=$(mktemp -d "${TMPDIR:-/tmp}/kestil-loss.XXXXXX")
sim_pid=""
cleanup() {
  if [[ -n "$sim_pid" ]] && kill -0 "$sim_pid" 2>/dev/null; then kill -TERM "$sim_pid"; wait "$sim_pid" || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

mkdir -p "$work/root" "$work/ground"
head -c "$size" /dev/urandom > "$work/root/down.bin"
head -c "$size" /dev/urandom > "$work/ground/up.bin"

elapsed() { awk '/^Elapsed time:/ { split($3, t, ":"); printf "%.2f", t[1] * 3600 + t[2] * 60 + t[3] }' "$1"; }
verdict() { [[ "$(md5sum < "$1")" == "$(md5sum < "$2")" ]] && echo ok || echo MISMATCH; }

printf '%-6s %10s %8s %10s %8s\n' loss "get s" "get md5" "put s" "put md5"
for loss in "${losses[@]}"; do
  "$bin/kestil-sim" --root "$work/root" --addr "$addr" --loss "$loss" --dup 0.02 --reorder 0.05 --delay 20 \
    --seed 11 2> "$work/sim.err" &
  sim_pid=$!
  for _ in $(seq 1 100); do grep -q serving "$work/sim.err" 2>/dev/null && break; sleep 0.05; done
  cd "$work/ground"
  rm -f down.bin "$work/root/up.bin"
  timeout 600 "$bin/kestil" get -h "$addr" -t 10 down.bin > get.out 2>&1 || true
  timeout 600 "$bin/kestil" put -h "$addr" -t 10 -p 400 up.bin > put.out 2>&1 || true
  printf '%-6s %10s %8s %10s %8s\n' "$loss" "$(elapsed get.out)" "$(verdict down.bin "$work/root/down.bin")" \
    "$(elapsed put.out)" "$(verdict up.bin "$work/root/up.bin")"
  cd - > /dev/null
  kill -TERM "$sim_pid"
  wait "$sim_pid" || true
  sim_pid=""
done
