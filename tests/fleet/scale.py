#!/usr/bin/env python3
"""Measures what a fleet of simulated stations costs at the centre, with the configuration of data/examples/fleet.

    scale.py prometheus COUNT [MINUTES]    Prometheus scrapes COUNT stations
    scale.py victoria COUNT [MINUTES]      Prometheus as an agent scrapes them and writes into VictoriaMetrics
    scale.py silence COUNT                 as the first, then all stations fall silent; counts the messages
    scale.py disk COUNT                    the disk that a day of COUNT stations takes, in both stores

Needs Debian's prometheus, prometheus-alertmanager, victoria-metrics and curl. Its files are in build/fleet and
removed at the end. Runs in network namespaces of their own (unshare --net) do not disturb each other."""

import json
import math
import os
import pathlib
import resource
import shutil
import signal
import statistics
import subprocess
import sys
import time
import urllib.parse
import urllib.request

HERE = pathlib.Path(__file__).resolve().parent
EXAMPLES = HERE.parent.parent / "data/examples/fleet"
WORK = HERE.parent.parent / "build/fleet" / "-".join(sys.argv[1:3])
WARM_UP = 90  # a scrape of all stations and a half
TICKS = os.sysconf("SC_CLK_TCK")


class Programs:
    """The running programs by name; ends them all."""

    def __init__(self):
        self.running = {}

    def start(self, name, *command, output=None):
        log = open(WORK / f"{name}.log", "w")
        self.running[name] = subprocess.Popen([str(each) for each in command], cwd=WORK, stderr=log, stdout=output or log,
                                              stdin=subprocess.DEVNULL)

    def seconds(self, name):
        fields = (pathlib.Path("/proc") / str(self.running[name].pid) / "stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / TICKS

    def megabytes(self, name):
        status = (pathlib.Path("/proc") / str(self.running[name].pid) / "status").read_text()
        return int(status.split("VmHWM:")[1].split()[0]) / 1024

    def end(self):
        for process in self.running.values():
            process.send_signal(signal.SIGTERM)
        for process in self.running.values():
            try:
                process.wait(60)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()


def get(url):
    with urllib.request.urlopen(url, timeout=30) as answer:
        return answer.read().decode()


def query(base, expression):
    try:
        found = json.loads(get(f"{base}/api/v1/query?query={urllib.parse.quote(expression)}"))["data"]["result"]
    except OSError as error: # overloaded
        print(f"  {expression}: {error}")
        return math.nan
    return float(found[0]["value"][1]) if found else 0.0


def await_answer(url, seconds=60):
    end = time.time() + seconds
    while True:
        try:
            return get(url)
        except OSError:
            if time.time() > end:
                raise
            time.sleep(0.2)


def folder_bytes(folder):
    return sum(each.stat().st_size for each in pathlib.Path(folder).rglob("*") if each.is_file())


def prepare(count):
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    shutil.rmtree(WORK, ignore_errors=True)
    shutil.copytree(EXAMPLES, WORK)
    (WORK / "stations/example.json").unlink()
    targets = subprocess.run([HERE / "stations.py", str(count), "targets"], check=True, capture_output=True).stdout
    (WORK / "stations/all.json").write_bytes(targets)
    text = (WORK / "remote-write.yml").read_text()
    (WORK / "remote-write.yml").write_text(text.replace("http://centre:8428", "http://localhost:8428"))


def start_centre(programs, kind):
    programs.start("webhook", HERE / "webhook.py", 9099, output=open(WORK / "alerts", "w"))
    programs.start("alertmanager", "prometheus-alertmanager", "--config.file=alertmanager.yml", "--storage.path=alerts.db",
                   "--cluster.listen-address=")
    if kind == "victoria":
        programs.start("agent", "prometheus", "--enable-feature=agent", "--config.file=remote-write.yml",
                       "--storage.agent.path=agent", "--web.listen-address=:9090")
        programs.start("victoria", "victoria-metrics", "-storageDataPath=victoria", "-httpListenAddr=:8428",
                       "-search.latencyOffset=1s")
        await_answer("http://localhost:8428/health")
        programs.start("vmalert", "vmalert", "-rule=rules.yml", "-evaluationInterval=15s",
                       "-datasource.url=http://localhost:8428", "-remoteWrite.url=http://localhost:8428",
                       "-notifier.url=http://localhost:9093", "-httpListenAddr=:8880")
        return "http://localhost:8428", ("agent", "victoria", "vmalert", "alertmanager")
    programs.start("prometheus", "prometheus", "--config.file=prometheus.yml", "--storage.tsdb.path=data",
                   "--web.listen-address=:9090")
    return "http://localhost:9090", ("prometheus", "alertmanager")


def await_all_up(base, count):
    end = time.time() + 180
    up = 0.0
    while time.time() < end:
        up = query(base, "sum(up)")
        if up == count:
            return
        time.sleep(1)
    print(f"after three minutes {up:.0f} of {count} stations are scraped")


def delays():
    """The seconds from the issues raised on purpose to their message, and how many had none."""
    raised = [line.split() for line in (WORK / "raised").read_text().splitlines()]
    told = {}
    for line in (WORK / "alerts").read_text().splitlines():
        when, _, status, _, station, issue = line.split()
        if status == "firing":
            told.setdefault((station, issue), float(when))
    old = [each for each in raised if float(each[0]) < time.time() - 170]
    found = [told[station, issue] - float(when) for when, station, issue in old if (station, issue) in told]
    return found, len(old) - len(found)


def report(kind, count, minutes, base, measured, programs, before):
    print(f"{kind}, {count} stations, {minutes} minutes after the warm-up, load average {os.getloadavg()[0]:.1f}")
    for name in measured:
        cpu = (programs.seconds(name) - before[name]) / (60 * minutes) * 100
        print(f"  {name}: {cpu:.1f} % of one core, {programs.megabytes(name):.0f} MB resident at most")
    up = query(base, "sum(up)")
    print(f"  stations scraped: {up:.0f}")
    print(f"  slowest scrape {query(base, 'max(scrape_duration_seconds)'):.2f} s,"
          f" least scrapes of a station in 4 minutes {query(base, 'min(count_over_time(up[4m]))'):.0f}")
    found, lost = delays()
    if found:
        print(f"  raised issue to message: {len(found)} of {len(found) + lost},"
              f" median {statistics.median(found):.0f} s, at most {max(found):.0f} s")


def measure(kind, count, minutes):
    prepare(count)
    programs = Programs()
    try:
        programs.start("stations", HERE / "stations.py", count, "serve", 10, output=open(WORK / "raised", "w"))
        base, measured = start_centre(programs, kind)
        await_answer(base + "/-/healthy" if kind != "victoria" else base + "/health")
        await_all_up(base, count)
        time.sleep(WARM_UP)
        before = {name: programs.seconds(name) for name in measured}
        time.sleep(60 * minutes)
        report(kind, count, minutes, base, measured, programs, before)
        if kind == "silence":
            count_messages(programs)
    finally:
        programs.end()
        shutil.rmtree(WORK)


def count_messages(programs):
    told = len((WORK / "alerts").read_text().splitlines())
    programs.running["stations"].terminate()
    time.sleep(400)  # two minutes of silence, a scrape, and group_interval
    lines = [line.split() for line in (WORK / "alerts").read_text().splitlines()[told:]]
    print(f"  all stations silent: {len({line[1] for line in lines})} messages with {len(lines)} alerts:",
          sorted({(line[3], line[2]) for line in lines}))


def disk(count):
    prepare(count)
    programs = Programs()
    try:
        with open(WORK / "day", "w") as day:
            subprocess.run([HERE / "stations.py", str(count), "day"], check=True, stdout=day)
        samples = sum(not line.startswith("#") for line in open(WORK / "day"))
        subprocess.run(["promtool", "tsdb", "create-blocks-from", "openmetrics", "day", "data"], cwd=WORK, check=True,
                       stdout=subprocess.DEVNULL)
        print(f"a day of {count} stations, {samples} samples")
        print(f"  Prometheus: {folder_bytes(WORK / 'data') / samples:.2f} bytes a sample,"
              f" {folder_bytes(WORK / 'data') / count / 1e6:.3f} MB a station")
        programs.start("victoria", "victoria-metrics", "-storageDataPath=victoria", "-httpListenAddr=:8428")
        await_answer("http://localhost:8428/health")
        subprocess.run(["curl", "-sSf", "-T", "day", "http://localhost:8428/api/v1/import/prometheus"], cwd=WORK, check=True)
        get("http://localhost:8428/internal/force_flush")
        get("http://localhost:8428/internal/force_merge")
        time.sleep(30)
        programs.end()
        programs.running = {}
        print(f"  VictoriaMetrics: {folder_bytes(WORK / 'victoria') / samples:.2f} bytes a sample,"
              f" {folder_bytes(WORK / 'victoria') / count / 1e6:.3f} MB a station")
    finally:
        programs.end()
        shutil.rmtree(WORK)


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    what, count = sys.argv[1], int(sys.argv[2])
    if what == "disk":
        disk(count)
    else:
        measure(what, count, float(sys.argv[3]) if len(sys.argv) > 3 else 5)


if __name__ == "__main__":
    main()
