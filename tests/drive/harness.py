"""Shared pieces of the drive tests: a private nginx, a mounted drive and
the bookkeeping that reads nginx's access log.

Every process started here runs under a temporary directory and is stopped
by the cleanup that started it, also when a test fails: mounts are undone
with fusermount3 (lazily as a last resort) and servers are terminated.

Environment:
  CACHEDRIVE           path of the drive binary (set by CTest)
  DRIVE_UNDER_TEST     cachedrive (default), rclone or httpdirfs: the peers
                       behave alike and let the harness be checked on its own
  DRIVE_TESTS_QUICK    1 skips the tests that move hundreds of MiB (used by
                       the sanitizer builds, where the drive is slow)
"""

import contextlib
import hashlib
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

MiB = 1 << 20

DRIVE = os.environ.get("DRIVE_UNDER_TEST", "cachedrive")
QUICK = os.environ.get("DRIVE_TESTS_QUICK") == "1"


def fuse_unavailable_reason():
    """Returns why FUSE mounts cannot work here, or None when they can."""
    if not os.path.exists("/dev/fuse"):
        return "/dev/fuse does not exist"
    try:
        os.close(os.open("/dev/fuse", os.O_RDWR))
    except OSError as e:
        return f"/dev/fuse cannot be opened: {e.strerror}"
    if shutil.which("fusermount3") is None:
        return "fusermount3 is not installed (Debian package fuse3)"
    return None


def requires_fuse(cls):
    """Class decorator: skips the whole class where FUSE cannot be used."""
    reason = fuse_unavailable_reason()
    if reason:
        return unittest.skip(f"FUSE unavailable: {reason}")(cls)
    return cls


def cachedrive_only(f):
    """The test exercises an option only cachedrive has."""
    return unittest.skipUnless(DRIVE == "cachedrive", f"needs cachedrive, not {DRIVE}")(f)


def large(f):
    return unittest.skipIf(QUICK, "moves hundreds of MiB; skipped in quick runs")(f)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_until(predicate, timeout, interval=0.05):
    """Polls predicate until it is true; returns its last value."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value or time.monotonic() >= deadline:
            return value
        time.sleep(interval)


def sha256_file(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(4 * MiB), b""):
            h.update(block)
    return h.hexdigest()


def sha256sum(path, timeout=120):
    """Hashes a file with sha256sum, as a user would."""
    out = subprocess.run(["sha256sum", path], capture_output=True, text=True, timeout=timeout)
    if out.returncode != 0:
        raise OSError(f"sha256sum {path} failed: {out.stderr.strip()}")
    return out.stdout.split()[0]


def write_random_file(path, size, chunk=8 * MiB):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        left = size
        while left:
            n = min(chunk, left)
            f.write(os.urandom(n))
            left -= n


def write_patterned_file(path, size, tag):
    """A file whose every 16-byte cell names its own offset and a one-byte
    tag: a shifted, zeroed or foreign byte is visible at once."""
    with open(path, "wb") as f:
        f.write(patterned_bytes(0, size, tag))


def patterned_bytes(offset, length, tag):
    first = offset // 16
    last = (offset + length + 15) // 16
    cells = b"".join(b"%c%015d" % (tag, i * 16) for i in range(first, last))
    start = offset - first * 16
    return cells[start:start + length]


def run_quietly(args, timeout=20):
    return subprocess.run(args, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          timeout=timeout).returncode


def is_mounted(path):
    """Reads the mount table instead of calling stat, which blocks on a hung
    FUSE mount and fails on a dead one."""
    target = os.path.realpath(path).replace(" ", "\\040")
    with open("/proc/self/mounts") as f:
        return any(line.split()[1] == target for line in f)


def unmount(path):
    """Unmounts path: normally, and lazily when it is still busy."""
    if not is_mounted(path):
        return
    run_quietly(["fusermount3", "-u", path])
    if wait_until(lambda: not is_mounted(path), 5):
        return
    run_quietly(["fusermount3", "-uz", path])
    wait_until(lambda: not is_mounted(path), 5)


def stop_process(proc, timeout=20):
    """SIGTERM, then SIGKILL after timeout; returns the exit status."""
    if proc.poll() is None:
        proc.send_signal(signal.SIGTERM)
        try:
            proc.wait(timeout)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()
    return proc.returncode


def directory_size(path):
    """Bytes the files under path take on disk (sparse holes excluded)."""
    total = 0
    for dirpath, _, names in os.walk(path):
        for name in names:
            with contextlib.suppress(FileNotFoundError):
                total += os.lstat(os.path.join(dirpath, name)).st_blocks * 512
    return total


class Nginx:
    """An nginx on 127.0.0.1 with a free port, serving `root` twice: under
    /json/ with JSON autoindex and under / with HTML autoindex.

    The access log has one tab-separated line per request: method, decoded
    path, status, Range header, body bytes sent.
    """

    def __init__(self, root, limit_rate=None):
        self.root = root
        self.dir = tempfile.mkdtemp(prefix="nginx-")
        self.access_log = os.path.join(self.dir, "access.log")
        self.error_log = os.path.join(self.dir, "error.log")
        self.limit_rate = limit_rate
        self.proc = None
        self.port = None

    def config(self):
        rate = f"limit_rate {self.limit_rate};" if self.limit_rate else ""
        temps = "\n".join(
            f"  {kind}_temp_path {self.dir}/{kind};"
            for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        root = self.root.rstrip("/")
        return f"""
