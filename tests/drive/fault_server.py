#!/usr/bin/env python3
"""A small HTTP file server that misbehaves on demand, for the drive's fault
tests.

It serves a directory with HTML indexes (links, trailing slash for
directories, like `python3 -m http.server`), HEAD, single byte ranges,
ETag/Last-Modified and If-Match. Faults are chosen with flags at start and
can be changed while it runs: POST /__faults with a JSON object of the same
names (dashes as underscores) replaces them; GET /__faults returns them with
counters of what was served.

  --ignore-range        answer ranged GETs with 200 and the whole body
  --head-405            answer HEAD with 405 Method Not Allowed
  --truncate FRACTION   send only this fraction of a body, then drop the
                        connection (Content-Length still announces it all)
  --truncate-every N    truncate every Nth GET (default 1: all)
  --stall SECONDS       after the headers of a GET, send nothing for this long
  --error-rate P        answer this fraction of requests 503
  --error-on WHAT       "all" requests (default) or only those of "files"
  --seed N              seed of the random choice of 503s

On start it prints "PORT <n>" on one line of stdout.
"""

import argparse
import email.utils
import html
import json
import os
import random
import socket
import sys
import threading
import time
import urllib.parse
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

FAULT_NAMES = ("ignore_range", "head_405", "truncate", "truncate_every", "stall", "error_rate",
               "error_on")


class State:
    """Faults and counters shared by the handler threads; one lock guards
    both."""

    def __init__(self, faults, seed):
        self.lock = threading.Lock()
        self.faults = faults
        self.random = random.Random(seed)
        self.counters = {"requests": 0, "gets": 0, "body_bytes": 0, "503": 0, "truncated": 0,
                         "stalled": 0}
        self.gets = 0

    def fault(self, name):
        with self.lock:
            return self.faults[name]

    def count(self, name, n=1):
        with self.lock:
            self.counters[name] += n

    def draw_error(self, is_file):
        with self.lock:
            self.counters["requests"] += 1
            if not is_file and self.faults["error_on"] == "files":
                return False
            if self.random.random() < self.faults["error_rate"]:
                self.counters["503"] += 1
                return True
            return False

    def should_truncate(self):
        with self.lock:
            self.gets += 1
            every = max(1, int(self.faults["truncate_every"]))
            return self.faults["truncate"] is not None and self.gets % every == 0


