"""A rack of simulated devices: each a service, a simulated device and a bus in a network and a /tmp of its own, with a cable
to one bridge. It is built in the network of the caller, who has to have the rights for it; scripts/rack.py makes such a
network and is how a rack is used. Nothing is ended here: that is left to the end of the caller's process namespace."""
import ipaddress
import json
import os
import re
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from pathlib import Path

from testbed.gateway import CONTROL, Failure, check, wait_until

NETWORK = ipaddress.ip_network("10.77.0.0/16")
BRIDGE, BRIDGE_ADDRESS, INTERFACE = "rack", ipaddress.ip_address("10.77.0.1"), "eth0"
BRIDGE_MAC = "02:51:4d:77:01:00"  # given, or it would change with the ports, and the devices would answer the old one
DEVICES_MAX = 250
FIRST_ADDRESS = ipaddress.ip_address("10.77.1.0")  # device N begins with the Nth behind it
DEVICES_PER_RACK = 10  # in the names only
MODELS = ("KX8-1500", "KX8-3000", "KX8-6000")
STARTED_AT_ONCE = 16
POLL_S = 0.02  # between two looks whether a program that starts serves
FIND_LIMIT_S, ANSWER_WAIT_S = 30, 0.4

# In the device's namespaces, once: its folder, what has to stay visible below /tmp, and the program that then holds them.
SET_UP = """case $2 in /tmp/*) mkdir -p "$1${2#/tmp}" && mount --bind "$2" "$1${2#/tmp}" ;; esac &&
mount --rbind "$1" /tmp && ip link set lo up &&
echo 1 >/proc/sys/net/ipv4/conf/default/arp_notify && shift 2 && exec "$@" """


class WrongInput(Failure):
    """What was asked for cannot be."""


@dataclass
class Device:
    number: int
    folder: Path  # its /tmp
    address: ipaddress.IPv4Address
    plugged: bool = True
    programs: dict = field(default_factory=dict)  # the running processes by name; "bus" holds the namespaces

    @property
    def serial(self):
        return f"QM77{self.number:04}"

    @property
    def model(self):
        return MODELS[self.number % len(MODELS)]

    @property
    def name(self):
        rack, place = divmod(self.number - 1, DEVICES_PER_RACK)
        return f"Rack {rack + 1}, amplifier {place + 1}"

    @property
    def mac(self):
        return f"02:51:4d:77:00:{self.number:02x}"

    @property
    def port(self):
        """The bridge's end of its cable."""
        return f"amp-{self.number}"

    @property
    def bus_address(self):
        return f"unix:path={self.folder}/bus"

    def log_path(self, program):
        return self.folder / f"{program}.log"


@dataclass
class Rack:
    programs: Path  # the folder of kesto-access, kesto-device and kesto-client
    device_options: tuple
    devices: list
    is_logged: bool = True  # what the services do
    reported: set = field(default_factory=set)  # process ids of the programs whose end has been told


def ip(commands, inside=()):
    done = subprocess.run([*inside, "ip", "-batch", "-"], input=commands, text=True, capture_output=True)
    if done.returncode != 0:
        raise Failure(f"ip: {done.stderr.splitlines()[0]}")


def inside(device, *kinds):
    return ["nsenter", "-t", str(device.programs["bus"].pid), *kinds, "--"]


def start_program(device, name, ready, command, **environment):
    """Returns when `ready` stands in its log; at once when that is empty."""
    path = device.log_path(name)
    with path.open("wb") as log:
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                   env={**os.environ, **environment})
    device.programs[name] = process
    wait_until(lambda: ready in path.read_text(errors="replace") or process.poll() is not None,
               f"{name} of device {device.number} serves", pause_s=POLL_S)
    check(process.poll() is None, f"device {device.number}: {name} did not start: {last_line(path)}")


def last_line(path):
    return (path.read_text(errors="replace").splitlines() or ["it said nothing"])[-1]


def write_identity(device):
    """For kesto-device, which keeps there what is written later."""
    store = device.folder / "device.store"
    if store.exists():
        return
    values = {"Hardware/Model/Serial": device.serial, "Hardware/Model/Model": device.model, "Hardware/Model/Mac": device.mac,
              "Name": device.name, "EASY_SWAP_ID": device.number, "Networking/Ethernet/Ip": device.address,
              "Networking/Ethernet/Netmask": NETWORK.netmask, "Networking/Ethernet/Gateway": BRIDGE_ADDRESS,
              "Networking/Ethernet/Dns": BRIDGE_ADDRESS}
    store.write_text("[Values]\n" + "".join(f"/Device/Config/{key}={value}\n" for key, value in values.items()))


def lay_cable(device):
    holder = device.programs["bus"].pid
    ip(f"link add {device.port} type veth peer name {INTERFACE} netns {holder}\n"
       f"link set {device.port} master {BRIDGE} {'up' if device.plugged else 'down'}\n")
    set_address(device)


def set_address(device):
    """Its MAC address is set with it, so that the system tells the network of both."""
    ip(f"link set {INTERFACE} up\naddress flush dev {INTERFACE}\n"
       f"address add {device.address}/{NETWORK.prefixlen} broadcast + dev {INTERFACE}\n"
       f"link set {INTERFACE} address {device.mac}\n", inside(device, "--net"))


