#!/usr/bin/env bash
# Runs a command inside a private network and mount namespace with its own
# system D-Bus and an avahi-daemon that sees only loopback, so that DNS-SD can
# be exercised for real without touching the host's network or daemons.
#
#   run-in-private-network.sh COMMAND [ARGS...]
#
# Exits with the command's status, or 77 (with the reason on stderr) when this
# machine cannot provide the namespace or the daemons.
set -euo pipefail

if [ "${KV_PRIVATE_NETWORK:-}" != inside ]; then
    for tool in unshare ip dbus-daemon avahi-daemon; do
        if ! command -v "$tool" >/dev/null 2>&1 && [ ! -x "/usr/sbin/$tool" ]; then
            echo "skip: $tool is not installed" >&2
            exit 77
        fi
    done
    if ! probe=$(unshare --net --mount --pid --fork true 2>&1); then
        echo "skip: cannot create a private network namespace: $probe" >&2
        exit 77
    fi
    # --pid with --kill-child: when this script ends, however it ends,
    # everything started inside goes with it.
    exec env KV_PRIVATE_NETWORK=inside PATH="$PATH:/usr/sbin:/sbin" \
        unshare --net --mount --pid --fork --kill-child "$0" "$@"
fi

mount --make-rprivate /
# This namespace's own processes in /proc: LeakSanitizer reads its threads there.
mount -t proc proc /proc
mount -t tmpfs -o mode=0755 kv-private-run /run
mkdir -p /run/dbus /run/avahi-daemon
ip link set lo up
# A name with two addresses: loopback, and one that no route leads to.
printf '127.0.0.1 localhost\n127.0.0.1 two-addresses.test\n192.0.2.1 two-addresses.test\n' \
    >/run/kv-hosts
mount --bind /run/kv-hosts /etc/hosts
ip link set lo multicast on

cat >/run/kv-dbus.conf <<'CONF'
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <includedir>/usr/share/dbus-1/system.d</includedir>
  <includedir>/etc/dbus-1/system.d</includedir>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
</busconfig>
CONF

cat >/run/kv-avahi.conf <<'CONF'
[server]
use-ipv4=yes
use-ipv6=yes
allow-interfaces=lo
enable-dbus=yes
ratelimit-interval-usec=1000000
ratelimit-burst=1000
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
CONF

dbus-daemon --config-file=/run/kv-dbus.conf --nofork --nopidfile &
for _ in $(seq 1 200); do
    [ -S /run/dbus/system_bus_socket ] && break
    sleep 0.05
done
if [ ! -S /run/dbus/system_bus_socket ]; then
    echo "private system D-Bus did not come up" >&2
    exit 1
fi
# Checks stop the daemon (avahi-daemon -k) and start it again with this command.
export KV_AVAHI_DAEMON="avahi-daemon --file=/run/kv-avahi.conf --no-drop-root --no-chroot --no-rlimits --no-proc-title"
$KV_AVAHI_DAEMON >/run/kv-avahi.log 2>&1 &

status=0
"$@" || status=$?
if [ "$status" -ne 0 ]; then
    echo "--- avahi-daemon log ---" >&2
    cat /run/kv-avahi.log >&2
fi
exit "$status"
