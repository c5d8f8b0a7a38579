"""Everything that the service can run out of, one after the other: descriptors, ZeroMQ sockets, address space.
It must refuse what it cannot do, go on with what it has, and serve again when the pressure goes."""
from contextlib import contextmanager
from functools import partial

import zmq

from cases import case
from testbed.remote import A_KEY, RawPeer, Remote, connect, enter, exchange, request, stranger, wire
from testbed.gateway import AUTH_PORT, check, wait_until

TICK_MS = 33
ALL_SESSIONS = 998  # ports 62001 to 62998
IDLE_CPU_PERCENT = 15  # a thread that spins takes 50 and more


@contextmanager
def pressure(bed):
    """Around what puts the service under pressure and takes that away again: a session, which survives it. Then the next
    login is granted, and the service ends in order."""
    first = enter("first", monitor=1)
    yield first
    wait_until(lambda: Remote("afterwards").log_in(), "a login after the pressure", pause_s=0.1)
    check(first.is_served(), "the first session did not survive")
    bed.check_stop()


def check_pressure(bed, first):
    """Under pressure: nothing spins, and who has a session is served."""
    bed.note("descriptors", bed.figures()["descriptors"])
    bed.note("resident", bed.figures()["rss_kib"], "KiB")
    idle = bed.note("idle CPU", bed.cpu_percent(), "%")
    check(idle < IDLE_CPU_PERCENT, f"{idle:.0f} % of a core while nothing is asked")
    check(first.is_served(), "a client with a session is not served any more")


def open_until_refused(*flags, limit=ALL_SESSIONS):
    """Logs clients in on one authentication socket, with these flags in turn, until one is refused; those that are in."""
    auth, clients = connect(zmq.REQ, AUTH_PORT), []
    while len(clients) < limit:
        client = Remote(f"client-{len(clients)}", auth)
        if client.log_in(**flags[len(clients) % len(flags)]) is None:
            break
        clients.append(client)
    return clients


def crowd(bed, ports, size):
    """Strangers' connections to these ports, each second with half a greeting; fewer than `size` when no more are accepted."""
    held = []
    for number in range(size):
        try:
            held.append(stranger(ports[number % len(ports)], RawPeer.GREETING[:number % 2 * 32]))
        except OSError:
            break
    bed.note("strangers", len(held))
    return held


def leave(connections, clients=()):
    for connection in connections:
        connection.close()
    for client in clients:
        client.log_out()
    if clients:
        clients[0].auth.close()  # which they shared


def descriptors(bed):
    with pressure(bed) as first:
        clients = open_until_refused({"monitor": 1}, {})
        bed.note("sessions", 1 + len(clients))
        working = sum(client.is_served() for client in clients)
        check(working == len(clients), f"only {working} of {len(clients)} sessions work")
        held = crowd(bed, [AUTH_PORT, *first.ports], 2 * bed.nofile)
        check_pressure(bed, first)
        check(Remote("stranger's neighbour").log_in() is None, "a login without descriptors was granted")
        leave(held, clients)


for allowed in (64, 128, 256):
    case(f"descriptors-{allowed}", f"with {allowed} descriptors logins are refused, never the service ended",
         nofile=allowed)(descriptors)


@case("sockets-16", "with ZSYS_MAX_SOCKETS 16 logins are refused, also when clients come and go quickly",
      env={"ZSYS_MAX_SOCKETS": "16"})
def sockets(bed):
    with pressure(bed):
        clients = open_until_refused({})
        bed.note("sessions", 1 + len(clients))
        check(len(clients) == 4, f"{len(clients)} more sessions in 16 sockets, of which 1 and 6 are taken")
        for turn in range(bed.note("changes", 500)):
            clients[turn % 4].log_out()
            clients[turn % 4] = Remote(f"turn-{turn}")
            check(clients[turn % 4].log_in(), f"login {turn} was refused, its place is free")
            check(Remote("too many", clients[turn % 4].auth).log_in() is None, "a login without sockets was granted")
        clients[0].log_out()


@case("address-space", "with 16 MiB of address space left it refuses sessions, connections and large requests")
def address_space(bed):
    with pressure(bed) as first:
        bed.limit("as", bed.figures()["virtual_kib"] * 1024 + (16 << 20))
        pairs = [wire.Pair(key=f"{A_KEY}{number}", value="v" * 140) for number in range(50000)]
        check(first.ask(multi_write=wire.MultiWrite(pairs=pairs)) is None, "a request that there is no memory for")
        clients = open_until_refused({"monitor": 1}, {}, limit=300)
        bed.note("sessions", 1 + len(clients))
        held = crowd(bed, [AUTH_PORT, first.ports[1]], 4000)
        bulk = connect(zmq.DEALER, AUTH_PORT)
        for _ in range(20):
            bulk.send_multipart([b"", bytes(10 << 20)])
        check_pressure(bed, first)
        leave([bulk, *held], clients)


@case("address-space-pairs", "tiny pairs, which take the most memory for their bytes, are refused on both sockets",
      env={"MALLOC_ARENA_MAX": "1"})
def tiny_pairs(bed):
    with pressure(bed) as first:
        bed.limit("as", bed.figures()["virtual_kib"] * 1024 + (25 << 20))
        for key, count, refused in (("a", 65536, True), ("/a/b/c/d/e", 65536, True), ("a", 8000, False)):
            write = wire.MultiWrite(pairs=[wire.Pair(key=key, value="b")] * count)
            for reply in (exchange(first.auth, request("first", multi_write=write)), first.ask(multi_write=write)):
                check((reply is None) == refused, f"{count} pairs of {key}: {reply}")
        check_pressure(bed, first)


def all_sessions(bed, monitor):
    before = bed.figures()
    clients = open_until_refused({"monitor": monitor})
    check(len(clients) == ALL_SESSIONS, f"session {len(clients) + 1} was refused: {bed.last_words()}")
    bed.note("login", 1000 * (bed.figures()["cpu_s"] - before["cpu_s"]) / ALL_SESSIONS, "ms CPU each")
    check(all(client.listen().is_served() for client in clients), "a session does not work")
    for client in clients:  # until its subscription has arrived
        wait_until(lambda: client.events.poll(0) or (bed.call("SpeakerPresetLoadedDispatch"), client.events.poll(50))[1],
                   "the first event")
    busy = bed.figures()["cpu_s"]
    for number in range(100):
        bed.call("GeneralDispatch", "(sss)", "/Device/Count", str(number), "")
    for client in clients:
        client.hear(lambda message: message.event.change.value == "99")
    bed.note("an event to all", 1000 * (bed.figures()["cpu_s"] - busy) / 100, "ms CPU")
    idle = bed.note("idle CPU", bed.cpu_percent(5), "%")
    bed.note("CPU per tick", idle / 100 * TICK_MS, "ms")
    after = bed.figures()
    for what in ("descriptors", "threads", "rss_kib", "virtual_kib"):
        bed.note(what, after[what])
    bed.note("memory each", (after["rss_kib"] - before["rss_kib"]) / ALL_SESSIONS, "KiB")
    check(Remote("one too many").log_in() is None, "a session on a port that is in use")
    clients[1].log_out()
    check(exchange(clients[0].auth, request("x", login=wire.Login())) is not None, "a log-out was not answered")
    bed.check_stop()


for name, monitored in (("plain", 0), ("monitored", 1)):
    case(f"all-sessions-{name}", "all 998 sessions of a port cycle at once", alone=True)(
        partial(all_sessions, monitor=monitored))
