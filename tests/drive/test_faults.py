"""The drive against a server that misbehaves (fault_server.py): every read
returns the bytes the server holds or fails with EIO within a bounded time;
never zeros, shifted or mixed bytes, never a hang."""

import errno
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

from harness import (MiB, DriveTestCase, free_port, patterned_bytes, requires_fuse, sha256_file,
                     sha256sum, stop_process, timed_call, wait_until, write_patterned_file,
                     write_random_file)

FAULT_SERVER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fault_server.py")

# Reads wait at most 5 s for data being fetched; a failure must surface
# within this bound plus the drive's own retries.
DRIVE_CONFIG = '{"cache":{"read":{"timeout":5000}}}'
EIO_WITHIN = 60


# The control URL is on loopback: never through a proxy from the environment.
DIRECT = urllib.request.build_opener(urllib.request.ProxyHandler({}))


class FaultServer:
    """fault_server.py as a child process; stop() kills it the way a crash
    or a pulled cable would, start() brings it back on the same port."""

    def __init__(self, root, *flags):
        self.root = root
        self.flags = list(flags)
        self.port = None
        self.proc = None

    def start(self):
        port = self.port or free_port()
        self.proc = subprocess.Popen(
            [sys.executable, FAULT_SERVER, "--root", self.root, "--port", str(port)] + self.flags,
            stdout=subprocess.PIPE, text=True)
        line = self.proc.stdout.readline()
        if not line.startswith("PORT "):
            stop_process(self.proc)
            raise RuntimeError(f"fault server did not start on port {port}")
        self.port = int(line.split()[1])
        return self

    def stop(self):
        if self.proc:
            self.proc.kill()
            self.proc.wait()
            self.proc.stdout.close()

    @property
    def url(self):
        return f"http://127.0.0.1:{self.port}/"

    def set_faults(self, **faults):
        request = urllib.request.Request(self.url + "__faults", data=json.dumps(faults).encode(),
                                         method="POST")
        with DIRECT.open(request, timeout=5) as r:
            r.read()

    def report(self):
        with DIRECT.open(self.url + "__faults", timeout=5) as r:
            return json.loads(r.read())


