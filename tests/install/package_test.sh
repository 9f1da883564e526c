# The Debian package, packed from this build tree, unpacked into a scratch root with dpkg -x:
# runtime dependencies only; the eleven command links, manual pages, completion and dissector;
# its kestil-get, dlq-add, kestil-report and kestil-pass work against its own kestil-sim.
source "$(dirname "$0")/lib.sh"
ADDR=127.0.11.1

cpack -G DEB --config "$BUILD_DIR/CPackConfig.cmake" -B "$WORK/pkg" >"$WORK/cpack.log" 2>&1 ||
  fail "cpack: $(cat "$WORK/cpack.log")"
debs=("$WORK"/pkg/kestil_*.deb)
[[ -f ${debs[0]} ]] || fail "no package in $(ls "$WORK/pkg")"
deb=${debs[0]}

depends=$(dpkg-deb -f "$deb" Depends)
[[ $depends == *zlib1g* && $depends == *libmd0* ]] || fail "Depends lacks zlib or libmd: $depends"
[[ $depends != *-dev* ]] || fail "Depends names a development package: $depends"

root=$WORK/root
dpkg -x "$deb" "$root"
for name in kestil-get kestil-resume kestil-put kestil-ls kestil-rm kestil-report kestil-lsread \
  kestil-progress dlq-add dlq-rm filemgr-status; do
  expect_eq "link $name" kestil "$(readlink "$root/usr/bin/$name")"
  [[ -f $root/usr/share/man/man1/$name.1 ]] || fail "no manual page for $name"
  [[ -f $root/usr/share/bash-completion/completions/$name ]] || fail "no completion for $name"
done
for f in usr/bin/kestil usr/bin/kestil-sim usr/bin/kestil-pass usr/share/man/man1/kestil.1 \
  usr/share/man/man1/kestil-sim.1 usr/share/man/man1/kestil-pass.1 usr/share/bash-completion/completions/kestil \
  usr/share/bash-completion/completions/kestil-pass; do
  [[ -f $root/$f ]] || fail "missing $f"
done
plugins=("$root"/usr/lib/*/wireshark/plugins/kestil.lua)
[[ -f ${plugins[0]} ]] || fail "the dissector is not in Wireshark's global plugin folder"

# From here on only the unpacked tree's programs are found.
export PATH=$root/usr/bin:/usr/bin:/bin
mkdir -p "$WORK/served/img" "$WORK/ground"
make_file "$WORK/served/img/pic.bin" 5000 pkg
start_sim "$root/usr/bin/kestil-sim" --root "$WORK/served" --addr $ADDR

cd "$WORK/ground"
status=0
timeout 60 kestil-get -h $ADDR -t 10 img/pic.bin >get.out 2>get.err || status=$?
expect_eq "kestil-get status" 0 "$status"
grep -q "^Received file pic.bin\.\.\.$" get.out || fail "kestil-get output: $(cat get.out)"
expect_eq "downloaded content" "$(md5_of "$WORK/served/img/pic.bin")" "$(md5_of pic.bin)"
[[ ! -e .pic.bin.kestil_state ]] || fail "state file left after a verified download"

status=0
out=$(timeout 20 dlq-add -h $ADDR -g 3 -p 1 img/pic.bin) || status=$?
expect_eq "dlq-add status" 0 "$status"
expect_eq "dlq-add output" "" "$out"

timeout 60 kestil-report -h $ADDR -t 10 >report.out 2>&1 || fail "kestil-report: $(cat report.out)"
grep -Eq "^0 +3 +1 +5000 +img/pic.bin$" report.out || fail "queue report: $(cat report.out)"

timeout 60 kestil-pass -h $ADDR --archive archive --for 30 -q >pass.out 2>&1 || fail "kestil-pass: $(cat pass.out)"
expect_eq "archived content" "$(md5_of "$WORK/served/img/pic.bin")" "$(md5_of archive/img/pic.bin)"
stop_sim
echo "package: pass"
