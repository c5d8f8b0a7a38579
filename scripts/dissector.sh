#!/usr/bin/env bash
# dissector.sh BIN: captures a tour of the client in BIN at the service and the simulated device there, and looks whether
# the Wireshark dissector shows each step of it and takes nothing for malformed; then whether it finds what is. Status 0
# when all is as it should be.
set -u
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$root/scripts/setup.sh"
. "$root/scripts/programs.sh"

result=0

# What the tour does, and the display filter that finds it.
steps=(
    'discovery request      |udp.dstport == 8004 && kesto.discovery.public_key contains "BEGIN PUBLIC KEY"'
    'discovery reply        |udp.srcport == 8004 && kesto.discovery.serial == "QM240817"'
    'ZMTP greeting          |kesto.zmtp.version == "3.1" && kesto.zmtp.mechanism == "NULL"'
    'ZMTP subscription      |kesto.zmtp.command == "SUBSCRIBE"'
    'login request          |kesto.operation == "login" && kesto.user_name == "quillmont" && kesto.monitor == 1'
    'login reply            |kesto.operation == "login" && kesto.command_port == 62001 && kesto.request_in'
    'read a key             |kesto.operation == "read" && kesto.status == 1 && kesto.value == "QM240817"'
    'read many keys         |kesto.operation == "read" && kesto.signature == "a{ss}" && kesto.value == "KX8-3000"'
    'write a key            |kesto.operation == "write" && kesto.value == "written by the tour" && kesto.sequence == 4'
    'write several keys     |kesto.operation == "multi_write" && kesto.result_text == "OK" && kesto.time < 5'
    'ask for a right        |kesto.asked_right == 4 && kesto.operation == "authorize"'
    'be refused             |kesto.operation == "write" && kesto.status == 2 && kesto.key contains "Model/Serial"'
    'not be allowed         |kesto.operation == "authorize" && kesto.status == 1 && !kesto.allowed'
    'hear another client    |tcp.srcport == 63001 && kesto.client_id contains "-other" && kesto.operation == "write"'
    'hear the alarm         |tcp.srcport == 63001 && kesto.alarm.code == 40 && kesto.alarm.value >= 80'
    'put the value back     |tcp.dstport == 62001 && kesto.operation == "write" && kesto.value == "Harbour hall"'
    'log out                |kesto.operation == "logout" && kesto.status == 1'
    'vanish                 |kesto.operation == "login" && kesto.client_id contains "-vanishing" && kesto.command_port == 62003'
    'come back              |kesto.operation == "login" && kesto.client_id contains "-vanishing" && kesto.command_port == 62004'
    'frame in many segments |kesto.operation == "multi_write" && tcp.segment.count > 2 && kesto.status == 1'
    'its echo, too          |tcp.srcport == 63005 && kesto.operation == "multi_write" && tcp.segment.count > 2'
)
anything_wrong='kesto.malformed || kesto.unusual || _ws.malformed || _ws.lua.error'

# What nobody should send: name, transport, source and destination port, payload as printf takes it, and the complaint.
malformed=(
    'short datagram         |-u|40000,8004|@!|too short for a request'
    'other protocol         |-u|40000,8004|M-SEARCH!|a request begins with @?'
    'no end mark            |-u|40000,8004|@?panel\n|a request ends with'
    'no public key          |-u|40000,8004|@?f\x1cs\x1ckey\x1cpanel-1!|no public key in PEM'
    'a mark in the id       |-u|40000,8004|@?f\x1cs\x1c\x1cpanel!1!|the client id ends at its first'
    'reply with few fields  |-u|8004,40000|@?DKX8\x1c1!|2 fields instead of 14'
    'reply that was cut     |-u|8004,40000|@?DKX8\x1c1|a reply ends with'
    'reply without a port   |-u|8004,40000|@?DKX8\x1c1\x1cs\x1cZMQ:\x1cZMQ:0\x1c\x1c?\x1c\x1c\x1c\x1cs\x1c1\x1c\x1c!|the login port'
    'not ZMTP               |-T|40000,60000|GET / HTTP/1.1\r\n|no ZMTP 3 frame begins with byte 71'
    'frame above the limit  |-T|40000,60000|\x02\x00\x00\x00\x00\x00\xa0\x00\x01|a frame of 10485761 bytes is too long'
    'two frames             |-T|40000,62001|\x01\x00\x01\x01a\x00\x01b|more than one frame'
    'field cut short        |-T|40000,62001|\x01\x00\x00\x03\x0a\x05a|a field is cut short'
    'endless number         |-T|40000,62001|\x00\x0d\x0a\x0b\x10\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff|more than ten bytes'
    'NUL in a text          |-T|40000,62001|\x00\x05\x0a\x03\x0a\x01\x00|client_id has a NUL byte in it'
    'text that is not UTF-8 |-T|40000,62001|\x00\x05\x0a\x03\x0a\x01\xff|client_id is not UTF-8'
    'a reply as a request   |-T|40000,62001|\x00\x02\x12\x00|not what this port carries'
    'command cut short      |-T|40000,63001|\x04\x01\x09|cut short'
)

