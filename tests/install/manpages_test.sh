# The manual pages render without groff warnings and describe every command and option of the usage texts.
source "$(dirname "$0")/lib.sh"
for page in kestil.1 kestil-sim.1 kestil-pass.1; do
  warnings=$(groff -ww -z -man "$SOURCE_DIR/doc/$page" 2>&1) || fail "groff failed on $page"
  expect_eq "groff warnings for $page" "" "$warnings"
done

page=$SOURCE_DIR/doc/kestil.1
words=(get resume put ls rm report lsread progress qadd qrm status)
section() { HEAD=$1 awk '$0 == ENVIRON["HEAD"] {on = 1; next} /^\.S[SH]/ {on = 0} on' "$page"; }
commands=0
while read -r name help; do
  word=${words[commands]}
  commands=$((commands + 1))
  text=$(section ".SS \"$word (${name//-/\\-})\"")
  [[ -n $text ]] || fail "kestil(1) has no section headed $word ($name)"
  for opt in $(grep -o '\[-[A-Za-z]' <<<"$help" | cut -c3); do
    [[ $text == *"\\-$opt"* ]] || fail "kestil(1) does not describe $word -$opt"
  done
done < <("$BUILD_DIR/bin/kestil" | tail -n +2)
expect_eq "commands in the usage list" 11 "$commands"

for tool in kestil-sim kestil-pass; do
  tool_page=$(cat "$SOURCE_DIR/doc/$tool.1")
  for opt in $("$BUILD_DIR/bin/$tool" --help | grep -o -- '--[a-z-]*' | sort -u); do
    [[ $tool_page == *"${opt//-/\\-}"* ]] || fail "$tool(1) does not describe $opt"
  done
done
echo "manpages: pass"
