"""The drive end to end: a private nginx publishes a temporary directory, the
drive mounts it, and ordinary programs (sha256sum, cp, dd, ls) read it."""

import errno
import os
import shutil
import subprocess
import tempfile
import threading
import time
import unittest

from harness import (DRIVE, QUICK, MiB, DriveTestCase, Nginx, cachedrive_only, directory_size,
                     large, overlap_bytes, requires_fuse, sha256_file, sha256sum, wait_until,
                     write_random_file)

SECTOR = 65536

SIZES = [0, 1, 65535, 65536, 65537, 8 * MiB + 17]

# Names a listing parser must carry through unchanged: spaces, unicode,
# characters that URLs escape, a literal escape sequence, and one longer
# than nginx shows in the text of an HTML index.
ODD_NAMES = [
    "with space.txt",
    "naïve ünïcödé – 日本語.txt",
    "100% sure.txt",
    "a%20b.txt",
    "hash#tag.txt",
    "what?.txt",
    "plus+and&amp;.txt",
    "semi;colon, 'quoted'.txt",
    "a name well past the fifty characters nginx prints in html.bin",
]
NESTED = ["dir one/sub dir/deep.txt", "dir one/ü/x.bin", "dir one/top.txt", "empty dir/"]


def make_tree(root):
    for size in SIZES:
        write_random_file(os.path.join(root, f"f{size}.bin"), size)
    write_random_file(os.path.join(root, "parallel.bin"), 32 * MiB + 4099)
    for i, name in enumerate(ODD_NAMES):
        with open(os.path.join(root, name), "wb") as f:
            f.write(f"{name}\n".encode() * (i + 1))
    for rel in NESTED:
        path = os.path.join(root, rel)
        if rel.endswith("/"):
            os.makedirs(path, exist_ok=True)
            continue
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(rel.encode() * 100)


class ServedTree(DriveTestCase):
    """One nginx over one generated tree for the whole class."""

    @classmethod
    def setUpClass(cls):
        cls.root = tempfile.mkdtemp(prefix="root-")
        cls.addClassCleanup(shutil.rmtree, cls.root, True)
        make_tree(cls.root)
        cls.extend_tree(cls.root)
        cls.nginx = Nginx(cls.root).start()
        cls.addClassCleanup(cls.nginx.remove)

    @classmethod
    def extend_tree(cls, root):
        pass

    def src(self, *names):
        return os.path.join(self.root, *names)


