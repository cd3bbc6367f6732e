#!/usr/bin/env bash
# Builds the two Debian packages from a finished build folder, checks what they hold, installs them
# on this machine, runs the installed service on a private bus with the installed development
# keychain, reads a value with the installed cmctl, stops the service, and purges both packages.
#   bash packaging/test/package_test.sh BUILD_DIR
# Needs root (dpkg). Leaves the system as it found it, but for the system user and groups the
# package creates, which Debian keeps after a purge.
set -euo pipefail
build=$(cd "${1:?usage: package_test.sh BUILD_DIR}" && pwd)
work=$(mktemp -d /tmp/cm-package-XXXXXX)
pids=()

fail() {
    echo "package test: FAILED: $*" >&2
    for log in "$work"/*.log; do [ -f "$log" ] && { echo "--- $log" >&2; tail -5 "$log" >&2; }; done
    exit 1
}
cleanup() {
    for pid in "${pids[@]}"; do
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    dpkg -P config-manager config-manager-devtools >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT

wait_for() {  # wait_for <what> <command...>: up to 10 s
    local what=$1
    shift
    for _ in $(seq 100); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.1
    done
    fail "$what"
}

# The file list of a package, without folders.
files_of() { dpkg-deb -c "$1" | awk '{print $6}' | grep -v '/$' | sed 's|^\./|/|' | sort; }

expect_files() {  # expect_files <deb> <path...>
    local deb=$1
    shift
    local expected
    expected=$(printf '%s\n' "$@" | sort)
    [ "$(files_of "$deb")" = "$expected" ] || fail "$(basename "$deb") holds:
$(files_of "$deb")
expected:
$expected"
}

(cd "$build" && cpack -B "$work/packages" >"$work/cpack.log" 2>&1) || fail "cpack"
service=$(ls "$work"/packages/config-manager_*_amd64.deb)
devtools=$(ls "$work"/packages/config-manager-devtools_*_amd64.deb)
expect_files "$service" /etc/config-manager/default.json /usr/bin/cmctl /usr/sbin/config-manager \
    /usr/lib/systemd/system/config-manager.service /usr/share/bash-completion/completions/cmctl \
    /usr/share/config-manager/bus-policy/config-manager.conf /usr/share/man/man1/cmctl.1.gz \
    /usr/share/doc/config-manager/copyright /usr/share/doc/config-manager/changelog.gz \
    /usr/share/lintian/overrides/config-manager
expect_files "$devtools" /usr/bin/keychain-devd /usr/bin/mqtt-bridge-devd /usr/bin/shadow-cloud /usr/bin/watchdog-devd \
    /usr/share/doc/config-manager-devtools/copyright /usr/share/doc/config-manager-devtools/changelog.gz \
    /usr/share/lintian/overrides/config-manager-devtools
dpkg-deb -f "$service" Depends | grep -q libdbus-1-3 || fail "no library dependencies from shlibdeps"
[ "$(dpkg-deb --ctrl-tarfile "$service" | tar -xO ./conffiles)" = /etc/config-manager/default.json ] ||
    fail "the default file is not a conffile"

dpkg -i "$service" "$devtools" >"$work/dpkg.log" 2>&1 || fail "dpkg -i"
getent passwd config-manager >/dev/null || fail "no system user config-manager"
getent group config-manager-admin >/dev/null || fail "no group config-manager-admin"
systemd-analyze verify /usr/lib/systemd/system/config-manager.service >"$work/verify.log" 2>&1 ||
    fail "systemd-analyze verify"

cat >"$work/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>custom</type>
  <listen>unix:path=$work/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
CONF
address=unix:path=$work/bus
dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile >"$work/dbus.log" 2>&1 &
pids+=($!)
owned() { dbus-send --bus="$address" --print-reply --reply-timeout=1000 --dest=org.freedesktop.DBus /org/freedesktop/DBus \
    org.freedesktop.DBus.NameHasOwner "string:$1" 2>/dev/null | grep -q "boolean true"; }
wait_for "the bus" test -S "$work/bus"
/usr/bin/keychain-devd "$work/keychain" "$address" >"$work/keychain.log" 2>&1 &
pids+=($!)
wait_for "the installed keychain-devd" owned iot.gateway.security.keychain
(cd "$work" && CONFIG_MANAGER_BUS_ADDRESS=$address exec /usr/sbin/config-manager /etc/config-manager/default.json) \
    >"$work/config-manager.log" 2>&1 &
service_pid=$!
pids+=($service_pid)
wait_for "the installed config-manager" owned iot.dmp.config.adapter

value=$(/usr/bin/cmctl --address "$address" get gw_system_devicename) || fail "cmctl get"
[ "$value" = gw-0001 ] || fail "cmctl read '$value' instead of gw-0001"
/usr/bin/cmctl --address "$address" set gw_package_test ok || fail "cmctl set"
[ "$(/usr/bin/cmctl --address "$address" get gw_package_test)" = ok ] || fail "cmctl read back"

kill -TERM "$service_pid"
status=0
wait "$service_pid" || status=$?
[ $status -eq 0 ] || fail "config-manager exited with $status on SIGTERM"

dpkg -P config-manager config-manager-devtools >>"$work/dpkg.log" 2>&1 || fail "dpkg -P"
for gone in /usr/sbin/config-manager /usr/bin/cmctl /etc/config-manager /usr/bin/keychain-devd; do
    [ ! -e "$gone" ] || fail "$gone is still there after the purge"
done
echo "package test: passed ($(basename "$service"), $(basename "$devtools"))"
