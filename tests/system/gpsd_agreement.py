"""Feeds one NMEA log to gpsd, by a pty, and to tavor-relay, by a daemon that this program plays, and compares
what both report: TPV, SKY and GST, each attribute, each satellite.

    gpsd_agreement.py RELAY LOG

Exit status 0: they agree; 1: they don't, the differences are printed; 77: gpsd or the log is missing.
docs/relay.md tells where they differ on purpose; the rules are here, each as narrow as it can be.
"""
import atexit
import json
import os
import pty
import select
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import tty

LIMIT_S = 60  # of each wait
END = "$GPTXT,01,01,02,the end*7B"
REQUEST = struct.Struct("=I512s")
RESPONSE = struct.Struct("=II512s")
CODE_NMEA = 6

ROUNDING = 1e-3  # gpsd prints three or four decimals of most values
ANGLE_ROUNDING = 1e-8
GPS, SBAS, GALILEO, BEIDOU, NAVIC = 0, 1, 2, 3, 7
SBAS_OFFSET = 87  # from the number that a receiver tells to that of the satellite

# gpsd computes them from the sky, from earlier fixes and from a model of the magnetic field.
COMPUTED = {"ept", "epx", "epy", "epv", "eph", "eps", "epc", "epd", "sep", "climb", "magvar", "magtrack",
            "xdop", "ydop", "tdop", "gdop"}
# gpsd has a model of the geoid for receivers that don't tell its height.
OF_MODEL = {"altHAE", "geoidSep"}
# One moment of one log each.
MOMENTS = {
    ("fast-moving", "T14:33:06.000Z", "TPV.speed"): "keeps the speed from before a gap of an hour",
    ("fast-moving", "T15:25:04.500Z", "TPV"): "does not tell an epoch of which the log has GLL and ZDA only",
    ("fast-moving", "T15:25:08.500Z", "TPV"): "does not tell an epoch that a gap of the log cuts",
    ("south-east-moving", "T09:53:04.802Z", "TPV"): "does not tell the first epoch that is valid",
    ("south-east-moving", "T09:53:07.801Z", "TPV.mode"): "makes 3D of a 2D fix (GSA) that has an altitude",
    ("south-east-moving", "T09:54:15.787Z", "TPV"): "the log ends before the last sentence of the epoch",
    ("negative-altitude", "T19:15:33.980Z", "TPV"): "the log ends before the last sentence of the epoch",
}


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


def wait_for(what, condition):
    end = time.monotonic() + LIMIT_S
    while time.monotonic() < end:
        result = condition()
        if result:
            return result
        time.sleep(0.01)
    raise SystemExit(f"no {what} within {LIMIT_S} s")


def start(arguments):
    """The program; it does not outlive this one."""
    process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL)
    atexit.register(process.kill)
    return process


class Watcher:
    """A client of gpsd's protocol that takes reports and sentences."""

    def __init__(self, port):
        self.socket = wait_for("server", lambda: self.connect(port))
        self.lines = []
        self.rest = b""
        self.socket.sendall(b'?WATCH={"enable":true,"json":true,"nmea":true};\n')
        wait_for("WATCH", lambda: any('"WATCH"' in line for line in self.read()))

    @staticmethod
    def connect(port):
        try:
            return socket.create_connection(("127.0.0.1", port))
        except OSError:
            return None

    def read(self, wait=0):
        while select.select([self.socket], [], [], wait)[0]:
            data = self.socket.recv(65536)
            if not data:
                raise SystemExit("the server has ended")
            *lines, self.rest = (self.rest + data).split(b"\n")
            self.lines += [line.decode("latin-1").strip() for line in lines]
            wait = 0
        return self.lines