def start_device(rack, device):
    device.folder.mkdir(exist_ok=True)
    write_identity(device)
    bus = ["dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address", "--address=unix:path=/tmp/bus"]
    start_program(device, "bus", "unix:", ["unshare", "--net", "--mount", "sh", "-c", SET_UP, "sh", device.folder,
                                           rack.programs.parent, *bus])
    lay_cable(device)
    start_data_service(rack, device)
    start_service(rack, device)


def start_there(device, name, ready, command, **environment):
    start_program(device, name, ready, [*inside(device, "--net", "--mount"), *command], **environment,
                  DBUS_SESSION_BUS_ADDRESS="unix:path=/tmp/bus")


def start_data_service(rack, device):
    start_there(device, "device", "serving", [rack.programs / "kesto-device", "--store=/tmp/device.store",
                                              *rack.device_options])


def start_service(rack, device):
    ready, debug = ("zsys_catch_interrupts", "1") if rack.is_logged else ("", "0")
    start_there(device, "access", ready, [rack.programs / "kesto-access"], KESTO_DEBUG=debug, KESTO_AMP_NAME=device.name)


def stop_device(device):
    """As when its power fails: the others hear nothing of it."""
    subprocess.run(["ip", "link", "delete", device.port], stderr=subprocess.DEVNULL)  # gone already when all have ended
    for process in device.programs.values():
        process.kill()
    for process in device.programs.values():
        process.wait()
    device.programs.clear()
    (device.folder / "bus").unlink(missing_ok=True)


def start_all(rack):
    ip(f"link set lo up\nlink add {BRIDGE} address {BRIDGE_MAC} type bridge\nlink set {BRIDGE} up\n"
       f"address add {BRIDGE_ADDRESS}/{NETWORK.prefixlen} broadcast + dev {BRIDGE}\n")
    with ThreadPoolExecutor(STARTED_AT_ONCE) as pool:
        list(pool.map(lambda device: start_device(rack, device), rack.devices))


def discover(rack):
    """What kesto-client finds by broadcast, by serial."""
    command = [rack.programs / "kesto-client", "--json", "discover", "--wait", str(ANSWER_WAIT_S)]
    done = subprocess.run(command, text=True, capture_output=True)
    return {found["serial"]: found for found in (json.loads(done.stdout) if done.stdout else [])}


def find_all(rack):
    """How many of its devices broadcast finds; prints what it found."""
    expected, end = {device.serial for device in rack.devices}, time.monotonic() + FIND_LIMIT_S
    found = discover(rack)
    while not expected <= found.keys() and time.monotonic() < end:
        found |= discover(rack)
    for serial, one in sorted(found.items()):
        print(f"  {serial}  {one['model']:<9} {one['login']:<17}  {one['amplifier_name']}")
    return len(expected & found.keys())


def cable_set(device, plugged):
    device.plugged = plugged
    ip(f"link set {device.port} {'up' if plugged else 'down'}\n")


def control(device, method, *arguments):
    name, path, interface = CONTROL
    call = ["gdbus", "call", "--address", device.bus_address, "-d", name, "-o", path, "-m", f"{interface}.{method}"]
    done = subprocess.run([*call, *arguments], text=True, capture_output=True)
    if done.returncode != 0:
        raise WrongInput(re.sub(r"^Error: (GDBus\.Error:\S+: )?", "", done.stderr.strip().splitlines()[0]))


def unplug(rack, device):
    cable_set(device, False)
    return f"device {device.number} is unplugged"


def plug(rack, device):
    cable_set(device, True)
    return f"device {device.number} is plugged in"


def restart(rack, device):
    stop_device(device)
    start_device(rack, device)
    return f"device {device.number} has been switched off and on"


def fault(rack, device, text):
    control(device, "Fault", text)
    return f"device {device.number} has the fault {text}"


def change_address(rack, device, text):
    try:
        address = ipaddress.IPv4Address(text)
    except ValueError:
        raise WrongInput(f"{text!r} is no IPv4 address") from None
    taken = [BRIDGE_ADDRESS, NETWORK.network_address, NETWORK.broadcast_address, *(one.address for one in rack.devices)]
    if address not in NETWORK or address in taken:
        raise WrongInput(f"{address} is taken or not within {NETWORK}")
    device.address = address
    set_address(device)
    control(device, "Change", "/Device/Config/Networking/Ethernet/Ip", str(address), "string")
    return f"device {device.number} is now at {address}"


def log_path(rack, device):
    return str(device.log_path("access"))


def show(rack):
    return "\n".join(f"{one.number:>3}  {one.serial}  {one.model}  {str(one.address):<15}  "
                     f"{'plugged in' if one.plugged else 'unplugged '}  {one.folder}" for one in rack.devices)


REQUESTS = {"list": show, "unplug": unplug, "plug": plug, "restart": restart, "fault": fault, "address": change_address,
            "log": log_path}


def find_device(rack, number):
    if not 1 <= number <= len(rack.devices):
        raise WrongInput(f"there is no device {number}; the rack has {len(rack.devices)}")
    return rack.devices[number - 1]


def report_ended(rack):
    """Prints a line for each program that has ended by itself since the last time."""
    for device in rack.devices:
        for name, process in device.programs.items():
            if process.poll() is not None and process.pid not in rack.reported:
                rack.reported.add(process.pid)
                print(f"device {device.number}: {name} has ended, status {process.returncode}: "
                      f"{last_line(device.log_path(name))}", flush=True)
