#!/usr/bin/env bash
# examples.sh BIN: lets each example client visit the service and the simulated device whose programs are in BIN, and says
# for each whether it heard and did what it should. Status 0 when all did.
set -u
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$root/scripts/setup.sh"
. "$root/scripts/programs.sh"

copy=$root/build/examples  # as a client's author has taken it away: the contract and the examples
visit_limit_s=60

# Project information as clients may write it: not ASCII, with separators, and so long that the discovery reply is cut.
projects=('Große Halle' $'Harbour\x1cha!l\x1c' "$(printf 'é%.0s' {1..4100})")

# What an example must have printed, in this order.
expected=(
    'discovered KX8-3000, serial QM240817, at 127.0.0.1:60000; shared key 7D2E5A91C04BF368'
    'logged in: command port 6[0-9]*, event port 6[0-9]*'
    'read /Device/Config/Hardware/Model/Serial = QM240817'
    'wrote /Device/Config/PROJECT_INFO = written by the .* example'
    'heard .*alarm'
    'logged out'
)

install_what_they_need() {
    local packages=(python3-zmq python3-protobuf python3-cryptography protobuf-compiler dbus-daemon bubblewrap)
    command -v npm >/dev/null || packages+=(nodejs npm)
    install_packages "${packages[@]}"
}

# Outside of the sandbox, which has no network.
prepare_copy() {
    local node=$copy/examples/node
    mkdir -p "$copy"
    cp -r "$root/proto" "$root/examples" "$copy/"
    protoc --proto_path="$copy/proto" --python_out="$copy/examples/python" access.proto ||
        complain $failure "protoc does not take proto/access.proto"
    cmp -s "$node/package-lock.json" "$node/node_modules/installed-lock.json" && return
    (cd "$node" && npm ci --ignore-scripts --no-audit --no-fund) >"$copy/npm.log" 2>&1 ||
        complain $failure "npm could not install the Node example's libraries; the reason is in build/examples/npm.log"
    cp "$node/package-lock.json" "$node/node_modules/installed-lock.json"
}

# The first of the expected lines that is not there, or nothing.
first_missing() {
    local line number=1 found
    for line in "${expected[@]}"; do
        found=$(tail -n "+$number" "$1" | grep -n -m 1 -x "$line.*" | cut -d : -f 1)
        [ -n "$found" ] || { echo "$line" && return; }
        number=$((number + found))
    done
}

# The C++ example takes the library as any program does, from where it is installed.
build_cpp_example() {
    local log=$copy/cpp.log component
    for component in client client-dev; do
        cmake --install "${bin%/bin}" --prefix "$copy/installed" --component $component
    done >"$log" 2>&1 &&
        cmake -S "$copy/examples/cpp" -B "$copy/cpp" -DCMAKE_PREFIX_PATH="$copy/installed" >>"$log" 2>&1 &&
        cmake --build "$copy/cpp" >>"$log" 2>&1 ||
        complain $failure "the C++ example cannot be built; the reason is in build/examples/cpp.log"
}

# visit NAME COMMAND...: one line about one example.
visit() {
    local name=$1 output=$work/$1.out status reason
    shift
    timeout $visit_limit_s "$@" --address 127.0.0.1 --seconds 2 >"$output" 2>&1
    status=$?
    reason=$(first_missing "$output")
    [ -z "$reason" ] || reason="it did not print \"$reason\""
    [ $status = 0 ] || reason="it ended with status $status: $(tail -n 1 "$output")"
    # With its connection still open: a client that only closes it is logged off as well, but with none.
    if [ -z "$reason" ] && ! grep -q "\[$name-example-.*\] deauthenticating... (1)" "$work/service.log"; then
        reason="it did not log out"
    fi
    printf '%-8s %-7s %s\n' "$name" "$([ -z "$reason" ] && echo OK || echo FAILED)" \
        "${reason:-$(grep -c '^heard' "$output") events and echoes heard}"
    [ -z "$reason" ]
}

# comes PATTERN FILE PROCESS: waits for a line, as long as the process runs.
comes() {
    until grep -q "$1" "$2"; do
        kill -0 "$3" 2>/dev/null || return
        sleep 0.05
    done
}

start_service() { KESTO_DEBUG=1 start service zsys_catch_interrupts "$bin/kesto-access"; }

# visit_over_restart NAME COMMAND...: one line about how an example takes that the service ends and comes back.
visit_over_restart() {
    local name=$1 output=$work/$1-over-restart.out example result=OK
    shift
    timeout $visit_limit_s "$@" --address 127.0.0.1 --seconds $visit_limit_s --timeout 1 >"$output" 2>&1 &
    example=$!
    comes '^heard' "$output" $example
    kill -KILL "${children[-1]}"
    wait "${children[-1]}" 2>/dev/null
    unset 'children[-1]'
    start_service
    { comes '^recovered: command port' "$output" $example && comes '^read /Device/Config/PROJECT_INFO' "$output" $example &&
        comes "\[$name-example-.*\] authenticating .* done" "$work/service.log" $example; } || result=FAILED
    kill $example 2>/dev/null
    wait $example 2>/dev/null
    printf '%-8s %-7s %s\n' "$name" $result "over a restart: $(grep -E '^(connection lost|recovered)' "$output" | paste -sd ';')"
    [ $result = OK ]
}

visit_all() {
    local result=0
    work=$(mktemp -d)
    trap 'stop_children; rm -rf "$work"' EXIT
    start_bus
    start device serving "$bin/kesto-device" --alarm-every 0.2 --change-every 0.3
    start_service
    for project in "${projects[@]}"; do
        gdbus call --session -d com.quillmont.kesto.Data -o /com/quillmont/kesto/Device \
            -m com.quillmont.kesto.Device.Control.Change /Device/Config/PROJECT_INFO "$project" string >/dev/null ||
            complain $failure "the device does not take a project information"
        visit python /usr/bin/python3 "$copy/examples/python/client.py" || result=$failure
        visit node node "$copy/examples/node/client.js" || result=$failure
        visit cpp "$copy/cpp/client" || result=$failure
    done
    visit_over_restart python /usr/bin/python3 "$copy/examples/python/client.py" || result=$failure
    visit_over_restart node node "$copy/examples/node/client.js" || result=$failure
    return $result
}

if [ "${1-}" = --inside ]; then
    bin=$2
    visit_all
    exit
fi
if [ $# != 1 ] || [ ! -x "$1/kesto-access" ] || [ ! -x "$1/kesto-device" ]; then
    complain $usage_error "usage: scripts/examples.sh BIN, the folder of kesto-access and kesto-device in the build folder"
fi
bin=$(cd "$1" && pwd)
install_what_they_need
prepare_copy
build_cpp_example
exec "$root/tests/sandbox" "${BASH_SOURCE[0]}" --inside "$bin"
