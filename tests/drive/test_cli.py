"""cachedrive's command line and life cycle: arguments, the cache directory's
lock, statistics on SIGUSR1, and recovery after a crash."""

import contextlib
import os
import shutil
import signal
import subprocess
import tempfile
import unittest

from harness import (DRIVE, MiB, Drive, DriveTestCase, Nginx, directory_size, requires_fuse,
                     sha256_file, sha256sum, unmount, wait_until, write_random_file)


def run_drive(*args, timeout=20):
    """Runs cachedrive to its end; one still running after timeout (a mount
    that should have been refused) is stopped and reported as accepted."""
    try:
        return subprocess.run([os.environ["CACHEDRIVE"], *args], capture_output=True, text=True,
                              timeout=timeout, stdin=subprocess.DEVNULL)
    except subprocess.TimeoutExpired as e:
        return subprocess.CompletedProcess(e.cmd, 0, "", "still running")


@requires_fuse
@unittest.skipUnless(DRIVE == "cachedrive" and os.environ.get("CACHEDRIVE"),
                     "tests cachedrive's own command line")
class CommandLineTest(DriveTestCase):
    @classmethod
    def setUpClass(cls):
        cls.root = tempfile.mkdtemp(prefix="root-")
        cls.addClassCleanup(shutil.rmtree, cls.root, True)
        write_random_file(os.path.join(cls.root, "f.bin"), 8 * MiB + 5)
        cls.nginx = Nginx(cls.root).start()
        cls.addClassCleanup(cls.nginx.remove)

    def scratch(self):
        path = tempfile.mkdtemp(prefix="cli-")
        self.addCleanup(shutil.rmtree, path, True)
        return path

    def test_help_and_version_exit_zero(self):
        for flag in ("-h", "--help"):
            out = run_drive(flag)
            self.assertEqual(out.returncode, 0, out.stderr)
            self.assertIn("--cache-dir", out.stdout + out.stderr)
        out = run_drive("--version")
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertTrue((out.stdout + out.stderr).strip())

    def test_bad_arguments_fail_with_a_message(self):
        where = self.scratch()
        mnt = os.path.join(where, "mnt")
        os.mkdir(mnt)
        self.addCleanup(unmount, mnt)
        url = self.nginx.url()
        cases = {
            "no arguments": [],
            "no mount point": [url],
            "unknown option": [url, mnt, "--no-such-option"],
            "bad limit": [url, mnt, "-f", "--limit", "12Q"],
            "negative limit": [url, mnt, "-f", "--limit", "-5"],
            "bad connections": [url, mnt, "-f", "--connections", "zero"],
            "bad dir cache": [url, mnt, "-f", "--dir-cache", "-1"],
            "bad json": [url, mnt, "-f", "--config", "{not json"],
            "missing config file": [url, mnt, "-f", "--config", "@" + os.path.join(where, "nx")],
            "missing mount point": [url, os.path.join(where, "nx"), "-f"],
            "bad url": ["not a url", mnt, "-f"],
        }
        for what, args in cases.items():
            with self.subTest(what):
                out = run_drive(*args, "--cache-dir", os.path.join(where, "cache"))
                self.assertNotEqual(out.returncode, 0, f"accepted {args}")
                self.assertTrue(out.stderr.strip(), "no message on stderr")
                self.assertFalse(os.path.ismount(mnt), "mounted anyway")

    def test_second_drive_on_the_same_cache_directory_is_refused(self):
        first = self.mount(self.nginx.url())
        other = os.path.join(self.scratch(), "mnt")
        os.mkdir(other)
        self.addCleanup(unmount, other)
        out = run_drive(self.nginx.url(), other, "-f", "--cache-dir", first.cache_dir)
        self.assertNotEqual(out.returncode, 0)
        self.assertTrue(out.stderr.strip(), "no message on stderr")
        self.assertEqual(sha256sum(first.path("f.bin")),
                         sha256_file(os.path.join(self.root, "f.bin")))

    def test_sigusr1_prints_statistics(self):
        drive = self.mount(self.nginx.url())
        sha256sum(drive.path("f.bin"))
        drive.proc.send_signal(signal.SIGUSR1)
        self.assertTrue(wait_until(lambda: "fetched" in drive.messages().lower(), 5),
                        f"no statistics after SIGUSR1:\n{drive.messages()}")

    def test_everything_is_released_at_unmount(self):
        # Exits 0 only when nothing leaked, in the AddressSanitizer build.
        # The kernel drops the releases it has not sent when the mount ends:
        # those of the closes just before the stop, and those of a file and
        # a directory still open then.
        size = os.stat(os.path.join(self.root, "f.bin")).st_size
        for attempt in range(3):
            drive = self.mount(self.nginx.url(), check_leaks=True)
            with self.assertRaises(OSError):
                os.close(os.open(drive.path("f.bin"), os.O_WRONLY))
            held_file = os.open(drive.path("f.bin"), os.O_RDONLY)
            os.pread(held_file, 10, 0)
            held_directory = os.open(drive.mountpoint, os.O_RDONLY | os.O_DIRECTORY)
            self.assertIn("f.bin", os.listdir(held_directory))
            for offset in (0, size - 1, size):
                self.read_range(drive.path("f.bin"), offset, 100)
            status = drive.stop()
            for fd in (held_file, held_directory):
                with contextlib.suppress(OSError):
                    os.close(fd)
            self.assertEqual(status, 0, f"attempt {attempt}:\n{drive.messages()}")

    def test_cache_files_left_by_a_crash_are_removed_at_the_next_start(self):
        drive = Drive(self.nginx.url()).start()
        self.addCleanup(drive.remove)
        sha256sum(drive.path("f.bin"))
        held = os.open(drive.path("f.bin"), os.O_RDONLY)  # keeps the object open when killed
        os.read(held, 1)
        drive.proc.kill()
        drive.proc.wait()
        # The kernel cannot pass this close on to a drive that is gone.
        with contextlib.suppress(OSError):
            os.close(held)
        unmount(drive.mountpoint)
        self.assertGreater(directory_size(drive.cache_dir), 0, "nothing was cached to leave")
        again = self.mount(self.nginx.url(), cache_dir=drive.cache_dir)
        self.assertLess(directory_size(drive.cache_dir), 64 * 1024,
                        f"left over: {os.listdir(drive.cache_dir)}")
        self.assertEqual(sha256sum(again.path("f.bin")),
                         sha256_file(os.path.join(self.root, "f.bin")))


if __name__ == "__main__":
    unittest.main()