@requires_fuse
class ReadsTest(ServedTree):
    """Whole files and ranges read back are the bytes nginx holds."""

    def setUp(self):
        self.drive = self.mount(self.nginx.url("json"))

    def test_files_of_every_boundary_size_hash_like_the_source(self):
        for size in SIZES:
            with self.subTest(size=size):
                name = f"f{size}.bin"
                self.assertEqual(os.stat(self.drive.path(name)).st_size, size)
                self.assertEqual(sha256sum(self.drive.path(name)), sha256_file(self.src(name)))

    def test_cp_and_dd_with_odd_block_sizes_copy_exact_bytes(self):
        out = tempfile.mkdtemp(prefix="copies-")
        self.addCleanup(shutil.rmtree, out, True)
        name = f"f{8 * MiB + 17}.bin"
        subprocess.run(["cp", self.drive.path(name), os.path.join(out, "cp")], check=True)
        subprocess.run(["dd", f"if={self.drive.path(name)}", f"of={os.path.join(out, 'dd')}",
                        "bs=4097", "status=none"], check=True)
        want = sha256_file(self.src(name))
        self.assertEqual(sha256_file(os.path.join(out, "cp")), want)
        self.assertEqual(sha256_file(os.path.join(out, "dd")), want)

    # Eight dd processes at once; each range overlaps its neighbours and none
    # starts on a sector boundary.
    PARALLEL = [(i * 3 * MiB + i * 4099, 8 * MiB + 1234) for i in range(8)]

    def start_parallel_readers(self, outputs):
        path = self.drive.path("parallel.bin")
        return [subprocess.Popen(["dd", f"if={path}", "iflag=skip_bytes,count_bytes",
                                  f"skip={off}", f"count={n}", "bs=256k", "status=none"],
                                 stdout=out) for (off, n), out in zip(self.PARALLEL, outputs)]

    def check_parallel_outputs(self, procs, outputs):
        with open(self.src("parallel.bin"), "rb") as f:
            for (off, n), p, got in zip(self.PARALLEL, procs, outputs):
                self.assertEqual(p.returncode, 0)
                self.assert_same_bytes(got, os.pread(f.fileno(), n, off), f"range {off}+{n}")

    def test_parallel_readers_over_overlapping_ranges_get_the_right_bytes(self):
        files = [tempfile.TemporaryFile() for _ in self.PARALLEL]
        procs = self.start_parallel_readers(files)
        try:
            for p in procs:
                p.wait(120)
        finally:
            for p in procs:
                p.kill()
        outputs = []
        for f in files:
            f.seek(0)
            outputs.append(f.read())
            f.close()
        self.check_parallel_outputs(procs, outputs)

    def test_parallel_readers_that_pause_do_not_stall_the_others(self):
        # Each reader writes into a pipe that is drained one reader after the
        # other: the others pause with a full pipe while the first goes on.
        procs = self.start_parallel_readers([subprocess.PIPE] * len(self.PARALLEL))
        try:
            outputs = [p.communicate(timeout=30)[0] for p in procs]
        finally:
            for p in procs:
                p.kill()
        self.check_parallel_outputs(procs, outputs)

    def test_reads_past_the_end_return_only_the_file(self):
        name = "f65537.bin"
        with open(self.src(name), "rb") as f:
            tail = os.pread(f.fileno(), 100, 65500)
        self.assertEqual(self.read_range(self.drive.path(name), 65500, 1000), tail[:37])
        self.assertEqual(self.read_range(self.drive.path(name), 65537, 10), b"")
        self.assertEqual(self.read_range(self.drive.path(name), 1 << 30, 10), b"")

    @cachedrive_only
    def test_writes_are_refused_read_only(self):
        for flags in (os.O_WRONLY, os.O_RDWR, os.O_WRONLY | os.O_CREAT | os.O_EXCL):
            with self.subTest(flags=flags), self.assertRaises(OSError) as e:
                os.close(os.open(self.drive.path("new.txt" if flags & os.O_CREAT else "f1.bin"),
                                 flags, 0o644))
            self.assertIn(e.exception.errno, (errno.EROFS, errno.EACCES))
        with open(self.src("f1.bin"), "rb") as f:
            self.assertEqual(self.read_range(self.drive.path("f1.bin"), 0, 1), f.read())


@requires_fuse
class DirectIoTest(ServedTree):
    @cachedrive_only
    def test_direct_io_reads_exact_bytes_cold_and_warm(self):
        drive = self.mount(self.nginx.url("json"), options=["direct_io"])
        for name in (f"f{8 * MiB + 17}.bin", "f65537.bin"):
            for attempt in ("cold", "warm"):
                with self.subTest(name=name, attempt=attempt):
                    self.assertEqual(sha256sum(drive.path(name)), sha256_file(self.src(name)))


@requires_fuse
class ListingTest(ServedTree):
    """Both listing styles show the tree as it is on the server."""

    def check_tree(self, drive):
        top = set(os.listdir(drive.mountpoint))
        expected = {f"f{s}.bin" for s in SIZES} | set(ODD_NAMES) | {"parallel.bin", "dir one",
                                                                    "empty dir"}
        self.assertEqual(top, expected)
        self.assertEqual(set(os.listdir(drive.path("dir one"))), {"sub dir", "ü", "top.txt"})
        self.assertEqual(os.listdir(drive.path("dir one", "sub dir")), ["deep.txt"])
        self.assertEqual(os.listdir(drive.path("empty dir")), [])
        self.assertTrue(os.path.isdir(drive.path("dir one", "ü")))
        self.assertFalse(os.path.isdir(drive.path("dir one", "top.txt")))
        for rel in ODD_NAMES + [n for n in NESTED if not n.endswith("/")]:
            with self.subTest(name=rel):
                mounted = drive.path(*rel.split("/"))
                self.assertEqual(os.stat(mounted).st_size, os.stat(self.src(rel)).st_size)
                with open(mounted, "rb") as f, open(self.src(rel), "rb") as g:
                    self.assertEqual(f.read(), g.read())
        with self.assertRaises(FileNotFoundError):
            os.stat(drive.path("no such file"))
        with self.assertRaises(FileNotFoundError):
            os.stat(drive.path("dir one", "no such dir", "x"))

    def test_json_listing(self):
        self.check_tree(self.mount(self.nginx.url("json")))

    def test_html_listing(self):
        self.check_tree(self.mount(self.nginx.url("html")))

    def test_html_listing_mount_reads_exact_bytes(self):
        drive = self.mount(self.nginx.url("html"))
        name = f"f{8 * MiB + 17}.bin"
        self.assertEqual(sha256sum(drive.path(name)), sha256_file(self.src(name)))


