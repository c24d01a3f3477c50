#!/usr/bin/env bash
# Installs the build into a scratch prefix and checks every installed file
# with the validator made for it; then builds the .deb, unpacks it into a
# scratch root and runs the command-line tool from there.
#
# Usage: install_test.sh BUILD_DIR WORK_DIR
set -uo pipefail
build=$(cd "$1" && pwd)
work=$2
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
pass() { echo "ok: $*"; }
need() { command -v "$1" >/dev/null || { echo "FAIL: $1 is not installed (scripts/install-deps installs it)"; exit 1; }; }
for tool in desktop-file-validate appstreamcli lexgrog man zsh file rsvg-convert cpack dpkg-deb dpkg-shlibdeps; do need "$tool"; done

cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 || { cat "$work/install.log"; exit 1; }

# Every installed file is claimed by one check below; anything else fails.
declare -A checked
claim() { checked[$1]=1; }

bin=$prefix/bin
version=$(grep -A1 '<key>CFBundleVersion</key>' "$(dirname "$0")/../../resources/Info.plist" | sed -n 's:.*<string>\(.*\)</string>.*:\1:p')
[[ -n $version ]] || fail "no CFBundleVersion in Info.plist"
for exe in dubmatch dubmatch-cli; do
  claim "bin/$exe"
  out=$(QT_QPA_PLATFORM=offscreen "$bin/$exe" --version 2>&1)
  [[ $out == "$exe $version" ]] && pass "$exe --version: $out" || fail "$exe --version said '$out', expected '$exe $version'"
done

desktop=share/applications/org.dubmatch.Dubmatch.desktop
claim "$desktop"
if out=$(desktop-file-validate "$prefix/$desktop" 2>&1) && [[ -z $out ]]; then pass "desktop-file-validate"; else fail "desktop-file-validate: $out"; fi
grep -q '^Exec=dubmatch %F$' "$prefix/$desktop" || fail "the desktop file does not open several files (%F)"
grep -q '^MimeType=.*video/x-matroska;' "$prefix/$desktop" || fail "the desktop file does not claim Matroska"

metainfo=share/metainfo/org.dubmatch.Dubmatch.metainfo.xml
claim "$metainfo"
if out=$(appstreamcli validate --no-net "$prefix/$metainfo" 2>&1); then pass "appstreamcli validate"; else fail "appstreamcli validate: $out"; fi
grep -q "<release version=\"$version\"" "$prefix/$metainfo" || fail "metainfo release is not $version"

claim share/icons/hicolor/scalable/apps/org.dubmatch.Dubmatch.svg
rsvg-convert -w 8 -h 8 "$prefix/share/icons/hicolor/scalable/apps/org.dubmatch.Dubmatch.svg" -o "$work/icon-check.png" \
  && pass "the SVG icon renders" || fail "the SVG icon does not render"
for size in 16 24 32 48 64 128 256 512; do
  png=share/icons/hicolor/${size}x${size}/apps/org.dubmatch.Dubmatch.png
  claim "$png"
  file "$prefix/$png" | grep -q "PNG image data, $size x $size" || fail "$png: $(file -b "$prefix/$png")"
done
pass "icons at 8 sizes"

for page in dubmatch dubmatch-cli; do
  man1=share/man/man1/$page.1
  claim "$man1"
  warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$prefix/$man1" 2>&1 >/dev/null)
  [[ -z $warnings ]] && pass "man --warnings $page" || fail "man --warnings $page: $warnings"
  lexgrog "$prefix/$man1" | grep -q "\"$page - " && pass "lexgrog $page" || fail "lexgrog $page: $(lexgrog "$prefix/$man1")"
  grep -q "@PROJECT_VERSION@" "$prefix/$man1" && fail "$page.1 has no version filled in"
done
grep -q '^\.B 143$' "$prefix/share/man/man1/dubmatch-cli.1" || fail "the manual does not give the exit statuses"

bash_comp=share/bash-completion/completions/dubmatch-cli
claim "$bash_comp"
reply=$(bash -c "source /usr/share/bash-completion/bash_completion 2>/dev/null; source '$prefix/$bash_comp';
  COMP_WORDS=(dubmatch-cli sync x.mov --sound-codec ''); COMP_CWORD=4; _dubmatch_cli; echo \"\${COMPREPLY[*]}\"")
[[ $reply == "same pcm flac alac aac" ]] && pass "bash completes --sound-codec" || fail "bash completion of --sound-codec gave '$reply'"
reply=$(bash -c "source '$prefix/$bash_comp'; COMP_WORDS=(dubmatch-cli ''); COMP_CWORD=1; _dubmatch_cli; echo \"\${COMPREPLY[*]}\"")
[[ $reply == *"sync"* && $reply == *"info"* ]] && pass "bash completes the commands" || fail "bash completion of commands gave '$reply'"
zsh_comp=share/zsh/vendor-completions/_dubmatch-cli
claim "$zsh_comp"
zsh -n "$prefix/$zsh_comp" && head -1 "$prefix/$zsh_comp" | grep -q '^#compdef dubmatch-cli$' && pass "zsh completion parses" || fail "zsh completion"

for doc in ReadMe.md README.md dubmatch-cli.schema.json; do
  claim "share/doc/dubmatch/$doc"
  [[ -s $prefix/share/doc/dubmatch/$doc ]] || fail "empty $doc"
done
/usr/bin/python3 -c "import json,sys; json.load(open(sys.argv[1]))" "$prefix/share/doc/dubmatch/dubmatch-cli.schema.json" \
  || fail "the schema is not JSON"

while IFS= read -r f; do
  rel=${f#"$prefix"/}
  [[ -n ${checked[$rel]:-} ]] || fail "installed but not checked: $rel"
done < <(find "$prefix" -type f)

# The Debian package: dependencies from dpkg-shlibdeps, and it runs unpacked.
(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/pkg" >"$work/cpack.log" 2>&1) || { tail -20 "$work/cpack.log"; exit 1; }
deb=$(ls "$work"/pkg/*.deb 2>/dev/null | head -1)
if [[ -z $deb ]]; then
  fail "cpack made no .deb"
else
  depends=$(dpkg-deb -f "$deb" Depends)
  [[ $depends == *libavformat* && $depends == *libqt6widgets6* ]] && pass "Depends: $depends" || fail "Depends is '$depends'"
  dpkg -x "$deb" "$work/root"
  out=$("$work/root/usr/bin/dubmatch-cli" --version 2>&1)
  [[ $out == "dubmatch-cli $version" ]] && pass "unpacked .deb runs: $out" || fail "the unpacked dubmatch-cli said '$out'"
  dpkg-deb -c "$deb" >"$work/deb-contents.txt"
  grep -q './usr/share/applications/org.dubmatch.Dubmatch.desktop' "$work/deb-contents.txt" || fail "the .deb has no desktop file"
  echo "package: $(basename "$deb"), $(du -k "$deb" | cut -f1) KiB"
fi

if ((failures)); then
  echo "$failures check(s) failed"
  exit 1
fi
echo "all install checks passed"
