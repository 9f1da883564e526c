# The Debian package: lintian clean, runtime dependencies, links, pages, completion, dissector, version, own test.
source "$(dirname "$0")/lib.sh"
ADDR=127.0.11.1

DEB_BUILD_OPTIONS=parallel=2 "$SOURCE_DIR/scripts/build-deb" "$WORK/pkg" >"$WORK/build.log" 2>&1 ||
  fail "package build: $(tail -30 "$WORK/build.log")"
deb=$(echo "$WORK"/pkg/kestil_*.deb)
[[ -f $deb ]] || fail "no package in $(ls "$WORK/pkg")"
mkdir -p "$WORK/lintian-tmp"
TMPDIR=$WORK/lintian-tmp lintian --fail-on error,warning "$WORK"/pkg/*.deb >"$WORK/lintian.log" 2>&1 || fail "lintian: $(cat "$WORK/lintian.log")"

depends=$(dpkg-deb -f "$deb" Depends)
[[ $depends == *zlib1g* && $depends == *libmd0* ]] || fail "Depends lacks zlib or libmd: $depends"
[[ $depends != *-dev* ]] || fail "Depends names a development package: $depends"

root=$WORK/root
dpkg -x "$deb" "$root"
man1=$root/usr/share/man/man1
for name in kestil-get kestil-resume kestil-put kestil-ls kestil-rm kestil-report kestil-lsread \
  kestil-progress dlq-add dlq-rm filemgr-status; do
  expect_eq "link $name" kestil "$(readlink "$root/usr/bin/$name")"
  expect_eq "manual page link $name" kestil.1.gz "$(readlink "$man1/$name.1.gz")"
  [[ -f $root/usr/share/bash-completion/completions/$name ]] || fail "no completion for $name"
done
for page in kestil-get kestil-sim kestil-pass; do
  man -l "$man1/$page.1.gz" 2>&1 | grep -q "^NAME" || fail "man cannot show $page"
done
for f in usr/bin/kestil usr/bin/kestil-sim usr/bin/kestil-pass usr/share/bash-completion/completions/kestil \
  usr/share/bash-completion/completions/kestil-pass; do
  [[ -f $root/$f ]] || fail "missing $f"
done
plugins=("$root"/usr/lib/*/wireshark/plugins/kestil.lua)
[[ -f ${plugins[0]} ]] || fail "the dissector is not in Wireshark's global plugin folder"

expect_eq "kestil-sim --version" "kestil-sim $(dpkg-parsechangelog -l "$SOURCE_DIR/debian/changelog" -S Version)" \
  "$("$root/usr/bin/kestil-sim" --version)"

PATH=$root/usr/bin:/usr/bin:/bin KESTIL_TEST_ADDR=$ADDR AUTOPKGTEST_TMP=$WORK \
  timeout 200 "$SOURCE_DIR/debian/tests/transfer" >"$WORK/transfer.log" 2>&1 || fail "$(cat "$WORK/transfer.log")"
echo "package: pass"
