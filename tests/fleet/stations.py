#!/usr/bin/env python3
"""Serves the pages of many simulated stations, as node exporter and vigmond-log make them.

    stations.py COUNT targets       prints the targets for Prometheus
    stations.py COUNT day           prints a day of the stations as OpenMetrics, one sample a minute
    stations.py COUNT serve [RAISE] serves them; every RAISE seconds an issue is raised for three minutes and printed

Up to 10,000 stations have an address of their own in 127.0.0.0/8; more share them. The values of a station are a function of the time: some noise, the course of a
day, and in each check a fault of an hour every hundred days. CB09 warns almost always, as on a real station."""

import asyncio
import json
import math
import random
import sys
import time
import zlib

PORT = 9100
FAULT_SECONDS = 3600
HOURS_BETWEEN_FAULTS = 2400
RAISED_SECONDS = 180

# issue, index, check, seconds between records, the usual value, its noise, its course of a day, the value in a fault
CHECKS = [
    ("CB20", 0, "temperature", 10, 48, 3, 8, 83),
    ("CB05", 0, "bluetooth", 60, 0, 0, 0, 1),
    ("CB10", 0, "internet", 60, 0, 1, 0, 20),
    ("CB13", 0, "internet", 60, 0, 2, 0, 20),
    ("CB11", 0, "ethernet", 60, 0, 0, 0, 1),
    ("CB12", 0, "ethernet", 60, 0, 0, 0, 1),
    ("CB21", 0, "memoryusage", 10, 58, 3, 4, 8),
    ("CB07", 0, "wearout", 3600, 20, 0, 0, 50),
    ("CB01", 0, "wireless", 60, 0, 0, 0, 1),
    ("CB02", 0, "wireless", 60, 0, 0, 0, 1),
    ("CB04", 0, "wireless", 60, 75, 8, 0, 40),
    ("CB09", 0, "wireless", 10, -52, 6, 0, -75),
    *(("CB22", index, "diskusage", 900, 60, 1, 2, 9) for index in range(8)),
    ("CB23", 0, "service", 10, 0, 0, 0, 1),
    ("CB31", 0, "load", 180, 25, 10, 15, 80),
    ("CB32", 0, "load", 180, 25, 10, 15, 95),
]
RAISED = ["CB20", "CB21", "CB10", "CB04", "CB13", "CB02", "CB05", "CB31", "CB12", "CB01"]

FAMILIES = {
    "vigmond_check_value": "The value of a check, in its own unit.",
    "vigmond_check_state": "The state of a check: 0 is OK, 1 WARN, 2 FAIL.",
    "vigmond_check_last_record_timestamp_seconds": "When a check was last recorded.",
}
LABELS = [f'issue="{issue}",index="{index}",check="{check}"' for issue, index, check, *_ in CHECKS]

COLLECTORS = ("systemd", "textfile", "time")
UNIT_STATES = ("activating", "active", "deactivating", "failed", "inactive")
NODE_CONSTANTS = "".join(
    [f'node_scrape_collector_success{{collector="{each}"}} 1\n' for each in COLLECTORS]
    + [f'node_systemd_unit_state{{name="vigmond.service",state="{each}",type="notify"}} {int(each == "active")}\n'
       for each in UNIT_STATES]
    + [f'node_systemd_units{{state="{each}"}} {7 if each == "active" else 0}\n' for each in UNIT_STATES]
    + ['node_systemd_service_restart_total{name="vigmond.service"} 0\n', "node_systemd_system_running 1\n",
       'node_systemd_version{version="252.19-1"} 252.19\n', "node_textfile_scrape_error 0\n",
       'node_time_zone_offset_seconds{time_zone="UTC"} 0\n'])


def noise(*what):
    return zlib.crc32(repr(what).encode())


