#!/bin/bash
# A chassis on one host, in one command: a redis-server on loopback (the
# bus), the device manager (qn-bus inventory --keep), a master control
# module, a standby control module and two line cards, each daemon with its
# own run directory and config file.  "stop" stops exactly what "start"
# started: each process runs in a session of its own and is recorded in the
# state directory by its pid and start time.
#
#   scripts/chassis.sh start      start it and say how to reach each node
#   scripts/chassis.sh status     what runs
#   scripts/chassis.sh stop       stop it
#
# Environment:
#   BUILD_DIR          where the binaries were built (default: build, as
#                      scripts/quickstart.sh builds them)
#   CHASSIS_DIR        state directory (default: $BUILD_DIR/chassis)
#   CHASSIS_SECOND_MS  length of a timer second in ms (default 1000; tests
#                      shorten it)
#   CHASSIS_HOST_MASTER=0  give the master an empty private root like the
#                      other nodes; by default it samples this host's own
#                      disks and mounts, as a stand-alone box does
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${BUILD_DIR:-$repo/build}" 2>/dev/null && pwd -P) || {
    echo "chassis: no build directory ${BUILD_DIR:-$repo/build}; build first (scripts/quickstart.sh or cmake)" >&2
    exit 2
}
dir=${CHASSIS_DIR:-$build/chassis}
second_ms=${CHASSIS_SECOND_MS:-1000}
host_master=${CHASSIS_HOST_MASTER:-1}

daemon=$build/src/qn-stovig
qn_bus=$build/platform/tools/qn-bus/qn-bus
shell=$build/platform/tools/qn-stovig-cli/qn-stovig-cli
pids=$dir/pids

# name  phy_slot  user_slot  device type  card name  role in the inventory
nodes="cm-a 1 1 CM CM-A master
cm-b 2 2 CM CM-B standby
lc-5 5 5 LC LC-5 linecard
lc-6 6 6 LC LC-6 linecard"

die() {
    echo "chassis: $*" >&2
    exit 1
}

# The state directory is ours alone: made with mode 700, never a symlink or
# somebody else's.  It is checked after it is made, so that nothing put in
# its place between a check and the mkdir goes unseen.
own_dir() {
    [ -L "$dir" ] || mkdir -p "$dir"
    if [ -L "$dir" ] || [ ! -O "$dir" ]; then
        die "$dir is a symlink or not owned by $(id -un); choose another CHASSIS_DIR"
    fi
    chmod 700 "$dir"
}

