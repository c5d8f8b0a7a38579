"""The same events through Mosquitto: what a broker that is made for nothing else takes for them, beside the service.

The payload is the very event of the wire contract, the subscribers are as many and each has its own connection. Two things
differ and stay: the service hears of an event over D-Bus and holds it until its next 33 ms tick; the broker gets it over
TCP and passes it on at once.
"""
import json
import statistics

import rows
from testbed.gateway import TestBed

BROKER_PORT = 1883
CONFIGURATION = f"""listener {BROKER_PORT} 127.0.0.1
allow_anonymous true
persistence false
max_queued_messages 0
log_type error
user root
"""
SIDES = ("broker", "service")


def _broker_figures(bed):
    configuration = bed.folder / "mosquitto.conf"
    configuration.write_text(CONFIGURATION)
    bed.start_program(["/usr/sbin/mosquitto", "-c", configuration], port=BROKER_PORT)
    output = bed.load([bed.bin / "bench-peer", bed.pid])
    bed.stop()
    return json.loads(output)


def _service_figures(bed):
    bed.start_program()
    output = bed.load([bed.bin / "bench-load", "events", bed.pid, 1])
    bed.stop()
    return json.loads(output)


def measure(programs, round_count):
    """The figures of each round, of both."""
    with TestBed(programs, pinned=True, start=False) as bed:
        return [{"broker": _broker_figures(bed), "service": _service_figures(bed)} for _ in range(round_count)]


def table(rounds):
    """Headings and lines, ready to be printed."""
    lines = []
    for row in rows.GROUPS["Events"]:
        values = {side: [one[side][row.key] / row.divisor for one in rounds] for side in SIDES}
        ratios = [service / broker for broker, service in zip(values["broker"], values["service"])]
        texts = [f"{rows.number(statistics.median(values[side]))} {row.unit}" for side in SIDES]
        lines.append([row.name, row.what, *texts, f"{statistics.median(ratios):.2f}",
                      f"{min(ratios):.2f} to {max(ratios):.2f}"])
    return ["", "figure", "Mosquitto", "service", "ratio", "smallest, largest"], lines
