# The Wireshark dissector decodes kestil-sim's capture of a lossy download as its trace describes it.
source "$(dirname "$0")/lib.sh"
ADDR=127.0.11.2
SIZE=6000                          # 43 data blocks of 141 bytes
LUA=$SOURCE_DIR/contrib/wireshark/kestil.lua
mkdir -p "$WORK/served" "$WORK/ground"
make_file "$WORK/served/f.bin" $SIZE dissector
touch -d "2026-01-02 03:04:05 UTC" "$WORK/served/f.bin"

start_sim "$BUILD_DIR/bin/kestil-sim" --root "$WORK/served" --addr $ADDR --loss 0.15 --seed 7 \
  --pcap "$WORK/cap.pcapng" -v
(cd "$WORK/ground" && timeout 60 "$BUILD_DIR/bin/kestil" get -h $ADDR -t 10 f.bin >get.out 2>&1) ||
  fail "get: $(cat "$WORK/ground/get.out")"
for _ in 1 2 3 4 5 6; do
  status=0
  (cd "$WORK/ground" && timeout 20 "$BUILD_DIR/bin/kestil" qadd -h $ADDR -g 2 -p 5 f.bin) || status=$?
  ((status == 0)) && break
done
expect_eq "qadd status" 0 "$status"
stop_sim

tshark_fields() {
  tshark -X "lua_script:$LUA" -r "$WORK/cap.pcapng" -T fields -E separator=';' -E occurrence=f "$@" 2>/dev/null
}

grep -v -- " --- " "$WORK/sim-trace.txt" |
  sed -E 's/^ *[0-9.]+ (in|out) +[0-9.]+:[0-9]+ code ([0-9]+)( (block|base) ([0-9]+))? len ([0-9]+) (.*)$/\1 \2 \5 \6 \7/' \
    >"$WORK/expected.txt"
tshark_fields -e ip.dst -e kestil.code -e kestil_filemgr.cmd -e kestil.block -e kestil.ack.base -e udp.length \
  -e frame.comment |
  awk -F';' -v sim=$ADDR '
    function hex(s,   i, v) {
      for (i = 3; i <= length(s); i++) v = v * 16 + index("0123456789abcdef", tolower(substr(s, i, 1))) - 1
      return v
    }
    {
      dir = $1 == sim ? "in" : "out"
      code = $2 != "" ? $2 : hex($3)
      num = $4 != "" ? $4 : ((code == 9 || code == 14) ? $5 : "")
      fate = $7 != "" ? substr($7, 7) : "ok"
      print dir, code, num, $6 - 8, fate
    }' >"$WORK/decoded.txt"
[[ -s $WORK/decoded.txt ]] || fail "tshark decoded nothing"
diff "$WORK/expected.txt" "$WORK/decoded.txt" >"$WORK/diff.txt" || fail "dissector and trace differ: $(head "$WORK/diff.txt")"

meta=$(tshark_fields -Y "kestil.code == 4" -e kestil.reqid -e kestil.meta.size -e kestil.meta.mtime_s \
  -e kestil.meta.mtime_ns -e kestil.meta.md5 | head -1)
expect_eq "metadata" "1;$SIZE;$(date -u -d "2026-01-02 03:04:05" +%s);0;$(md5_of "$WORK/served/f.bin")" "$meta"

delivered=$(awk '$1 == "out" && $2 >= 5 && $2 <= 8 && $5 != "DROPPED(loss)" {print $3}' "$WORK/decoded.txt" | sort -nu | paste -sd' ')
expect_eq "delivered blocks" "$(seq -s' ' 1 43)" "$delivered"
grep -Eq "^out [5-8] .* DROPPED\(loss\)$" "$WORK/decoded.txt" || fail "no data block was lost"

expect_eq "last acknowledgement" "40;0;40-43" \
  "$(tshark_fields -Y "kestil.code == 9" -e kestil.ack.base -e kestil.ack.missing -e kestil.ack.received | tail -1)"

expect_eq "file-manager request" "0x10;2;5;f.bin" \
  "$(tshark_fields -Y "kestil_filemgr.cmd == 0x10 && !frame.comment" -e kestil_filemgr.cmd -e kestil_filemgr.group \
    -e kestil_filemgr.priority -e kestil_filemgr.name | tail -1)"
expect_eq "file-manager answer" "0x11;0" \
  "$(tshark_fields -Y "kestil_filemgr.cmd == 0x11 && !frame.comment" -e kestil_filemgr.cmd -e kestil_filemgr.result | tail -1)"
echo "dissector: pass"
