"""Everything that the service can run out of, one after the other: descriptors, ZeroMQ sockets, address space, threads.
It must refuse what it cannot do, go on with what it has, and serve again when the pressure goes."""
import zmq

from box import AUTH_PORT, Box, wait_until
from cases import case, check
from remote import A_KEY, Remote, connect, exchange, request, stranger, wire

TICK_MS = 33
ALL_SESSIONS = 998  # ports 62001 to 62998
IDLE_CPU_PERCENT = 15  # a thread that spins takes 50 and more


def open_until_refused(flags, limit=ALL_SESSIONS, prefix="client"):
    """Logs clients in through one door, with these flags in turn, until one is refused; those that are in, each working."""
    door, clients = connect(zmq.REQ, AUTH_PORT), []
    while len(clients) < limit:
        client = Remote(f"{prefix}-{len(clients)}", door)
        if client.log_in(**flags[len(clients) % len(flags)]) is None:
            break
        clients.append(client)
    return clients


def crowd(ports, size):
    """Strangers' connections to these ports; fewer than `size` when no more are accepted."""
    held = []
    for number in range(size):
        try:
            held.append(stranger(ports[number % len(ports)]))
        except OSError:
            break
    return held


def check_pressure(run, box, client):
    """Under pressure: nothing spins, and who has a session is served."""
    idle = box.cpu_percent()
    run.note("idle CPU", idle, "%")
    check(idle < IDLE_CPU_PERCENT, f"{idle:.0f} % of a core while nothing is asked")
    check(client.read() == "8", "a client with a session is not served any more")


def check_end(run, box, client):
    """The pressure is gone: the next login is granted, the old session still works, and the service ends in order."""
    wait_until(lambda: Remote("afterwards").log_in(), "a login after the pressure", pause_s=0.1)
    check(client.read() == "8", "the first session did not survive")
    status, seconds = box.stop()
    run.note("stop", 1000 * seconds, "ms")
    check(status == 0, f"it ended with {box.last_words()}")


def descriptors(run, allowed):
    with Box(run, nofile=allowed) as box:
        first = Remote("first")
        first.log_in(monitor=1)
        check(first.read() == "8", "the first session does not work")
        clients = open_until_refused([{"monitor": 1}, {}])
        run.note("sessions", 1 + len(clients))
        working = sum(client.read() == "8" for client in clients)
        check(working == len(clients), f"only {working} of {len(clients)} sessions work")
        held = crowd([AUTH_PORT, first.ports[0], first.ports[1]], 2 * allowed)
        run.note("strangers", len(held))
        check_pressure(run, box, first)
        check(Remote("stranger's neighbour").log_in() is None, "a login without descriptors was granted")
        run.note("descriptors", box.figures()["descriptors"], f"of {allowed}")
        for connection in held:
            connection.close()
        for client in clients:
            client.log_out()
        check_end(run, box, first)


for number in (64, 128, 256):
    case(f"descriptors-{number}", f"with {number} descriptors logins are refused, never the service ended")(
        lambda run, allowed=number: descriptors(run, allowed))


@case("descriptors-silent-strangers", "connections that say nothing make room for a client")
def silent_strangers(run):
    with Box(run, nofile=256) as box:
        first = Remote("first")
        first.log_in()
        held = crowd([AUTH_PORT], 600)
        check(Remote("newcomer").log_in() is not None, "a newcomer was refused")
        check_pressure(run, box, first)
        check_end(run, box, first)
        run.note("strangers", len(held))


@case("descriptors-peers", "real ZeroMQ peers that take every descriptor do not disturb a session")
def peers(run):
    with Box(run, nofile=256) as box:
        first = Remote("first")
        first.log_in(monitor=1)
        check(first.read() == "8", "the first session does not work")
        held = [connect(zmq.DEALER, AUTH_PORT) for _ in range(400)]
        wait_until(lambda: box.figures()["descriptors"] >= 256 - 24, "the descriptors are taken")
        run.note("descriptors", box.figures()["descriptors"], "of 256")
        check_pressure(run, box, first)
        for peer in held:
            peer.close()
        check_end(run, box, first)


