#!/usr/bin/env bash
# The Debian package as a user meets it: lintian finds no error in it; it
# installs on this machine (apt resolves what it depends on); the installed
# tool, man page, completion, unit, desktop entry and metainfo work and
# validate; and it removes cleanly, leaving none of its files. Needs root.
#
#   check-package.sh PACKAGE.deb
set -euo pipefail
deb=$(realpath "$1")
failures=0
fail() { echo "check-package: $*" >&2; failures=$((failures + 1)); }

# Its warnings are shown; errors fail.
lintian --fail-on error "$deb" || fail "lintian reports errors"

if dpkg-query -W -f='${Status}' kestrelvane 2>/dev/null | grep -q 'install ok installed'; then
    echo "check-package: kestrelvane is already installed here; it is not touched" >&2
    exit 1
fi
DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "$deb" >/dev/null
files=$(dpkg -L kestrelvane)

kestrelvane --help | grep -q '^usage: kestrelvane COMMAND' || fail "kestrelvane --help"
[ "$(man -w kestrelvane)" = /usr/share/man/man1/kestrelvane.1.gz ] || fail "man -w kestrelvane"
man -w kestrelvane-usbmuxd-sim >/dev/null || fail "man -w kestrelvane-usbmuxd-sim"
offered=$(bash -c 'source /usr/share/bash-completion/completions/kestrelvane;
                   COMP_WORDS=(kestrelvane ""); COMP_CWORD=1; _kestrelvane; echo "${COMPREPLY[*]}"')
for command in send receive devices demo pair id; do
    [[ " $offered " == *" $command "* ]] || fail "completion does not offer '$command'"
done
desktop-file-validate /usr/share/applications/kestrelvane.desktop || fail "desktop entry"
appstreamcli validate --no-net /usr/share/metainfo/org.kestrelvane.Kestrelvane.metainfo.xml \
    >/dev/null || fail "AppStream metainfo"
runtime=$(mktemp -d)
XDG_RUNTIME_DIR="$runtime" systemd-analyze verify --user \
    /usr/lib/systemd/user/kestrelvane-receive.service || fail "systemd unit"
rm -rf "$runtime"

DEBIAN_FRONTEND=noninteractive apt-get remove -y -q kestrelvane >/dev/null
while read -r path; do
    [ -d "$path" ] || [ ! -e "$path" ] || fail "left after removal: $path"
done <<<"$files"
dpkg-query -W -f='${Status}' kestrelvane 2>/dev/null | grep -q 'install ok installed' \
    && fail "still installed after removal"

[ "$failures" -eq 0 ] || exit 1
echo "check-package: built, installed, working and removed cleanly"
