# An install under any prefix, moved: each command link still reaches its own command.
source "$(dirname "$0")/lib.sh"
prefix=$WORK/opt/kestil
cmake --install "$BUILD_DIR" --prefix "$prefix" >"$WORK/install.log" 2>&1 || fail "install: $(cat "$WORK/install.log")"
mv "$prefix" "$WORK/moved"
bin=$WORK/moved/bin
[[ -x $bin/kestil-sim && -x $bin/kestil-pass ]] || fail "kestil-sim or kestil-pass not installed"
expect_eq "kestil-progress" "Usage: progress <file>" "$(cd "$WORK" && timeout 10 "$bin/kestil-progress")"
expect_eq "kestil-lsread" "Usage: lsread [-upload <mission>] <input file>" "$(cd "$WORK" && timeout 10 "$bin/kestil-lsread")"
expect_eq "dlq-rm" "qadd [-h host] [-g <group num>] [-p <priority num>] <file>" "$(cd "$WORK" && timeout 10 "$bin/dlq-rm")"
expect_eq "kestil-rm -x" "rm [-h host] [-L] <remote file>" "$(cd "$WORK" && timeout 10 "$bin/kestil-rm" -x 2>/dev/null)"
echo "prefix: pass"
