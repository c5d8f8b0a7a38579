# Sourced by scripts that run programs beside each other. Expects $work, a folder for their logs, and setup.sh.

children=()

# start NAME READY COMMAND...: in the background, its output in NAME.log; returns when that holds READY.
start() {
    local name=$1 ready=$2 log=$work/$1.log
    shift 2
    : >"$log"
    "$@" >"$log" 2>&1 &
    children+=($!)
    until grep -q "$ready" "$log"; do
        kill -0 "${children[-1]}" 2>/dev/null || complain $failure "$name did not start: $(tail -n 1 "$log")"
        sleep 0.05
    done
}

# start_bus: a private session bus, in the environment of everything started afterwards.
start_bus() {
    start bus unix: dbus-daemon --session --nofork --nopidfile --print-address --address="unix:path=$work/bus"
    export DBUS_SESSION_BUS_ADDRESS=unix:path=$work/bus
}

# stop_children: the last one first.
stop_children() {
    local i
    for ((i = ${#children[@]} - 1; i >= 0; i--)); do
        kill "${children[i]}" 2>/dev/null
        wait "${children[i]}" 2>/dev/null
    done
    children=()
}
