#!/usr/bin/env python3
"""Receives the messages of Alertmanager and prints a line for each alert in one:
the time, the number of the message, "firing" or "resolved", the alert, the station and the issue ("-" if none)."""

import http.server
import json
import sys
import time


class Receiver(http.server.BaseHTTPRequestHandler):
    messages = 0

    def do_POST(self):
        body = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
        Receiver.messages += 1
        for alert in body["alerts"]:
            labels = alert["labels"]
            words = (f"{time.time():.1f}", str(Receiver.messages), alert["status"], labels["alertname"],
                     labels.get("station", "-"), labels.get("issue", "-"))
            print(*words, flush=True)
        self.send_response(200)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_):
        pass


if __name__ == "__main__":
    http.server.HTTPServer(("", int(sys.argv[1])), Receiver).serve_forever()
