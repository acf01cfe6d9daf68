#!/usr/bin/env python3
"""Tests the page of vigmond-log plot in a real Chromium.

usage: page_test.py VIGMOND_LOG...    the command that runs the program
"""

import json
import os
import re
import struct
import subprocess
import sys
import tempfile
import time
import zlib

BEGIN = 1709251200  # 2024-03-01 00:00:00 UTC
COUNT = 259200      # a month of one check, every ten seconds
SPIKE = COUNT // 2
WIDTH, HEIGHT = 1200, 900
LINE = (0, 58, 112)  # the colour of the values

HEADER = (
    "##\n##\t2024-03-01 00:00:00\tSTART\tvigmond\n##\n"
    "##\tname        \t    ID\t    ID\tinter-\t   min\t   min\t   max\t   max\tparam\n"
    "##\t            \t      \t index\t   val\t  fail\t  warn\t  warn\t  fail\t\n"
    "##\ttemperature \t  CB20\t     0\t    10\t   -40\t   -30\t    70\t    80\t/sys/<temp>\n"
    "##\tmemoryusage \t  CB21\t     0\t    10\t    10\t    25\t   NaN\t   NaN\n"
)

# Records errors from before the first script of the page.
WATCH = """<script>
window.said = [];
for (const kind of ['log', 'info', 'warn', 'error']) console[kind] = (...words) => said.push(words.join(' '));
window.addEventListener('error', (event) => said.push(event.message));
document.addEventListener('securitypolicyviolation', (event) => said.push(event.blockedURI));
</script>"""

# Zooms one strip as a drag does, clicks on a change, and returns to the whole range.
PLAY = """<script>
const {strips} = window.vigmondLog;
const seconds = (graph) => graph.xAxisRange().map((ms) => ms / 1000);
const shown = (graph) => { let n = 0; for (let i = 0; i < graph.numRows(); ++i) n += graph.getValue(i, 1) === null ? 0 : 1; return n; };
const result = {strips: strips.length, whole: seconds(strips[0].graph), wholePoints: shown(strips[0].graph)};
strips[0].graph.updateOptions({dateWindow: [(%(begin)d + 1000) * 1000, (%(begin)d + 3000) * 1000]});
result.zoomed = strips.map(({graph}) => seconds(graph));
result.zoomedPoints = shown(strips[1].graph);
document.querySelectorAll('td button')[1].click();
result.jumped = strips.map(({graph}) => seconds(graph));
document.getElementById('whole').click();
result.back = strips.map(({graph}) => seconds(graph));
const graph = strips[0].graph, area = graph.getArea();
const box = document.getElementById('strip-0-0').getBoundingClientRect();
result.spike = [box.left + graph.toDomXCoord((%(begin)d + 10 * %(spike)d) * 1000), box.top + graph.toDomYCoord(85)];
result.base = box.top + graph.toDomYCoord(42);
result.area = [box.left + area.x, box.left + area.x + area.w];
const list = document.querySelector('details');
list.open = false;
window.dispatchEvent(new Event('beforeprint'));
result.printed = list.open;
result.said = said;
const text = document.createElement('pre');
text.id = 'result';
text.hidden = true;
text.textContent = JSON.stringify(result);
document.body.append(text);
</script></body>"""


def fail(text):
    sys.exit("FAILED: " + text)


def expect(condition, text):
    if not condition:
        fail(text)


def write_log(path):
    lines = [HEADER]
    for number in range(COUNT):
        stamp = time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(BEGIN + 10 * number))
        if number == SPIKE:
            lines.append(f"{stamp}\tFAIL\tCB20\t0\t85\n")
        else:
            lines.append(f"{stamp}\tOK\tCB20\t0\t42\n")
        if number < 1000:
            lines.append(f"{stamp}\tOK\tCB21\t0\t50\n")
    with open(path, "w", encoding="ascii") as file:
        file.writelines(lines)


def chromium(folder, page, *arguments):
    command = ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
               "--disable-background-networking", "--disable-component-update", "--disable-sync",
               "--disable-dev-shm-usage", "--force-device-scale-factor=1", f"--user-data-dir={folder}/profile",
               f"--window-size={WIDTH},{HEIGHT}", "--virtual-time-budget=20000", *arguments, "file://" + page]
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True, timeout=240,
                          env={**os.environ, "HOME": folder}).stdout.decode()