def parse_range(header, size):
    """Returns (start, end) inclusive for one "bytes=" range, None when the
    header asks for none, or "bad" when it cannot be satisfied."""
    if not header or not header.startswith("bytes=") or "," in header:
        return None
    first, _, last = header[len("bytes="):].strip().partition("-")
    try:
        if first == "":
            n = int(last)
            return (max(0, size - n), size - 1) if n > 0 and size > 0 else "bad"
        start = int(first)
        end = int(last) if last else size - 1
    except ValueError:
        return None
    if start >= size or end < start:
        return "bad"
    return start, min(end, size - 1)


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "FaultServer/1"

    def log_message(self, format, *args):  # noqa: A002 - the base class's name
        pass

    @property
    def state(self):
        return self.server.state

    def local_path(self):
        path = urllib.parse.unquote(urllib.parse.urlsplit(self.path).path)
        parts = [p for p in path.split("/") if p and p not in (".", "..")]
        return os.path.join(self.server.root, *parts), path.endswith("/")

    def send_plain(self, status, text, extra=()):
        body = text.encode()
        self.send_response(status)
        self.send_header("Content-Type", "text/plain; charset=utf-8")
        self.send_header("Content-Length", str(len(body)))
        for name, value in extra:
            self.send_header(name, value)
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def do_POST(self):
        if self.path != "/__faults":
            return self.send_plain(404, "not found\n")
        changes = json.loads(self.rfile.read(int(self.headers.get("Content-Length", 0))))
        with self.state.lock:
            for name, value in changes.items():
                if name not in FAULT_NAMES:
                    return self.send_plain(400, f"unknown fault {name}\n")
                self.state.faults[name] = value
        self.send_plain(200, "ok\n")

    def do_HEAD(self):
        if self.state.fault("head_405"):
            return self.send_plain(405, "HEAD not allowed\n", [("Allow", "GET")])
        self.serve()

    def do_GET(self):
        if self.path == "/__faults":
            with self.state.lock:
                report = dict(self.state.faults, **self.state.counters)
            return self.send_plain(200, json.dumps(report))
        self.serve()

    def serve(self):
        path, wants_dir = self.local_path()
        if self.state.draw_error(os.path.isfile(path)):
            return self.send_plain(503, "try again\n", [("Retry-After", "0")])
        if os.path.isdir(path):
            return self.serve_index(path)
        if wants_dir or not os.path.isfile(path):
            return self.send_plain(404, "not found\n")
        # Open once: a file replaced while this request runs is served whole
        # from the version that was opened.
        with open(path, "rb") as f:
            st = os.fstat(f.fileno())
            self.serve_file(f, st)

    def serve_index(self, path):
        if not self.path.endswith("/"):
            self.send_response(301)
            self.send_header("Location", self.path + "/")
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        lines = ["<!DOCTYPE HTML>", "<html><head><meta charset=\"utf-8\">",
                 "<title>Directory listing</title></head><body><ul>"]
        for name in sorted(os.listdir(path)):
            shown = name + ("/" if os.path.isdir(os.path.join(path, name)) else "")
            lines.append(f'<li><a href="{urllib.parse.quote(shown)}">{html.escape(shown)}</a></li>')
        lines.append("</ul></body></html>\n")
        body = "\n".join(lines).encode()
        self.send_response(200)
        self.send_header("Content-Type", "text/html; charset=utf-8")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def serve_file(self, f, st):
        size = st.st_size
        etag = f'"{st.st_mtime_ns:x}-{size:x}"'
        if_match = self.headers.get("If-Match")
        if if_match and if_match.strip() != "*" and etag not in if_match:
            return self.send_plain(412, "precondition failed\n")
        rng = None if self.state.fault("ignore_range") else parse_range(
            self.headers.get("Range"), size)
        if rng == "bad":
            return self.send_plain(416, "range not satisfiable\n",
                                   [("Content-Range", f"bytes */{size}")])
        start, end = rng if rng else (0, size - 1)
        length = end - start + 1
        self.send_response(206 if rng else 200)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Content-Length", str(length))
        self.send_header("Accept-Ranges", "none" if self.state.fault("ignore_range") else "bytes")
        self.send_header("ETag", etag)
        self.send_header("Last-Modified", email.utils.formatdate(st.st_mtime, usegmt=True))
        if rng:
            self.send_header("Content-Range", f"bytes {start}-{end}/{size}")
        self.end_headers()
        if self.command == "HEAD":
            return
        self.state.count("gets")
        self.send_body(f, start, length)

    def send_body(self, f, start, length):
        send = length
        truncated = self.state.should_truncate()
        if truncated:
            send = int(length * float(self.state.fault("truncate")))
        stall = float(self.state.fault("stall") or 0)
        if stall > 0:
            self.state.count("stalled")
            self.wfile.flush()
            self.sleep_while_open(stall)
        f.seek(start)
        left = send
        while left > 0:
            block = f.read(min(left, 256 * 1024))
            if not block:
                break
            self.wfile.write(block)
            self.state.count("body_bytes", len(block))
            left -= len(block)
        if truncated:
            self.state.count("truncated")
            self.wfile.flush()
            self.close_connection = True
            self.connection.shutdown(socket.SHUT_RDWR)

    def sleep_while_open(self, seconds):
        """Sleeps, ending early when the server stops."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline and not self.server.stopping.is_set():
            time.sleep(0.05)


class Server(ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        # A client that drops a connection it no longer needs is normal here.
        if not isinstance(sys.exc_info()[1], ConnectionError):
            super().handle_error(request, client_address)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--root", required=True)
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--ignore-range", action="store_true")
    parser.add_argument("--head-405", action="store_true")
    parser.add_argument("--truncate", type=float)
    parser.add_argument("--truncate-every", type=int, default=1)
    parser.add_argument("--stall", type=float, default=0)
    parser.add_argument("--error-rate", type=float, default=0)
    parser.add_argument("--error-on", choices=("all", "files"), default="all")
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args()
    faults = {name: getattr(args, name) for name in FAULT_NAMES}

    server = Server(("127.0.0.1", args.port), Handler)
    server.root = os.path.abspath(args.root)
    server.state = State(faults, args.seed)
    server.stopping = threading.Event()
    print(f"PORT {server.server_address[1]}", flush=True)
    try:
        server.serve_forever(poll_interval=0.1)
    except KeyboardInterrupt:
        pass
    finally:
        server.stopping.set()
        server.server_close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