class Gpsd:
    """gpsd with a receiver that is a pty. It does not pass on what it does not know, so nothing is waited for
    but the last sentence."""

    tells_all = False

    def __init__(self):
        self.master, slave = pty.openpty()
        tty.setraw(slave)
        os.chmod(os.ttyname(slave), 0o666)
        port = free_port()
        self.process = start(["gpsd", "-N", "-n", "-S", str(port), os.ttyname(slave)])
        threading.Thread(target=self.drain, daemon=True).start()
        self.watcher = Watcher(port)
        wait_for("device", lambda: any('"activated"' in line for line in self.watcher.read()))

    def drain(self):
        """What gpsd asks the receiver is not answered."""
        try:
            while os.read(self.master, 4096):
                pass
        except OSError:
            pass

    def send(self, sentence):
        os.write(self.master, sentence.encode() + b"\r\n")
        self.watcher.read()

    def end(self):
        self.process.kill()
        self.process.wait()


class Relay:
    """The relay with a daemon that this program plays. Each sentence is waited for: the relay drops what its
    consumers don't take in time."""

    tells_all = True

    def __init__(self, program, directory):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(directory + "/daemon")
        port = free_port()
        self.process = start([program, "--daemon", directory + "/daemon", "--socket",
                              directory + "/relay", "--listen", str(port)])
        self.socket.settimeout(LIMIT_S)
        request, self.peer = self.socket.recvfrom(REQUEST.size)
        self.socket.sendto(RESPONSE.pack(REQUEST.unpack(request)[0], 0, b""), self.peer)
        self.watcher = Watcher(port)

    def send(self, sentence):
        self.socket.sendto(RESPONSE.pack(CODE_NMEA, 0, sentence.encode() + b"\r\n"), self.peer)

    def end(self):
        self.process.terminate()
        if self.process.wait(LIMIT_S) != 0:
            raise SystemExit("the relay has failed")
        self.socket.close()


def reading(receiver, sentences):
    """The reports that come back, each with the number of sentences that have come before it."""
    lines = receiver.watcher.lines
    try:
        for sentence in sentences:
            first = len(lines)
            receiver.send(sentence)
            if receiver.tells_all or sentence == END:
                wait_for(sentence, lambda: sentence in receiver.watcher.read(0.1)[first:])
    finally:
        receiver.end()
    number, reports = 0, []
    for line in lines:
        if line in sentences[number:number + 100]:
            number = sentences.index(line, number) + 1
        elif line.startswith("{"):
            reports.append((number, json.loads(line)))
    return reports


def of_class(reports, name):
    return [report for report in reports if report["class"] == name]


class Comparison:
    def __init__(self, log):
        self.log = log
        self.compared = 0
        self.differences = []

    def differ(self, when, what, ours, theirs):
        if (self.log, when, what) not in MOMENTS:
            self.differences.append(f"{when} {what}: {ours} ours, {theirs} theirs")

    def attributes(self, when, what, ours, theirs):
        """Each attribute of a report or a satellite."""
        for key in sorted((set(ours) | set(theirs)) - COMPUTED - {"class", "device", "time"}):
            our, their = ours.get(key), theirs.get(key)
            self.compared += 1
            if not same(our, their, f"{what}.{key}") and not is_gpsds_own(key, our, their, ours):
                self.differ(when, f"{what}.{key}", our, their)

    def timed(self, name, ours, theirs):
        """Reports with a time, by the time of day: gpsd puts another date to some logs, because it judges two
        digits of a year by its own clock. Of several reports for one time gpsd's last counts."""
        ours, theirs = by_time(ours, name), by_time(theirs, name)
        for when in sorted(set(ours) ^ set(theirs)):
            if name == "TPV" or when != min(theirs):  # our first GST may be a part of the epoch before
                self.differ(when, name, when in ours, when in theirs)
        for when in sorted(set(ours) & set(theirs)):
            self.attributes(when, name, ours[when], theirs[when])

    def sky(self, when, ours, theirs):
        """A view of ours, and what gpsd tells of the same sentences: one SKY for each system or so."""
        dops = [{key: value for key, value in one.items() if key.endswith("dop")} for one in (ours, theirs[-1])]
        self.attributes(when, "SKY", *dops)
        our, their = by_satellite([ours]), by_satellite(theirs)
        for one in sorted(set(our) | set(their)):
            what = f"satellite {one[0]}/{one[1]}"
            if one in our and one in their:
                self.attributes(when, what, our[one], their[one])
            elif not is_gpsds_satellite(self.log, one, our, their):
                self.differ(when, what, one in our, one in their)
        counts = (len(ours["satellites"]), sum(one["used"] for one in ours["satellites"]))
        if counts != (ours["nSat"], ours["uSat"]):
            self.differ(when, "counts", (ours["nSat"], ours["uSat"]), counts)

    def epoch(self, when, ours, theirs, sentences):
        our, their = of_class(ours, "TPV")[0], of_class(theirs, "TPV")
        if our["mode"] < 2 and their and their[-1]["mode"] != our["mode"]:
            self.differ(when, "TPV.mode", our["mode"], their[-1]["mode"])
        our, their = of_class(ours, "SKY"), of_class(theirs, "SKY")
        if our and their:
            self.sky(when, our[0], their)
        elif their or our and is_view(our[0], sentences):
            self.differ(when, "SKY", bool(our), bool(their))