def pixels_of(path):
    """The rows of an RGB or RGBA PNG, and the bytes per pixel."""
    with open(path, "rb") as file:
        data = file.read()
    at, packed = 8, b""
    while at < len(data):
        size, kind = struct.unpack(">I4s", data[at:at + 8])
        if kind == b"IHDR":
            width, height, depth, colour = struct.unpack(">IIBB", data[at + 8:at + 18])
        elif kind == b"IDAT":
            packed += data[at + 8:at + 8 + size]
        at += size + 12
    expect(depth == 8 and colour in (2, 6), "unsupported PNG")
    step = 3 if colour == 2 else 4
    raw, rows, before = zlib.decompress(packed), [], bytearray(width * step)
    for y in range(height):
        begin = y * (width * step + 1)
        filtering, row = raw[begin], bytearray(raw[begin + 1:begin + 1 + width * step])
        for x in range(len(row)):
            left = row[x - step] if x >= step else 0
            corner = before[x - step] if x >= step else 0
            if filtering == 1:
                row[x] = (row[x] + left) & 255
            elif filtering == 2:
                row[x] = (row[x] + before[x]) & 255
            elif filtering == 3:
                row[x] = (row[x] + (left + before[x]) // 2) & 255
            elif filtering == 4:
                p = left + before[x] - corner
                distances = (abs(p - left), abs(p - before[x]), abs(p - corner))
                row[x] = (row[x] + (left, before[x], corner)[distances.index(min(distances))]) & 255
        rows.append(row)
        before = row
    return rows, step


def is_line(rows, step, x, y):
    return sum(abs(rows[y][x * step + c] - LINE[c]) for c in range(3)) < 200


def check_picture(path, result):
    rows, step = pixels_of(path)
    x, y = (round(each) for each in result["spike"])
    middle = round((result["spike"][1] + result["base"]) / 2)
    columns = [column for column in range(round(result["area"][0]) + 3, round(result["area"][1]) - 3)
               if is_line(rows, step, column, middle)]
    expect(columns and min(columns) >= x - 2 and max(columns) <= x + 2,
           f"halfway up the only line is the spike at {x}: {columns}")
    expect(any(is_line(rows, step, column, row) for column in range(x - 2, x + 3) for row in range(y - 1, y + 4)),
           "the spike reaches its value")


def main():
    with tempfile.TemporaryDirectory() as folder:
        os.mkdir(folder + "/north")
        write_log(folder + "/north/logfile")
        page = folder + "/page.html"
        subprocess.run([*sys.argv[1:], "plot", "-o", page, folder + "/north"], check=True, env={**os.environ, "TZ": "UTC"})
        with open(page, encoding="utf-8") as file:
            text = file.read()
        expect(not re.search(r'(src|href)="', text.split("<script>")[0]), "the page loads nothing")
        expect("/sys/&lt;temp&gt;" in text, "texts of the log are no elements")
        play = PLAY % {"begin": BEGIN, "spike": SPIKE}
        with open(page, "w", encoding="utf-8") as file:
            file.write(text.replace("<style>", WATCH + "<style>", 1).replace("</body>", play))
        dom = chromium(folder, page, "--dump-dom")
        found = re.search(r'<pre id="result"[^>]*>(.*?)</pre>', dom)
        expect(found, "the script did not finish")
        result = json.loads(found.group(1))
        expect(result["said"] == [], f"messages on the console: {result['said']}")
        expect(result["strips"] == 2, "one strip per check")
        whole = [BEGIN, BEGIN + 10 * (COUNT - 1)]
        expect(result["whole"] == whole, f"the whole time: {result['whole']}")
        expect(result["wholePoints"] < 3 * WIDTH, f"few points for the whole time: {result['wholePoints']}")
        expect(result["zoomed"] == [[BEGIN + 1000, BEGIN + 3000]] * 2, f"one zoom for all: {result['zoomed']}")
        expect(result["zoomedPoints"] == 202, f"every record when zoomed in: {result['zoomedPoints']}")
        change = BEGIN + 10 * SPIKE
        expect(result["jumped"] == [[change - 1800, change + 1800]] * 2, f"a click jumps there: {result['jumped']}")
        expect(result["back"] == [whole] * 2, f"and back: {result['back']}")
        expect(result["printed"], "a folded list of changes is printed")
        chromium(folder, page, f"--screenshot={folder}/page.png")
        check_picture(folder + "/page.png", result)
    print("passed")


main()