@requires_fuse
class FetchAccountingTest(ServedTree):
    """What nginx sent for a sequential read of a large file."""

    SIZE = 100 * MiB

    @classmethod
    def extend_tree(cls, root):
        if not QUICK:
            write_random_file(os.path.join(root, "big.bin"), cls.SIZE)

    def cold_then_warm_read(self):
        """Reads big.bin twice in a fresh mount; returns the spans GETs sent
        for each read."""
        drive = self.mount(self.nginx.url("json"))
        want = sha256_file(self.src("big.bin"))
        spans = []
        for _ in ("cold", "warm"):
            seen = len(self.nginx.requests())
            self.assertEqual(sha256sum(drive.path("big.bin")), want)
            spans.append(self.nginx.fetched_spans("/big.bin", seen))
        return spans

    @large
    def test_sequential_read_fetches_each_byte_once_and_warm_read_nothing(self):
        cold, warm = self.cold_then_warm_read()
        sent = sum(e - s for s, e in cold)
        print(f"\n[{DRIVE}] sequential read of {self.SIZE} bytes: {len(cold)} GETs sent "
              f"{sent} bytes, ratio {sent / self.SIZE:.4f}, {overlap_bytes(cold)} bytes sent "
              f"more than once; second read: {sum(e - s for s, e in warm)} bytes")
        self.assertEqual(warm, [], "the second read in the same mount fetched again")
        # A read-ahead starts at the last sector the previous fetch delivered
        # and fetches it again, on purpose; no other byte may come twice.
        reach = 0
        for start, end in sorted(cold):
            if start < reach:
                self.assertEqual((start % SECTOR, reach - start), (0, SECTOR),
                                 f"GET {start}-{end} overlaps more than one sector")
            reach = max(reach, end)
        self.assertEqual(reach, self.SIZE)


@requires_fuse
class StorageLimitTest(ServedTree):
    SIZE = 256 * MiB
    LIMIT = 64 * MiB
    # The drive keeps the directory within a quarter above the limit; the
    # rest is slack for pieces on their way between two samples.
    CEILING = LIMIT * 3 // 2

    @classmethod
    def extend_tree(cls, root):
        if not QUICK:
            write_random_file(os.path.join(root, "huge.bin"), cls.SIZE)

    @large
    def test_reading_past_the_limit_keeps_the_cache_directory_small(self):
        # With the drive's own settings: no eviction ages are configured.
        drive = self.mount(self.nginx.url("json"), limit="64M")
        peak = [0]
        done = threading.Event()

        def sample():
            while not done.is_set():
                peak[0] = max(peak[0], directory_size(drive.cache_dir))
                time.sleep(0.02)

        sampler = threading.Thread(target=sample)
        since = len(self.nginx.requests())
        sampler.start()
        start = time.monotonic()
        try:
            got = sha256sum(drive.path("huge.bin"), timeout=300)
        finally:
            seconds = time.monotonic() - start
            done.set()
            sampler.join()
        fetched = sum(end - begin for begin, end in self.nginx.fetched_spans("huge.bin", since))
        print(f"\n[{DRIVE}] 256 MiB read with a 64 MiB limit in {seconds:.1f} s: cache "
              f"directory peaked at {peak[0] / MiB:.1f} MiB, {fetched / self.SIZE:.2f} bytes "
              f"fetched per byte read")
        self.assertEqual(got, sha256_file(self.src("huge.bin")))
        self.assertLessEqual(peak[0], self.CEILING)
        # Eviction goes on after the read: the directory settles under the limit.
        self.assertTrue(wait_until(lambda: directory_size(drive.cache_dir) <= self.LIMIT, 10),
                        f"cache directory stays at {directory_size(drive.cache_dir)} bytes")


if __name__ == "__main__":
    unittest.main()