def same(ours, theirs, attribute):
    if ours is None or theirs is None or isinstance(ours, bool):
        return ours == theirs
    return abs(ours - theirs) <= (ANGLE_ROUNDING if attribute in ("TPV.lat", "TPV.lon") else ROUNDING)


def is_gpsds_own(key, ours, theirs, of):
    """Whether gpsd is known to tell the attribute otherwise."""
    if ours is None and (key in OF_MODEL or key.endswith("dop")):
        return True  # of its model; computed, or kept of the last fix
    if ours is None and key in ("el", "az"):
        return theirs == 0  # it tells zero where the receiver tells nothing
    # It does not heed the number of the system that ends a GSA, and takes no satellite without a signal as used.
    return key == "used" and ours and (of["gnssid"] in (GALILEO, BEIDOU) or of["ss"] == 0)


def is_gpsds_satellite(log, one, ours, theirs):
    """Whether gpsd is known to leave out the satellite, or to make it of another one."""
    system, number = one
    if one in ours:
        as_sbas = (SBAS, number + SBAS_OFFSET) in theirs
        # It knows no NavIC; takes numbers above 32 of any system for SBAS; reports no GPS after other systems.
        return (system == NAVIC or system in (GALILEO, BEIDOU) and as_sbas
                or system == GPS and log == "negative-altitude")
    misread = number - SBAS_OFFSET
    # A satellite without a number gets the elevation as its number.
    return system == SBAS and ((GALILEO, misread) in ours or (BEIDOU, misread) in ours
                               or (log, misread) == ("negative-altitude", 56))


def is_view(sky, sentences):
    """Whether gpsd tells the view: it does so with GSV only, and not while all azimuths are zero."""
    return any(one.get("az", 0) for one in sky["satellites"]) and any("GSV," in one for one in sentences)


def by_time(reports, name):
    return {report["time"][10:]: report for _, report in reports
            if report["class"] == name and "time" in report and report.get("mode", 3) >= 2}


def by_satellite(skies):
    return {(one["gnssid"], one["svid"]): one for sky in skies for one in sky["satellites"]}


def main():
    relay, path = sys.argv[1:3]
    if shutil.which("gpsd") is None or not os.path.exists(path):
        print(f"skipped: gpsd or {path} is missing")
        return 77
    with open(path, encoding="latin-1", newline="") as file:
        sentences = [line.strip() for line in file if line.startswith("$")] + [END]
    theirs = reading(Gpsd(), sentences)
    with tempfile.TemporaryDirectory() as directory:
        ours = reading(Relay(relay, directory), sentences)
    comparison = Comparison(os.path.basename(path).removesuffix(".nmea"))
    for name in ("TPV", "GST"):
        comparison.timed(name, ours, theirs)
    ends = sorted({number for number, report in ours if report["class"] == "TPV"})
    for begin, end in zip([0] + ends, ends):
        our = [report for number, report in ours if number == end]
        their = [report for number, report in theirs if begin < number <= end]
        when = next((one["time"][10:] for one in our if "time" in one), f"sentence {end}")
        comparison.epoch(when, our, their, sentences[begin:end])
    print("\n".join(comparison.differences))
    print(f"{comparison.compared} values compared, {len(comparison.differences)} differences")
    return 0 if comparison.compared > 0 and not comparison.differences else 1


if __name__ == "__main__":
    sys.exit(main())
