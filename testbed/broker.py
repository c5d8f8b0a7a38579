"""A real broker beside the programs of a test bed, and what of a device is to stand on it."""
import subprocess
from itertools import takewhile

from testbed.gateway import PATIENCE_S, wait_until

PORT = "18830"  # not the one of a broker that the machine may have
PASSWORD = "tandrivel"  # at the devices
KEYS = ["/Device/Config/Name", "/Device/Status/Channels/Channel-1/OutputLevel", "/Device/Config/PROJECT_INFO",
        "/Device/Config/Panel/Brightness"]  # that may be written
HIDDEN = ("Password", "Passphrase", "Secret", "Pin")
LEFT_OUT = ("/Device/Status/Uptime", "/Device/Config/Odd+Key")  # the access list forbids the first, the second is no topic
CONFIG = ("listener {port} 127.0.0.1", "allow_anonymous true", "acl_file {folder}/access", "max_queued_messages 100000",
          "user root")
KEEPING = ("persistence true", "persistence_file broker.store", "persistence_location {folder}/", "autosave_interval 1")


def topics_of(serial, values):
    """What a bridge publishes of these values, by topic; what is empty is not kept, and what is secret is not shown."""
    shown = {key: "********" if key.endswith(HIDDEN) else value for key, value in values.items() if key not in LEFT_OUT}
    return {f"kesto/{serial}/state{key}": value for key, value in shown.items() if value}


class Broker:
    """It does not run before start(). With `keeps` it has after a crash what it held a second or more before."""

    def __init__(self, bed, keeps=False):
        self.bed, self.fences, self.process = bed, 0, None
        self.config, self.store = bed.folder / "broker.conf", bed.folder / "broker.store"
        self.config.write_text("\n".join(CONFIG + KEEPING * keeps).format(port=PORT, folder=bed.folder))
        (bed.folder / "access").write_text(f"topic readwrite #\ntopic deny kesto/+/state{LEFT_OUT[0]}\n")

    def start(self):
        self.process = self.bed.start("broker", ["mosquitto", "-c", self.config])
        wait_until(lambda: "running" in self.bed.role_log("broker"), "the broker runs")

    def kill(self):
        self.bed.kill(self.process)

    def publish(self, topic, payload, *options):
        self.bed.load(["mosquitto_pub", "-p", PORT, "-q", "1", "-t", topic, "-m", payload, *options])

    def listen(self, *topics, form="%t\t%p"):
        """A subscriber, and the lines that it had got when its subscription stood, which a message that is kept marks. It ends
        by itself when its patience is over."""
        self.fences += 1
        self.publish("fence", str(self.fences), "-r")
        words = [word for topic in (*topics, "fence") for word in ("-t", topic)]
        command = ["mosquitto_sub", "-p", PORT, "-W", PATIENCE_S, "-F", form, *words]
        process = self.bed.start("sub", command, stdout=subprocess.PIPE, text=True)
        mark = form.replace("%t", "fence").replace("%p", str(self.fences)) + "\n"
        return process, list(takewhile(lambda line: line != mark, process.stdout))

    def retained(self):
        """All that the broker has kept, by topic."""
        process, lines = self.listen("kesto/#")
        self.bed.kill(process)
        process.stdout.close()
        return dict(line[:-1].split("\t", 1) for line in lines)