@case("sockets-16", "with ZSYS_MAX_SOCKETS 16 logins are refused, also when clients come and go quickly")
def sockets(run):
    with Box(run, env={"ZSYS_MAX_SOCKETS": "16"}) as box:
        first = Remote("first")
        first.log_in(monitor=1)
        clients = open_until_refused([{}])
        run.note("sessions", 1 + len(clients))
        check(len(clients) == 4, f"{len(clients)} more sessions in 16 sockets, of which 1 and 6 are taken")
        for turn in range(500):
            clients[turn % 4].log_out()
            clients[turn % 4] = Remote(f"turn-{turn}")
            check(clients[turn % 4].log_in(), f"login {turn} was refused, its place is free")
            check(Remote("too many", clients[turn % 4].door).log_in() is None, "a login without sockets was granted")
        run.note("changes", 500)
        clients[0].log_out()
        check_end(run, box, first)


@case("address-space", "with 16 MiB of address space left it refuses sessions, connections and large requests")
def address_space(run):
    with Box(run) as box:
        first = Remote("first")
        first.log_in(monitor=1)
        check(first.read() == "8", "the first session does not work")
        box.limit("as", box.figures()["virtual_kib"] * 1024 + (16 << 20))
        pairs = [wire.Pair(key=f"{A_KEY}{number}", value="v" * 140) for number in range(50000)]
        check(first.ask(multi_write=wire.MultiWrite(pairs=pairs)) is None, "a request that there is no memory for")
        clients = open_until_refused([{"monitor": 1}, {}], 300)
        run.note("sessions", 1 + len(clients))
        held = crowd([AUTH_PORT, first.ports[1]], 4000)
        run.note("strangers", len(held))
        bulk = connect(zmq.DEALER, AUTH_PORT)
        for _ in range(20):
            bulk.send_multipart([b"", bytes(10 << 20)])
        check_pressure(run, box, first)
        run.note("resident", box.figures()["rss_kib"], "KiB")
        bulk.close()
        for connection in held:
            connection.close()
        for client in clients:
            client.log_out()
        check_end(run, box, first)


@case("threads", "without a thread to be had sessions open without their monitor", alone=True)
def threads(run):
    with Box(run, as_nobody=True) as box:
        first = Remote("first")
        first.log_in(monitor=1)
        check(first.read() == "8", "the first session does not work")
        before = box.figures()["threads"]
        box.limit("nproc", 1)
        clients = open_until_refused([{"monitor": 1}], 20)
        check(len(clients) == 20 and box.figures()["threads"] == before, "a session was refused for want of a thread")
        check(all(client.read() == "8" for client in clients), "a session without its monitor does not work")
        check_pressure(run, box, first)
        run.note("sessions", 1 + len(clients))
        check_end(run, box, first)


def all_sessions(run, monitor):
    with Box(run) as box:
        before = box.figures()
        clients = open_until_refused([{"monitor": monitor}])
        check(len(clients) == ALL_SESSIONS, f"session {len(clients) + 1} was refused: {box.last_words()}")
        run.note("login", 1000 * (box.figures()["cpu_s"] - before["cpu_s"]) / ALL_SESSIONS, "ms CPU each")
        check(all(client.listen().read() == "8" for client in clients), "a session does not work")
        for client in clients:  # until its subscription has arrived
            wait_until(lambda: client.events.poll(0) or (box.call("SpeakerPresetLoadedDispatch"), client.events.poll(50))[1],
                       "the first event")
        busy = box.figures()["cpu_s"]
        for number in range(100):
            box.call("GeneralDispatch", "(sss)", "/Device/Count", str(number), "")
        for client in clients:
            while not wire.Message.FromString(client.events.recv()).event.change.value == "99":
                pass
        run.note("an event to all", 1000 * (box.figures()["cpu_s"] - busy) / 100, "ms CPU")
        idle, after = box.cpu_percent(5), box.figures()
        run.note("idle CPU", idle, "%")
        run.note("CPU per tick", idle / 100 * TICK_MS, "ms")
        for what in ("descriptors", "threads", "rss_kib", "virtual_kib"):
            run.note(what, after[what])
        run.note("memory each", (after["rss_kib"] - before["rss_kib"]) / ALL_SESSIONS, "KiB")
        check(Remote("one too many").log_in() is None, "a session on a port that is in use")
        clients[1].log_out()
        check(exchange(clients[0].door, request("x", login=wire.Login())) is not None, "the door does not answer")
        status, seconds = box.stop()
        run.note("stop", seconds, "s")
        check(status == 0, f"it ended with {box.last_words()}")


for monitored in (0, 1):
    case(f"all-sessions-{'monitored' if monitored else 'plain'}", "all 998 sessions of a port cycle at once", alone=True)(
        lambda run, monitor=monitored: all_sessions(run, monitor))