def reading(station, check, now):
    """The value, the state and the time of the last record."""
    issue, index, _, interval, usual, spread, course, bad = CHECKS[check]
    last = now - (now + station) % interval
    if noise(station, check, (now + 37 * station) // FAULT_SECONDS) % HOURS_BETWEEN_FAULTS == 0:
        return bad, 2, last
    value = usual + station % 5 * (spread > 0) + round(course * math.sin(last * math.tau / 86400))
    if spread:
        value += noise(station, index, last, issue) % (spread + 1)
    return value, int(issue == "CB09"), last


def samples(station, now, raised):
    """Name and labels, and the value, of all series."""
    readings = [reading(station, check, now) for check in range(len(CHECKS))]
    for check, row in enumerate(CHECKS):
        if raised.get((station, row[0]), 0) > now and row[1] == 0:
            readings[check] = row[7], 2, readings[check][2]
    return readings


def page(station, now, raised):
    readings = samples(station, now, raised)
    text = []
    for part, (name, description) in enumerate(FAMILIES.items()):
        text.append(f"# HELP {name} {description}\n# TYPE {name} gauge\n")
        text += [f"{name}{{{labels}}} {each[part]}\n" for labels, each in zip(LABELS, readings)]
    text.append("vigmond_up 1\n")
    text.append(NODE_CONSTANTS)
    text.append(f"node_time_seconds {time.time():.7f}\n")
    text.append(f'node_textfile_mtime_seconds{{file="/var/lib/prometheus/node-exporter/vigmond.prom"}} {now - now % 15}\n')
    for each in COLLECTORS:
        text.append(f'node_scrape_collector_duration_seconds{{collector="{each}"}} {random.random() / 1000}\n')
    return "".join(text)


def target(station):
    return {"targets": [f"127.1.{station // 250 % 40}.{1 + station % 250}:{PORT}"],
            "labels": {"station": f"s{station}", "__metrics_path__": f"/{station}"}}


class Station(asyncio.Protocol):
    raised = {}

    def connection_made(self, transport):
        self.transport = transport
        self.asked = b""

    def data_received(self, data):
        self.asked += data
        while b"\r\n\r\n" in self.asked:
            request, _, self.asked = self.asked.partition(b"\r\n\r\n")
            station = int(request.split(b" ", 2)[1][1:])
            body = page(station, int(time.time()), self.raised).encode()
            self.transport.write(b"HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\n"
                                 b"Content-Length: %d\r\n\r\n%s" % (len(body), body))


async def serve(count, seconds):
    server = await asyncio.get_running_loop().create_server(Station, "0.0.0.0", PORT, backlog=4096)
    order = list(range(count))
    random.Random(1).shuffle(order)
    for number in range(count if seconds else 0):
        await asyncio.sleep(seconds)
        station, issue = order[number], RAISED[number % len(RAISED)]
        Station.raised[station, issue] = time.time() + RAISED_SECONDS
        print(f"{time.time():.1f}", f"s{station}", issue, flush=True)
    await server.serve_forever()


def print_day(count):
    start = int(time.time()) // 86400 * 86400 - 172800
    write = sys.stdout.write
    for part, name in enumerate(FAMILIES):
        write(f"# TYPE {name} gauge\n")
        for station in range(count):
            for check, labels in enumerate(LABELS):
                for now in range(start, start + 86400, 60):
                    now += station % 60
                    write(f'{name}{{station="s{station}",{labels}}} {reading(station, check, now)[part]} {now}\n')
    for number, line in enumerate(NODE_CONSTANTS.splitlines()):  # which do not change, nor does vigmond_up
        name, value = line.rsplit(" ", 1)
        for station in range(count):
            for now in range(start, start + 86400, 60):
                write(f'c{number}{{station="s{station}"}} {value} {now + station % 60}\n')
    write("# EOF\n")


def main():
    count, what = int(sys.argv[1]), sys.argv[2]
    if what == "targets":
        print(json.dumps([target(each) for each in range(count)]))
    elif what == "day":
        print_day(count)
    else:
        asyncio.run(serve(count, float(sys.argv[3]) if len(sys.argv) > 3 else 0))


if __name__ == "__main__":
    main()