@requires_fuse
class FaultTest(DriveTestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="faultroot-")
        self.addCleanup(shutil.rmtree, self.root, True)
        write_random_file(os.path.join(self.root, "a.bin"), 3 * MiB + 4321)
        write_random_file(os.path.join(self.root, "b.bin"), 2 * MiB + 17)
        write_random_file(os.path.join(self.root, "sub", "c.bin"), 65537)

    def serve(self, *flags):
        server = FaultServer(self.root, *flags).start()
        self.addCleanup(server.stop)
        return server

    def mount_server(self, server):
        return self.mount(server.url, config=DRIVE_CONFIG)

    def assert_hashes_match(self, drive, *names):
        for name in names:
            with self.subTest(name=name):
                self.assertEqual(sha256sum(drive.path(*name.split("/"))),
                                 sha256_file(os.path.join(self.root, name)))

    def assert_eio_soon(self, fn, *args):
        result, seconds = timed_call(fn, *args)
        self.assertIsInstance(result, OSError, f"expected EIO, got {result!r}")
        self.assertEqual(result.errno, errno.EIO, f"expected EIO, got {result!r}")
        self.assertLess(seconds, EIO_WITHIN)
        return seconds

    def test_server_that_ignores_range_serves_exact_bytes(self):
        drive = self.mount_server(self.serve("--ignore-range"))
        with open(os.path.join(self.root, "a.bin"), "rb") as f:
            for off, n in ((2 * MiB + 77, 100000), (5, 70000), (3 * MiB, 4321)):
                with self.subTest(offset=off):
                    self.assertEqual(self.read_range(drive.path("a.bin"), off, n),
                                     os.pread(f.fileno(), n, off))
        self.assert_hashes_match(drive, "a.bin", "b.bin", "sub/c.bin")

    def test_head_answered_405_still_lists_and_reads(self):
        drive = self.mount_server(self.serve("--head-405"))
        self.assertEqual(sorted(os.listdir(drive.mountpoint)), ["a.bin", "b.bin", "sub"])
        self.assertEqual(os.stat(drive.path("b.bin")).st_size, 2 * MiB + 17)
        self.assert_hashes_match(drive, "a.bin", "b.bin", "sub/c.bin")

    def test_truncated_bodies_are_resumed(self):
        server = self.serve("--truncate", "0.5", "--truncate-every", "2")
        drive = self.mount_server(server)
        self.assert_hashes_match(drive, "a.bin", "b.bin", "sub/c.bin")
        self.assertGreater(server.report()["truncated"], 0, "no body was truncated")

    def test_bodies_cut_every_time_fail_with_eio_then_recover(self):
        server = self.serve("--truncate", "0")
        drive = self.mount_server(server)
        self.assert_eio_soon(self.read_range, drive.path("a.bin"), 0, 1 * MiB)
        server.set_faults(truncate=None)
        self.assert_hashes_match(drive, "a.bin")

    def test_stall_longer_than_the_low_speed_limit_fails_with_eio_then_recovers(self):
        server = self.serve()
        drive = self.mount_server(server)
        os.listdir(drive.mountpoint)
        server.set_faults(stall=600)
        seconds = self.assert_eio_soon(self.read_range, drive.path("b.bin"), 0, 65536)
        print(f"\nstalled read failed after {seconds:.1f} s")
        server.set_faults(stall=0)
        self.assertTrue(wait_until(lambda: self._reads_ok(drive, "b.bin"), EIO_WITHIN, 1),
                        "reads do not work again after the stall ends")

    def check_503_retried(self, *flags):
        server = self.serve("--error-rate", "0.1", "--seed", "7", *flags)
        drive = self.mount_server(server)
        for mount in range(3):
            if mount:
                drive = self.remount(drive, server)
            self.assert_hashes_match(drive, "a.bin", "b.bin", "sub/c.bin")
        self.assertGreater(server.report()["503"], 0, "no request was answered 503")

    def remount(self, drive, server):
        """A fresh mount with an empty cache, so that every read fetches."""
        self.assertEqual(drive.stop(), 0, drive.messages())
        return self.mount_server(server)

    def test_ten_percent_503_on_file_requests_are_retried(self):
        self.check_503_retried("--error-on", "files")

    def test_ten_percent_503_on_every_request_are_retried(self):
        self.check_503_retried()

    def test_stopped_server_gives_eio_and_reads_work_when_it_returns(self):
        server = self.serve()
        drive = self.mount_server(server)
        self.assert_hashes_match(drive, "sub/c.bin")
        self.assertEqual(os.stat(drive.path("a.bin")).st_size, 3 * MiB + 4321)
        server.stop()
        self.assert_eio_soon(self.read_range, drive.path("a.bin"), MiB, 65536)
        server.start()
        self.assertTrue(wait_until(lambda: self._reads_ok(drive, "a.bin"), EIO_WITHIN, 1),
                        "reads do not work again after the server returns")

    def _reads_ok(self, drive, name):
        try:
            return sha256sum(drive.path(name)) == sha256_file(os.path.join(self.root, name))
        except OSError:
            return False

    def test_replaced_file_is_never_mixed_and_a_new_open_sees_it(self):
        size = 4 * MiB + 100
        src = os.path.join(self.root, "r.bin")
        write_patterned_file(src, size, ord("a"))
        drive = self.mount_server(self.serve())
        chunk = 128 * 1024
        with open(drive.path("r.bin"), "rb", buffering=0) as f:
            self.assertEqual(f.read(chunk), patterned_bytes(0, chunk, ord("a")))
            replacement = src + ".new"
            write_patterned_file(replacement, size, ord("b"))
            os.replace(replacement, src)
            offset = chunk
            while offset < size:
                try:
                    got = os.pread(f.fileno(), chunk, offset)
                except OSError as e:
                    self.assertEqual(e.errno, errno.EIO)
                    break
                self.assertIn(got, (patterned_bytes(offset, len(got), ord("a")),
                                    patterned_bytes(offset, len(got), ord("b"))),
                              f"read at {offset} mixes versions or is wrong")
                self.assertEqual(len(got), min(chunk, size - offset))
                offset += len(got)
        want = sha256_file(src)
        self.assertTrue(wait_until(lambda: self._hash_or_none(drive.path("r.bin")) == want, 30, 1),
                        "a new open does not see the replaced content")

    def test_unmount_does_not_wait_for_reads_whose_fetch_failed(self):
        # A read-ahead that stalls and fails leaves its sectors reserved, and
        # a read waiting for them would hold the unmount for the library's
        # read time-out (60 s by default).
        write_random_file(os.path.join(self.root, "long.bin"), 48 * MiB)
        server = self.serve()
        drive = self.mount(server.url)
        with open(drive.path("long.bin"), "rb") as f:
            f.read(3 * MiB)
        server.set_faults(stall=600)
        reader = subprocess.Popen(["dd", f"if={drive.path('long.bin')}", "of=/dev/null",
                                   "bs=128K", "skip=24"], stderr=subprocess.DEVNULL)
        self.addCleanup(stop_process, reader)

        def fetch_failed():
            with open(drive.log, errors="replace") as log:
                return "Fetch long.bin bytes" in log.read()

        self.assertTrue(wait_until(fetch_failed, EIO_WITHIN, 0.2), drive.messages())
        start = time.monotonic()
        self.assertEqual(drive.stop(), 0, drive.messages())
        seconds = time.monotonic() - start
        print(f"\nunmounted {seconds:.1f} s after the fetch failed")
        self.assertLess(seconds, 15)

    def _hash_or_none(self, path):
        try:
            return sha256sum(path)
        except OSError:
            return None


if __name__ == "__main__":
    unittest.main()
