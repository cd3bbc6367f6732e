#!/usr/bin/env bash
# Builds config-manager and runs it on a private bus at the gateway's fixed address, together with
# the development keychain service, which keeps the stored configuration under .run/keychain so
# that a second run finds the values set in the first. Logs go to .run/logs. Ctrl-C stops all.
set -euo pipefail
cd "$(dirname "$0")/.."

socket_dir=/tmp/var/run/mbusd
address=unix:path=$socket_dir/mbusd_socket
run_dir=.run
logs=$run_dir/logs

bash scripts/install-deps.sh
cmake -S . -B build
cmake --build build -j2 --target config-manager keychain-devd

bus_call() {  # bus_call <method> [args...]: a call on the bus daemon itself
    local method=$1
    shift
    dbus-send --bus="$address" --print-reply --reply-timeout=1000 --dest=org.freedesktop.DBus \
        /org/freedesktop/DBus "org.freedesktop.DBus.$method" "$@" 2>/dev/null
}

wait_for() {  # wait_for <what> <command...>: up to 10 s
    local what=$1
    shift
    for _ in $(seq 100); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.1
    done
    echo "run.sh: $what did not come up; see $logs" >&2
    return 1
}

name_owned() { bus_call NameHasOwner "string:$1" | grep -q "boolean true"; }

if bus_call GetId >/dev/null; then
    echo "run.sh: a bus already answers at $address; stop it first" >&2
    exit 1
fi
mkdir -p "$socket_dir" "$run_dir/keychain" "$logs"

pids=()
stop_all() {
    trap - EXIT INT TERM
    # Newest first: config-manager shuts down while its keychain and bus are still there.
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        kill -TERM "${pids[i]}" 2>/dev/null || true
        wait "${pids[i]}" 2>/dev/null || true
    done
    echo "run.sh: stopped"
}
trap stop_all EXIT
trap 'exit 130' INT TERM

# Each service gets a session of its own, so Ctrl-C reaches only this script, which then stops
# them in order with SIGTERM.
setsid dbus-daemon --config-file=scripts/bus.conf --nofork --nopidfile >"$logs/dbus-daemon.log" 2>&1 &
pids+=($!)
wait_for "the bus" bus_call GetId

setsid build/tools/keychain-devd/keychain-devd "$run_dir/keychain" "$address" >"$logs/keychain-devd.log" 2>&1 &
pids+=($!)
wait_for "the keychain service" name_owned iot.gateway.security.keychain

CONFIG_MANAGER_BUS_ADDRESS=$address setsid build/src/config-manager config/default.json \
    >"$logs/config-manager.out" 2>"$logs/config-manager.log" &
pids+=($!)
wait_for "config-manager" name_owned iot.dmp.config.adapter

cat <<USAGE
config-manager is running on $address (logs in $logs/).

Set and read a value:
  busctl --address=$address call iot.dmp.configmanager /iot/dmp/configmanager iot.dmp.configmanager set_config ss gw_orlo_level 3
  busctl --address=$address call iot.dmp.configmanager /iot/dmp/configmanager iot.dmp.configmanager get_config s gw_orlo_level
  dbus-send --bus=$address --print-reply --dest=iot.dmp.configmanager /iot/dmp/configmanager iot.dmp.configmanager.get_config string:gw_system_devicename

Watch the bus (watchdog feeding, notifications):
  dbus-monitor --address $address

Ctrl-C stops config-manager, the keychain service and the bus.
USAGE

# Until Ctrl-C, or until one of the three ends on its own.
wait -n "${pids[@]}" || true
