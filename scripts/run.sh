#!/usr/bin/env bash
# Builds config-manager and runs the whole gateway loop on this machine, each program on its own:
#   dbus-daemon     a private bus at the gateway's fixed address
#   keychain-devd   the development keychain; the stored configuration lives in .run/keychain
#   mosquitto       the MQTT broker on 127.0.0.1:$CM_MQTT_PORT (default 18830), configured in .run/mosquitto
#   mqtt-bridge-devd  the gateway's MQTT bridge "iot.bridge.mqtt"
#   shadow-cloud    the cloud's device-shadow service; its shadows live in .run/shadow-cloud.json
#   watchdog-devd   the gateway's watchdog, printing each feedDog
#   config-manager  the service itself
# The simulator's and the watchdog's lines are shown here as they come; every log is in .run/logs.
# Ctrl-C stops everything, newest first.
set -euo pipefail
cd "$(dirname "$0")/.."

socket_dir=/tmp/var/run/mbusd
address=unix:path=$socket_dir/mbusd_socket
mqtt_port=${CM_MQTT_PORT:-18830}
run_dir=.run
logs=$run_dir/logs

bash scripts/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j"$(nproc)" --target config-manager keychain-devd mqtt-bridge-devd shadow-cloud watchdog-devd cmctl

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
port_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
printed() { grep -q "$2" "$1"; }

if bus_call GetId >/dev/null; then
    echo "run.sh: a bus already answers at $address; stop it first" >&2
    exit 1
fi
if port_open "$mqtt_port"; then
    echo "run.sh: something already listens on 127.0.0.1:$mqtt_port; set CM_MQTT_PORT to a free port" >&2
    exit 1
fi
mkdir -p "$socket_dir" "$run_dir/keychain" "$run_dir/mosquitto" "$logs"
cat >"$run_dir/mosquitto/mosquitto.conf" <<CONF
listener $mqtt_port 127.0.0.1
allow_anonymous true
persistence false
log_dest stderr
log_type error
log_type warning
log_type notice
log_type information
CONF

pids=()
stop_all() {
    trap - EXIT INT TERM
    # Newest first: config-manager shuts down while its keychain, bridge and bus are still there.
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        kill -TERM "${pids[i]}" 2>/dev/null || true
        wait "${pids[i]}" 2>/dev/null || true
    done
    echo "run.sh: stopped"
}
trap stop_all EXIT
trap 'exit 130' INT TERM

# Each program gets a session of its own, so Ctrl-C reaches only this script, which then stops
# them in order with SIGTERM.
setsid dbus-daemon --config-file=scripts/bus.conf --nofork --nopidfile >"$logs/dbus-daemon.log" 2>&1 &
pids+=($!)
wait_for "the bus" bus_call GetId

setsid build/tools/keychain-devd/keychain-devd "$run_dir/keychain" "$address" >"$logs/keychain-devd.log" 2>&1 &
pids+=($!)
wait_for "the keychain service" name_owned iot.gateway.security.keychain

setsid mosquitto -c "$run_dir/mosquitto/mosquitto.conf" >"$logs/mosquitto.log" 2>&1 &
pids+=($!)
wait_for "mosquitto" port_open "$mqtt_port"

setsid build/tools/mqtt-bridge-devd/mqtt-bridge-devd --host 127.0.0.1 --port "$mqtt_port" --address "$address" \
    >"$logs/mqtt-bridge-devd.log" 2>&1 &
pids+=($!)
wait_for "the MQTT bridge" name_owned iot.bridge.mqtt
# Connected before the adapter's first subscription, which it would otherwise retry only in 15 s.
wait_for "the bridge's broker connection" printed "$logs/mqtt-bridge-devd.log" "connected to the broker"

setsid build/tools/shadow-cloud/shadow-cloud --port "$mqtt_port" serve --state "$run_dir/shadow-cloud.json" \
    >"$logs/shadow-cloud.log" 2>&1 &
pids+=($!)
wait_for "the cloud simulator" printed "$logs/shadow-cloud.log" "listening on"

setsid build/tools/watchdog-devd/watchdog-devd "$address" >"$logs/watchdog.log" 2>&1 &
pids+=($!)
wait_for "the watchdog" name_owned iot.gateway.watchdog

CONFIG_MANAGER_BUS_ADDRESS=$address setsid build/src/config-manager config/default.json \
    >"$logs/config-manager.out" 2>"$logs/config-manager.log" &
pids+=($!)
wait_for "config-manager" name_owned iot.dmp.config.adapter

# The bus is at the gateway's fixed address, which cmctl uses by default.
cmctl="build/tools/cmctl/cmctl"
cloud="build/tools/shadow-cloud/shadow-cloud --port $mqtt_port"
device="$($cmctl get gw_system_productkey)/$($cmctl get gw_system_devicename)"

cat <<USAGE

config-manager is running on $address, the broker on 127.0.0.1:$mqtt_port (logs in $logs/).
In another terminal:

  Set and read a value:
    $cmctl set gw_network_lanIp 192.168.10.2
    $cmctl get gw_network_lanIp
    $cmctl dump 'gw_orlo'

  Push a desired value from the cloud, then read it back from the store:
    $cloud desire $device gw_orlo_level=3
    $cmctl get gw_orlo_level

  Set the serial number and watch the report reach the cloud (a "<- /shadow/update/..." line
  below, with the next version):
    $cmctl set gw_vexa_serialNumber SN-0042
    $cloud show $device

  Watch a key change as it happens:
    $cmctl watch gw_orlo_level

Below: the cloud simulator's documents (<- received, -> sent) and the watchdog's feeds.
Ctrl-C stops everything.

USAGE

tail -n +1 -F "$logs/shadow-cloud.log" "$logs/watchdog.log" 2>/dev/null &
pids=("${pids[0]}" "$!" "${pids[@]:1}")

# Until Ctrl-C, or until one of them ends on its own.
wait -n "${pids[@]}" || true