user root;
daemon off;
worker_processes 2;
pid {self.dir}/nginx.pid;
error_log {self.error_log} warn;
events {{ worker_connections 512; }}
http {{
  default_type application/octet-stream;
{temps}
  log_format fetches "$request_method\\t$uri\\t$status\\t$http_range\\t$body_bytes_sent";
  access_log {self.access_log} fetches;
  keepalive_requests 100000;
  server {{
    listen 127.0.0.1:{self.port};
    {rate}
    location /json/ {{ alias {root}/; autoindex on; autoindex_format json; }}
    location / {{ root {root}; autoindex on; }}
  }}
}}
"""

    def start(self):
        for _ in range(5):
            self.port = free_port()
            conf = os.path.join(self.dir, "nginx.conf")
            with open(conf, "w") as f:
                f.write(self.config())
            self.proc = subprocess.Popen(
                ["nginx", "-e", self.error_log, "-c", conf, "-p", self.dir],
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            if wait_until(lambda: self._answers() or self.proc.poll() is not None, 10):
                if self.proc.poll() is None:
                    return self
        raise RuntimeError(f"nginx did not start: {self._error_tail()}")

    def _answers(self):
        with contextlib.suppress(OSError):
            with socket.create_connection(("127.0.0.1", self.port), timeout=1):
                return True
        return False

    def _error_tail(self):
        with contextlib.suppress(OSError), open(self.error_log) as f:
            return f.read()[-2000:]
        return ""

    def url(self, style="json"):
        return f"http://127.0.0.1:{self.port}/" + ("json/" if style == "json" else "")

    def stop(self):
        if self.proc:
            stop_process(self.proc, 10)
        shutil.rmtree(self.dir, ignore_errors=True)

    def requests(self):
        """The access log so far as (method, path, status, range, bytes)."""
        rows = []
        with contextlib.suppress(FileNotFoundError), open(self.access_log, encoding="utf-8",
                                                          errors="replace") as f:
            for line in f:
                parts = line.rstrip("\n").split("\t")
                if len(parts) == 5:
                    method, path, status, rng, sent = parts
                    rows.append((method, path, int(status), rng, int(sent)))
        return rows

    def fetched_spans(self, path_suffix, since=0):
        """Byte spans of the file actually sent by GETs from request number
        `since` on: (start, end) pairs, end exclusive, from the Range asked
        and the bytes nginx sent."""
        spans = []
        for method, path, status, rng, sent in self.requests()[since:]:
            if method != "GET" or not path.endswith(path_suffix) or sent == 0:
                continue
            start = 0
            if status == 206 and rng.startswith("bytes="):
                first = rng[len("bytes="):].split(",")[0].split("-")[0]
                start = int(first) if first else 0
            spans.append((start, start + sent))
        return spans


def overlap_bytes(spans):
    """Bytes sent more than once among spans."""
    total = sum(e - s for s, e in spans)
    covered, reach = 0, 0
    for s, e in sorted(spans):
        s = max(s, reach)
        if e > s:
            covered += e - s
            reach = e
    return total - covered


class Drive:
    """One mounted drive (cachedrive, or a peer for checking the harness),
    running in the foreground as a child process.

    stop() unmounts it and returns its exit status; the log and the output
    are kept for failure messages.
    """

    def __init__(self, url, limit=None, config=None, options=(), extra_args=(), cache_dir=None,
                 check_leaks=False):
        self.url = url
        self.dir = tempfile.mkdtemp(prefix="drive-")
        self.mountpoint = os.path.join(self.dir, "mnt")
        self.cache_dir = cache_dir or os.path.join(self.dir, "cache")
        self.log = os.path.join(self.dir, "drive.log")
        self.output = os.path.join(self.dir, "drive.out")
        os.mkdir(self.mountpoint)
        os.makedirs(self.cache_dir, exist_ok=True)
        self.limit = limit
        self.config = config
        self.options = list(options)
        self.extra_args = list(extra_args)
        self.check_leaks = check_leaks
        self.proc = None
        self.exit_status = None

    def command(self):
        # The peers read only HTML indexes.
        url = self.url if DRIVE == "cachedrive" else self.url.replace("/json/", "/")
        if DRIVE == "rclone":
            cmd = ["rclone", "mount", ":http:", self.mountpoint, "--http-url", url,
                   "--vfs-cache-mode", "full", "--cache-dir", self.cache_dir, "--dir-cache-time",
                   "2s", "--low-level-retries", "3", "--retries", "1", "--timeout", "5s"]
            if self.limit:
                cmd += ["--vfs-cache-max-size", str(self.limit)]
            return cmd
        if DRIVE == "httpdirfs":
            # Its range check misreads nginx's answer to an inclusive range.
            return ["httpdirfs", "-f", "--cache", "--no-range-check", "--cache-location",
                    self.cache_dir, url, self.mountpoint]
        drive = os.environ.get("CACHEDRIVE")
        if not drive:
            raise unittest.SkipTest("CACHEDRIVE is not set: run the tests through CTest")
        cmd = [drive, self.url, self.mountpoint, "-f", "--cache-dir", self.cache_dir, "--log",
               self.log, "--stats", "-v"]
        if self.limit:
            cmd += ["--limit", self.limit]
        if self.config:
            cmd += ["--config", self.config]
        for opt in self.options:
            cmd += ["-o", opt]
        return cmd + self.extra_args

    def start(self, timeout=20):
        # Every server a test uses is on loopback: never reach it through a proxy.
        env = dict(os.environ, NO_PROXY="127.0.0.1,localhost", no_proxy="127.0.0.1,localhost")
        # In an AddressSanitizer build, leaks at exit are checked by the one
        # test made for them; every other test still fails on memory errors.
        if not self.check_leaks:
            env["ASAN_OPTIONS"] = ":".join(filter(None, [env.get("ASAN_OPTIONS"),
                                                         "detect_leaks=0"]))
        with open(self.output, "wb") as out:
            self.proc = subprocess.Popen(self.command(), stdout=out, stderr=subprocess.STDOUT,
                                         stdin=subprocess.DEVNULL, env=env)
        if not wait_until(lambda: is_mounted(self.mountpoint) or self.proc.poll() is not None,
                          timeout, 0.1) or not is_mounted(self.mountpoint):
            status = stop_process(self.proc)
            unmount(self.mountpoint)
            raise AssertionError(f"drive did not mount (exit status {status}):\n{self.messages()}")
        return self

    def path(self, *names):
        return os.path.join(self.mountpoint, *names)

    def stop(self):
        """Unmounts with SIGTERM, the way a user stops a foreground drive;
        falls back to fusermount3. Returns the drive's exit status."""
        if self.proc is None:
            return None
        if self.exit_status is None:
            # A drive that does not end on SIGTERM is killed: that aborts its
            # FUSE connection, so nothing blocked on the mount stays blocked.
            self.exit_status = stop_process(self.proc)
            unmount(self.mountpoint)
        return self.exit_status

    def messages(self, tail=4000):
        text = ""
        for path in (self.output, self.log):
            with contextlib.suppress(OSError), open(path, errors="replace") as f:
                text += f"--- {os.path.basename(path)}\n{f.read()[-tail:]}\n"
        return text

    def remove(self):
        self.stop()
        shutil.rmtree(self.dir, ignore_errors=True)


