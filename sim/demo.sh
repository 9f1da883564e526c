#!/usr/bin/env bash
# A rehearsal pass on loopback: kestil-sim serves a generated tree behind a lossy,
# rate-limited link, and kestil walks through ls, qadd, report, get, put and rm against it.
# Usage: sim/demo.sh [BIN_DIR]   (default build/bin; `make demo` builds first)
set -euo pipefail

bin=$(cd "${1:-build/bin}" && pwd)
kestil="$bin/kestil"
sim="$bin/kestil-sim"
addr=127.0.8.200
link=(--rate 128000 --delay 80 --loss 0.05 --dup 0.01 --reorder 0.02 --seed 1)

work=$(mktemp -d "${TMPDIR:-/tmp}/kestil-demo.XXXXXX")
sim_pid=""
cleanup() {
  if [[ -n "$sim_pid" ]] && kill -0 "$sim_pid" 2>/dev/null; then
    kill -INT "$sim_pid"
    wait "$sim_pid" || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

step() { printf '\n\033[1m==> %s\033[0m\n' "$*"; }
run() {
  printf '$ kestil %s\n' "$*"
  "$kestil" "$@"
}
# qadd, qrm and status are one datagram each way with no retry of their own: on a lossy
# link the operator asks again.
ask() {
  for attempt in 1 2 3; do
    run "$@" && return 0
    echo "(no answer: the link lost a datagram; asking again)"
  done
  return 1
}

# The spacecraft's files.
root="$work/spacecraft"
mkdir -p "$root/images" "$root/logs" "$root/uploads"
for i in 1 2 3; do head -c $((8000 * i)) /dev/urandom > "$root/images/img-00$i.jpg"; done
printf 'pass %d nominal\n' $(seq 1 400) > "$root/logs/pass.log"
printf 'hidden\n' > "$root/logs/.checksum"

step "Starting kestil-sim on $addr: ${link[*]}"
"$sim" --root "$root" --addr "$addr" "${link[@]}" -v > "$work/trace.txt" 2> "$work/sim.err" &
sim_pid=$!
for _ in $(seq 1 100); do
  grep -q "serving" "$work/sim.err" 2>/dev/null && break
  kill -0 "$sim_pid" 2>/dev/null || { cat "$work/sim.err"; exit 1; }
  sleep 0.05
done
cat "$work/sim.err"

ground="$work/ground"
mkdir -p "$ground"
cd "$ground"

step "List the remote images, then the logs with hidden files and recursion"
run ls -h "$addr" -t 10 images
run ls -h "$addr" -t 10 -o ar logs

step "Queue two files for downlink and read the queue report"
ask qadd -h "$addr" -g 1 -p 2 images/img-002.jpg
ask qadd -h "$addr" -g 1 -p 1 logs/pass.log
run report -h "$addr" -t 10

step "Download an image (progress bar), check its digest"
run get -h "$addr" -t 10 images/img-003.jpg
md5sum img-003.jpg "$root/images/img-003.jpg"

step "Upload a command file"
printf 'SAFE_MODE OFF\nDOWNLINK images/img-002.jpg\n' > commands.txt
run put -h "$addr" -p 40 -o uploads/commands.txt commands.txt
md5sum commands.txt "$root/uploads/commands.txt"

step "Delete an image and list again"
# rm gets no answer: the demo looks at the spacecraft's disk, and repeats a lost request.
for attempt in 1 2 3; do
  run rm -h "$addr" images/img-001.jpg
  for _ in $(seq 1 20); do [[ -e "$root/images/img-001.jpg" ]] || break 2; sleep 0.05; done
done
run ls -h "$addr" -t 10 images

step "What the link did (from the simulator's trace)"
printf '%s datagrams traced, %s dropped by loss, %s duplicated, %s held back\n' \
  "$(grep -c -v -- ' --- ' "$work/trace.txt")" "$(grep -c 'DROPPED(loss)' "$work/trace.txt" || true)" \
  "$(grep -c ' dup$' "$work/trace.txt" || true)" "$(grep -c ' late$' "$work/trace.txt" || true)"

step "Stopping kestil-sim"
kill -INT "$sim_pid"
wait "$sim_pid"
sim_pid=""
tail -n 1 "$work/sim.err"