say() {
    printf '%-24s %s\n' "$1" "$2"
    [ "$2" = OK ] || result=$failure
}

# dissect OPTION...: one line for each packet that fits.
dissect() { tshark -r "$work/tour.pcapng" "$@" 2>>"$work/tshark.log"; }

# until_captured FILTER: what was sent a moment ago may still be on its way into the file.
until_captured() {
    local _
    for _ in {1..50}; do
        [ -z "$(tshark -r "$work/tour.pcapng" -Y "$1" 2>/dev/null)" ] || return 0
        sleep 0.2
    done
    complain $failure "was not captured: $1"
}

# Values of several segments, while somebody else listens.
write_much() {
    local value watcher
    value=$(printf 'x%.0s' {1..100000})
    "$bin/kesto-client" --id listener watch --count 1 --for 60 >"$work/watch.log" &
    watcher=$!
    until_captured 'tcp.dstport == 63005 && kesto.zmtp.command == "SUBSCRIBE"'
    "$bin/kesto-client" multi-write "/Device/Config/Name=$value" "/Device/Config/PROJECT_INFO=$value" >"$work/much.log"
    wait $watcher
    until_captured 'tcp.srcport == 63005 && kesto.operation == "multi_write"'
}

# The tour waits for an alarm.
raise_alarms() {
    while sleep 0.5; do
        gdbus call --session -d com.quillmont.kesto.Data -o /com/quillmont/kesto/Device \
            -m com.quillmont.kesto.Device.Control.Alarm 40 91.5 3
    done >/dev/null
}

capture_tour() {
    start_bus
    export KESTO_PASSWORD=tandrivel
    start device serving "$bin/kesto-device"
    KESTO_DEBUG=1 start service zsys_catch_interrupts "$bin/kesto-access"
    start capture 'File:' dumpcap -q -i lo -w "$work/tour.pcapng"
    raise_alarms &
    local alarms=$!
    "$bin/kesto-client" tour >"$work/tour.log" || complain $failure "the tour failed: $(tail -n 1 "$work/tour.log")"
    kill $alarms
    wait $alarms 2>/dev/null
    write_much
    stop_children
}

# One row of counts from all filters at once: each run of tshark takes a second.
look_for_steps() {
    local row filters='' counts i=0
    for row in "${steps[@]}"; do filters+=",${row#*|}"; done
    read -ra counts < <(dissect -q -z "io,stat,0$filters" | awk -F'|' '/<>/ { for (i = 3; i < NF; i += 2) printf "%d ", $i }')
    for row in "${steps[@]}"; do
        if [ "${counts[i]-0}" -gt 0 ]; then say "${row%%|*}" OK; else say "${row%%|*}" 'not seen'; fi
        i=$((i + 1))
    done
    row=$(dissect -Y "$anything_wrong" | head -n 1)
    say 'nothing malformed' "${row:-OK}"
}

look_for_malformed() {
    local row transport ports payload i=0 found=$work/malformed.txt
    for row in "${malformed[@]}"; do
        IFS='|' read -r _ transport ports payload _ <<<"$row"
        ports=${ports/40000/$((40000 + i))}  # each a connection of its own
        printf '%b' "$payload" | od -Ax -tx1 -v | text2pcap -q "$transport" "$ports" - "$work/malformed-$((10 + i)).pcapng"
        i=$((i + 1))
    done 2>/dev/null
    mergecap -a -w "$work/malformed.pcapng" "$work"/malformed-*.pcapng
    tshark -r "$work/malformed.pcapng" -T fields -e frame.number -e _ws.expert.message >"$found" 2>>"$work/tshark.log"
    i=1
    for row in "${malformed[@]}"; do
        if grep -qF "${row##*|}" <(sed -n "${i}p" "$found"); then say "${row%%|*}" OK; else say "${row%%|*}" 'not found'; fi
        i=$((i + 1))
    done
}

if [ "${1-}" = --inside ]; then
    bin=$2
    work=$(mktemp -d)
    trap 'stop_children; rm -rf "$work"' EXIT
    export HOME=$work  # where nothing is set up but what README.md of the dissector says
    unset XDG_CONFIG_HOME WIRESHARK_PLUGIN_DIR
    mkdir -p ~/.local/lib/wireshark/plugins
    ln -s "$root/tools/wireshark" ~/.local/lib/wireshark/plugins/kesto
    capture_tour
    look_for_steps
    look_for_malformed
    grep -v 'could be dangerous' "$work/tshark.log" && result=$failure
    exit $result
fi
if [ $# != 1 ] || [ ! -x "$1/kesto-access" ] || [ ! -x "$1/kesto-device" ] || [ ! -x "$1/kesto-client" ]; then
    complain $usage_error "usage: scripts/dissector.sh BIN, the folder of the three programs"
fi
bin=$(cd "$1" && pwd)
install_packages tshark dbus-daemon libglib2.0-bin bubblewrap
# Capturing needs root's rights, in a network of one's own.
as_root=()
[ "$(id -u)" = 0 ] || as_root=(unshare --map-root-user)
exec "${as_root[@]}" "$root/tests/sandbox" "${BASH_SOURCE[0]}" --inside "$bin"