class DriveTestCase(unittest.TestCase):
    """Helpers for tests that mount drives; every drive mounted through
    mount() is stopped after the test and must exit cleanly."""

    def mount(self, url, **kwargs):
        drive = Drive(url, **kwargs).start()
        self.addCleanup(self._stop_drive, drive)
        return drive

    def _stop_drive(self, drive):
        status = drive.stop()
        messages = drive.messages()
        drive.remove()
        # Peers are stopped by signal and report it; only cachedrive promises 0.
        if DRIVE == "cachedrive":
            self.assertEqual(status, 0, f"drive did not exit cleanly:\n{messages}")

    def read_range(self, path, offset, length):
        with open(path, "rb") as f:
            return os.pread(f.fileno(), length, offset)

    def assert_same_bytes(self, got, expected, what):
        """Compares without dumping megabytes: names the first bad offset."""
        if got == expected:
            return
        n = min(len(got), len(expected))
        bad = next((i for i in range(n) if got[i] != expected[i]), n)
        self.fail(f"{what}: {len(got)} bytes, {len(expected)} expected, first difference "
                  f"at offset {bad}")


def timed_call(fn, *args):
    """Runs fn in a thread; returns (result or exception, seconds). A call
    that never returns is reported as such instead of hanging the suite."""
    box = {}

    def run():
        start = time.monotonic()
        try:
            box["value"] = fn(*args)
        except Exception as e:  # noqa: BLE001 - handed to the caller
            box["value"] = e
        box["seconds"] = time.monotonic() - start

    t = threading.Thread(target=run, daemon=True)
    t.start()
    t.join(120)
    if t.is_alive():
        return TimeoutError("call did not return within 120 s"), 120.0
    return box["value"], box["seconds"]
