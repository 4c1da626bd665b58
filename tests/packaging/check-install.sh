#!/usr/bin/env bash
# What `cmake --install` puts in place, checked as a user and a distribution
# would: every program, page, completion, unit and desktop file where it
# belongs and accepted by its validator; `kestrelvane --help` and `man -w`
# working from the installed files; completion offering the commands; and
# every option the tool's grammar knows mentioned in its --help, its man page
# and docs/kestrelvane.md.
#
#   check-install.sh BUILD_DIR SOURCE_DIR [PROGRAM...]
# (the built programs it checks may follow, for scripts/mutate; they are not used)
set -euo pipefail
build=$1 source=$2
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
failures=0
fail() { echo "check-install: $*" >&2; failures=$((failures + 1)); }

DESTDIR="$stage" cmake --install "$build" --prefix /usr >/dev/null
usr="$stage/usr"
for file in bin/kestrelvane bin/kestrelvane-app bin/kestrelvane-usbmuxd-sim \
    share/man/man1/kestrelvane.1.gz share/man/man1/kestrelvane-usbmuxd-sim.1.gz \
    share/man/man1/kestrelvane-app.1.gz \
    share/bash-completion/completions/kestrelvane lib/systemd/user/kestrelvane-receive.service \
    share/applications/kestrelvane.desktop share/metainfo/org.kestrelvane.Kestrelvane.metainfo.xml \
    share/icons/hicolor/scalable/apps/kestrelvane.svg; do
    [ -e "$usr/$file" ] || fail "not installed: /usr/$file"
done

desktop-file-validate "$usr/share/applications/kestrelvane.desktop" || fail "desktop entry"
appstreamcli validate --no-net "$usr/share/metainfo/org.kestrelvane.Kestrelvane.metainfo.xml" \
    >/dev/null || fail "AppStream metainfo"
# The unit runs `kestrelvane` from systemd's own search path: verified as a
# copy that names the staged program (verify checks that it exists), its
# documentation looked up among the staged pages.
mkdir -p "$stage/run/units" && chmod 700 "$stage/run"
sed "s|^ExecStart=kestrelvane |ExecStart=$usr/bin/kestrelvane |" "$usr/lib/systemd/user/kestrelvane-receive.service" \
    >"$stage/run/units/kestrelvane-receive.service"
MANPATH="$usr/share/man" XDG_RUNTIME_DIR="$stage/run" systemd-analyze verify --user \
    "$stage/run/units/kestrelvane-receive.service" || fail "systemd unit"

"$usr/bin/kestrelvane" --help | grep -q '^usage: kestrelvane COMMAND' || fail "kestrelvane --help"
MANPATH="$usr/share/man" man -w kestrelvane >/dev/null || fail "man -w kestrelvane"
MANPATH="$usr/share/man" man -w kestrelvane-usbmuxd-sim >/dev/null || fail "man -w simulator"
page=$(MANWIDTH=200 man -l "$usr/share/man/man1/kestrelvane.1.gz" 2>/dev/null)
grep -q '^NAME' <<<"$page" && grep -q 'kestrelvane - copy photos' <<<"$page" \
    || fail "the man page's NAME section"

offered=$(bash -c 'source "$1"; COMP_WORDS=(kestrelvane ""); COMP_CWORD=1; _kestrelvane;
                   echo "${COMPREPLY[*]}"' - "$usr/share/bash-completion/completions/kestrelvane")
for command in send receive devices demo pair id; do
    [[ " $offered " == *" $command "* ]] || fail "completion does not offer '$command': $offered"
done
options=$(bash -c 'source "$1"; COMP_WORDS=(kestrelvane send --al); COMP_CWORD=2; _kestrelvane;
                   echo "${COMPREPLY[*]}"' - "$usr/share/bash-completion/completions/kestrelvane")
[ "$options" = "--album" ] || fail "completion of 'send --al': $options"

grep -qx 'send --album' "$build/apps/cli/kestrelvane-options.txt" || fail "the option list is short"
while read -r command option; do
    "$usr/bin/kestrelvane" "$command" --help | grep -q -- "$option" \
        || fail "kestrelvane $command --help does not mention $option"
    grep -q -- "$option" <<<"$page" || fail "the man page does not mention $command $option"
    grep -q -- "$option" "$source/docs/kestrelvane.md" \
        || fail "docs/kestrelvane.md does not mention $command $option"
done <"$build/apps/cli/kestrelvane-options.txt"

[ "$failures" -eq 0 ] || exit 1
echo "check-install: everything in place"
