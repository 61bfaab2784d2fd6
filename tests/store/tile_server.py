#!/usr/bin/env python3
"""The tests' tile server: Python's http.server over a folder of z/x/y.png, on 127.0.0.1:PORT.
Prints "ready", then a line a request: "GET <path> <status> <requests under way> <User-Agent>".

    tile_server.py PORT DIR [DELAY_MS]
"""
import functools
import http.server
import sys
import threading
import time

port, folder = int(sys.argv[1]), sys.argv[2]
delay = int(sys.argv[3]) / 1000.0 if len(sys.argv) > 3 else 0.0
lock = threading.Lock()
busy = 0


class Handler(http.server.SimpleHTTPRequestHandler):
    protocol_version = "HTTP/1.1"  # keep-alive, as a real tile server
    disable_nagle_algorithm = True

    def do_GET(self):
        global busy
        with lock:
            busy += 1
            self.under_way = busy
        try:
            time.sleep(delay)  # so that requests sent together overlap
            super().do_GET()
        finally:
            with lock:
                busy -= 1

    def log_request(self, code="-", size="-"):
        with lock:  # one whole line at a time
            sys.stdout.write("GET %s %s %d %s\n" % (self.path, code, getattr(self, "under_way", 0),
                                                   self.headers.get("User-Agent", "")))
            sys.stdout.flush()

    def log_message(self, format, *args):
        pass


server = http.server.ThreadingHTTPServer(("127.0.0.1", port), functools.partial(Handler, directory=folder))
print("ready", flush=True)
server.serve_forever()