# The state of pid from /proc/PID/stat: st_state, st_pgrp and st_start (the
# start time, clock ticks since boot: with the pid it names one process for
# good, where a pid alone may be reused).  False when pid does not run.  The
# name field may hold spaces and parentheses: fields are counted after its
# last ')'.
read_stat() {
    local stat
    stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
    stat=${stat##*) }
    # shellcheck disable=SC2086 # split into the fields on purpose
    set -- $stat
    st_state=$1 st_pgrp=$3 st_start=${20}
}

# Whether the process recorded as pid and start time still runs (a zombie
# does not).
is_ours() {
    read_stat "$1" && [ "$st_start" = "$2" ] && [ "$st_state" != Z ]
}

# "name pid start exe" of every process start recorded, one per line.
record() {
    echo "$1 $2 $3 $4" >>"$pids"
}

# Sends a signal to the process recorded as pid and start time: to its whole
# process group when it leads one (each was started in a session of its own),
# else to it alone.
signal_ours() {
    is_ours "$2" "$3" || return 0
    if [ "$st_pgrp" = "$2" ]; then
        kill "-$1" -- "-$2" 2>/dev/null || true
    else
        kill "-$1" "$2" 2>/dev/null || true
    fi
}

# Stops every process recorded, in reverse order (the daemons first, the
# device manager and the store last).  An entry whose process cannot be
# seen gone stays in the pids file for the next stop.
stop_all() {
    [ -f "$pids" ] || {
        echo "chassis: nothing recorded in $dir"
        return 0
    }
    local left="" name pid start exe
    while read -r name pid start exe; do
        if is_ours "$pid" "$start"; then
            signal_ours TERM "$pid" "$start"
            for _ in $(seq 50); do
                is_ours "$pid" "$start" || break
                sleep 0.1
            done
            if is_ours "$pid" "$start"; then
                signal_ours KILL "$pid" "$start"
                for _ in $(seq 20); do
                    is_ours "$pid" "$start" || break
                    sleep 0.1
                done
            fi
            if is_ours "$pid" "$start"; then
                echo "chassis: $name (pid $pid) still runs; kept in $pids" >&2
                left="$name $pid $start $exe
$left"
                continue
            fi
            echo "stopped $name (pid $pid)"
        fi
    done < <(tac "$pids")
    if [ -n "$left" ]; then
        printf '%s' "$left" >"$pids.new"
        mv -f "$pids.new" "$pids"
        return 1
    fi
    rm -f "$pids"
}

any_running() {
    [ -f "$pids" ] || return 1
    local name pid start exe
    while read -r name pid start exe; do
        is_ours "$pid" "$start" && return 0
    done <"$pids"
    return 1
}

status() {
    [ -f "$pids" ] || {
        echo "chassis: not running (no $pids)"
        return 1
    }
    local name pid start exe
    while read -r name pid start exe; do
        if is_ours "$pid" "$start"; then
            echo "$name pid $pid running"
        else
            echo "$name pid $pid gone"
        fi
    done <"$pids"
}

# Starts a program in a session of its own (setsid, and env, exec it in the
# same process) with output to files, and records it once it runs the
# program `exe` itself, with its start time.  Until then the process is this
# shell's child, not yet waited for: its pid cannot be reused, and one that
# does not get there is killed by it.
spawn() {
    local name=$1 out=$2 exe=$3
    shift 3
    setsid "$@" >"$out.out" 2>"$out.err" </dev/null &
    local pid=$! start=""
    for _ in $(seq 200); do
        if [ "$(readlink "/proc/$pid/exe" 2>/dev/null)" = "$exe" ] && read_stat "$pid" && [ "$st_pgrp" = "$pid" ]; then
            start=$st_start
            break
        fi
        if ! read_stat "$pid" || [ "$st_state" = Z ]; then
            break
        fi
        sleep 0.05
    done
    if [ -z "$start" ]; then
        kill -KILL "$pid" 2>/dev/null || true
        die "$name did not start; see $out.err"
    fi
    record "$name" "$pid" "$start" "$exe"
}

start_store() {
    mkdir -p "$dir/redis"
    local port
    for _ in $(seq 20); do
        port=$((20000 + RANDOM % 40000))
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && continue
        spawn redis "$dir/redis/redis" "$(readlink -f "$(command -v redis-server)")" redis-server --bind 127.0.0.1 --port "$port" --save "" --appendonly no \
            --dir "$dir/redis" --daemonize no
        for _ in $(seq 50); do
            [ "$(redis-cli -h 127.0.0.1 -p "$port" ping 2>/dev/null)" = PONG ] && {
                echo "$port" >"$dir/port"
                return 0
            }
            sleep 0.1
        done
        stop_all >/dev/null
    done
    die "redis-server did not start; see $dir/redis/redis.err"
}

write_inventory() {
    cat >"$dir/chassis.inv" <<EOF
# The chassis as the device manager publishes it (qn-bus --help):
# slot=PHY_SLOT user_slot=N type=cm|lc|box [devid=D] [name=NAME] [online=1|0] [master=1]
slot=1 user_slot=1 type=cm name=CM-A master=1
slot=2 user_slot=2 type=cm name=CM-B
slot=5 user_slot=5 type=lc name=LC-5
slot=6 user_slot=6 type=lc name=LC-6
EOF
    printf '[bus]\nurl = redis://127.0.0.1:%s\n' "$(cat "$dir/port")" >"$dir/qn-bus.ini"
}

# The config file of one node: the bus, where it sits, what it is.
write_config() {
    local name=$1 slot=$2 uslot=$3 devtype=$4
    cat >"$dir/$name/stovig.ini" <<EOF
[bus]
url = redis://127.0.0.1:$(cat "$dir/port")

[node]
devid = 0
phy_slot = $slot
user_slot = $uslot
; node_type follows CAP_DEV_TYPE; the role comes from the device manager
role = 0

[cap]
CAP_DEV_TYPE = $devtype

[log]
level = debug

[loop]
second_ms = $second_ms
EOF
}

start_node() {
    local name=$1 slot=$2 uslot=$3 devtype=$4 kind=$6
    local nd=$dir/$name
    mkdir -p "$nd/tmp"
    write_config "$name" "$slot" "$uslot" "$devtype"
    local root=""
    if [ "$kind" != master ] || [ "$host_master" = 0 ]; then
        # An empty private host: nothing mounted, no disk, no probe files
        # written on this host's mount points.
        root=$nd/root
        mkdir -p "$root/proc" "$root/tmp/qn-stovig"
        echo "1000.00 10.00" >"$root/proc/uptime"
        : >"$root/proc/mounts"
        : >"$root/proc/diskstats"
    fi
    spawn "$name" "$nd/daemon" "$daemon" env TMPDIR="$nd/tmp" STOVIG_CONFIG="$nd/stovig.ini" \
        ${root:+STOVIG_ROOT="$root"} "$daemon"
}

wait_for_file() {
    for _ in $(seq 300); do
        [ -e "$1" ] && return 0
        sleep 0.1
    done
    return 1
}

start_all() {
    for b in "$daemon" "$qn_bus" "$shell"; do
        [ -x "$b" ] || die "$b is missing; build first"
    done
    command -v redis-server >/dev/null || die "redis-server is not installed"
    own_dir
    if any_running; then
        die "a chassis already runs in $dir; $0 stop first"
    fi
    rm -f "$pids"
    # Whatever fails from here on, what was started is stopped again.
    trap 'echo "chassis: start failed, stopping what was started" >&2; stop_all >/dev/null' EXIT
    start_store
    write_inventory
    spawn device-manager "$dir/device-manager" "$qn_bus" env STOVIG_CONFIG="$dir/qn-bus.ini" "$qn_bus" inventory --keep \
        "$dir/chassis.inv"
    for _ in $(seq 100); do
        grep -q "keeping the inventory" "$dir/device-manager.err" && break
        sleep 0.1
    done
    grep -q "keeping the inventory" "$dir/device-manager.err" || die "the device manager did not start; see $dir/device-manager.err"
    echo "$nodes" | while read -r name slot uslot devtype card kind; do
        start_node "$name" "$slot" "$uslot" "$devtype" "$card" "$kind"
    done
    wait_for_file "$dir/cm-a/tmp/stovig/cli.sock" || die "the master's shell did not come up; see $dir/cm-a/daemon.err"
    trap - EXIT
    report
}

report() {
    local port
    port=$(cat "$dir/port")
    echo "Chassis up in $dir, bus redis://127.0.0.1:$port (binaries from $build)"
    echo
    echo "$nodes" | while read -r name slot uslot devtype card kind; do
        local nd=$dir/$name
        printf '%s  slot %s  %s %s\n' "$name" "$slot" "$card" "($kind)"
        if [ "$devtype" = CM ]; then
            printf '  shell:   TMPDIR=%s %s -c "show storage all-info"\n' "$nd/tmp" "$shell"
        else
            printf '  shell:   none (a line card has no command line)\n'
        fi
        printf '  config:  %s\n' "$nd/stovig.ini"
        printf '  logs:    %s/tmp/stovig/stovig.log, events in stovig-events.log, stderr in %s/daemon.err\n' "$nd" "$nd"
    done
    echo
    echo "device manager: qn-bus inventory --keep $dir/chassis.inv (stderr in $dir/device-manager.err)"
    echo "the bus:        STOVIG_CONFIG=$dir/qn-bus.ini $qn_bus dump 12"
    echo "stop it all:    ${CHASSIS_DIR:+CHASSIS_DIR=$dir }${BUILD_DIR:+BUILD_DIR=$BUILD_DIR }$0 stop"
}

case ${1:-} in
start) start_all ;;
stop) stop_all ;;
status) status ;;
*)
    sed -n '2,21s/^# \{0,1\}//p' "$0" >&2
    exit 2
    ;;
esac
