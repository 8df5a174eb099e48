#!/usr/bin/env python3
"""cachecat run as a user runs it: bad options, unfit files, failures of
the library and stop signals. Every run gets its own TMPDIR, which must be
empty again when cachecat ends.

usage: cachecat_test.py PATH_TO_CACHECAT [unittest options]
"""
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest

CACHECAT = None


class CachecatTest(unittest.TestCase):
    def setUp(self):
        self.scratch = tempfile.TemporaryDirectory(prefix="cachecat-test-")
        self.dir = self.scratch.name
        self.tmp = os.path.join(self.dir, "tmp")
        os.mkdir(self.tmp)
        self.env = dict(os.environ, TMPDIR=self.tmp)
        self.remote = os.path.join(self.dir, "remote.bin")
        with open(self.remote, "wb") as f:
            f.write(os.urandom(3 * 65536 + 123))

    def tearDown(self):
        self.scratch.cleanup()

    def run_cachecat(self, *args):
        done = subprocess.run([CACHECAT, *args], env=self.env, capture_output=True,
                              text=True, timeout=120)
        self.assertEqual(os.listdir(self.tmp), [], "left behind by cachecat %s" % (args,))
        self.assertNotIn("terminate called", done.stderr)
        return done

    def assert_usage_error(self, args, *fragments):
        done = self.run_cachecat(*args)
        self.assertEqual(done.returncode, 2, (args, done.stderr))
        self.assertIn("Try 'cachecat --help'", done.stderr)
        for fragment in fragments:
            self.assertIn(fragment, done.stderr, args)
        self.assertEqual(done.stdout, "")

    def test_help_version_and_end_of_options(self):
        for flag in ("-h", "--help"):
            done = self.run_cachecat(flag, "no-such-file")
            self.assertEqual(done.returncode, 0)
            self.assertTrue(done.stdout.startswith("usage: cachecat"))
        done = self.run_cachecat("--version")
        self.assertEqual(done.returncode, 0)
        self.assertRegex(done.stdout, r"^cachecat \(cache\) \d+\.\d+\.\d+\n$")
        # After "--" an argument that looks like an option is a file name.
        done = self.run_cachecat("--", "-h")
        self.assertEqual(done.returncode, 1)
        self.assertIn("-h: cannot open: No such file or directory", done.stderr)

    def test_numbers_out_of_range_name_the_option_and_the_range(self):
        cases = [
            ("--threads", ["100000", "2147483648", "0", "-1", "4.5", ""], "from 1 to 256"),
            ("--passes", ["4294967296", "0", "1e3"], "from 1 to 1000"),
            ("--read-size", ["64G", "0", "1T", "9223372036854775807K", "+5"], "from 1 to 1G"),
            ("--latency-ms", ["99999999", "-5", "20ms"], "from 0 to 10000"),
            ("--limit", ["1k", "63M", "99999999999999999999", "2048T", "5X"],
             "from 64M to 1048576G"),
            ("--bandwidth", ["nan", "inf", "-1", "0.01", "1e309", "", " 5", "200MB"],
             "0 (unlimited) or 0.1 to 100000 MB/s"),
        ]
        for option, values, range_text in cases:
            for value in values:
                with self.subTest(option=option, value=value):
                    self.assert_usage_error(["--verify", option, value, self.remote], option,
                                            range_text, "not '%s'" % value)
        # The bounds themselves are accepted (and the numbers read as given).
        done = self.run_cachecat("--threads", "256", "--passes", "1", "--latency-ms", "0",
                                 "--bandwidth", "0", "--read-size", "1G", "--limit", "64M",
                                 self.remote)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("0 ms latency, 0 MB/s, 256 queue thread(s); reads of 1073741824 bytes",
                      done.stdout)

    def test_malformed_command_lines(self):
        self.assert_usage_error(["--frobnicate", self.remote], "unknown or ambiguous option",
                                "--frobnicate")
        self.assert_usage_error(["--ver", self.remote], "unknown or ambiguous option '--ver'")
        self.assert_usage_error(["-x", self.remote], "unknown option '-x'")
        self.assert_usage_error([self.remote, "--threads"], "option '--threads' needs a value")
        self.assert_usage_error(["--verify=yes", self.remote], "'--verify=yes' takes no value")
        self.assert_usage_error(["--cache-dir", "", self.remote], "--cache-dir takes a directory")
        self.assert_usage_error([], "no file to read")

    def test_unfit_files_are_refused_before_anything_is_made(self):
        fifo = os.path.join(self.dir, "fifo")
        os.mkfifo(fifo)
        cases = [
            (self.dir, "not a regular file"),
            ("/dev/null", "not a regular file"),
            (fifo, "not a regular file"),  # must not wait for a writer
            (os.path.join(self.dir, "missing"), "cannot open: No such file or directory"),
            (os.path.join(self.remote, "below"), "cannot open: Not a directory"),
        ]
        cache_dir = os.path.join(self.dir, "cache")
        for path, reason in cases:
            with self.subTest(path=path):
                done = self.run_cachecat("--cache-dir", cache_dir, self.remote, path)
                self.assertEqual(done.returncode, 1)
                self.assertEqual(done.stderr, "cachecat: %s: %s\n" % (path, reason))
                self.assertFalse(os.path.exists(cache_dir))

    def test_reads_verify_and_library_failures_say_what_the_result_means(self):
        done = self.run_cachecat("--verify", "--passes", "2", "--read-size", "100000",
                                 self.remote, self.remote)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("verify: every byte matches", done.stdout)
        self.assertRegex(done.stdout, r"\n +2 +393462 .* 0 +0\n")  # warm: nothing fetched

        under_file = os.path.join(self.remote, "cache")
        done = self.run_cachecat("--cache-dir", under_file, self.remote)
        self.assertEqual(done.returncode, 1)
        self.assertIn("cannot create the cache in %s: error 3003 (the cache directory could not "
                      "be created)" % under_file, done.stderr)

        done = self.run_cachecat("--config", "{not json", self.remote)
        self.assertEqual(done.returncode, 2)
        self.assertIn("--config: error 6001 (the configuration is not valid JSON)", done.stderr)

    def test_stop_signals_end_fetches_and_leave_no_cache_file_or_directory(self):
        big = os.path.join(self.dir, "big.bin")
        with open(big, "wb") as f:
            f.write(os.urandom(16 << 20))
        cache_dir = os.path.join(self.dir, "cache")
        for sig in (signal.SIGINT, signal.SIGTERM):
            for where in ([], ["--cache-dir", cache_dir]):
                with self.subTest(signal=sig.name, cache_dir=bool(where)):
                    # 4 s at 4 MB/s: the signal comes while read-ahead fetches.
                    process = subprocess.Popen(
                        [CACHECAT, *where, "--bandwidth", "4", "--verify", big], env=self.env,
                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
                    deadline = time.monotonic() + 30
                    while self.cached_bytes(where and cache_dir) < 3 << 20:
                        self.assertLess(time.monotonic(), deadline, "nothing was cached")
                        time.sleep(0.02)
                    process.send_signal(sig)
                    # Loose bound: fetches give up at once instead of finishing.
                    _, stderr = process.communicate(timeout=10)
                    self.assertEqual(process.returncode, -sig, stderr)
                    self.assertEqual(stderr.splitlines()[-1],
                                     "cachecat: stopped by %s" % signal.strsignal(sig))
                    self.assertEqual(os.listdir(self.tmp), [])
                    if where:
                        self.assertEqual(os.listdir(cache_dir), [])

    def cached_bytes(self, cache_dir):
        """Bytes of the cache files in `cache_dir` or, when it is empty, in
        the cache directory cachecat made under TMPDIR."""
        dirs = [cache_dir] if cache_dir else [os.path.join(self.tmp, d)
                                              for d in os.listdir(self.tmp)]
        total = 0
        for d in dirs:
            try:
                total += sum(os.path.getsize(os.path.join(d, f)) for f in os.listdir(d))
            except FileNotFoundError:
                pass
        return total

if __name__ == "__main__":
    CACHECAT = os.path.abspath(sys.argv.pop(1))
    unittest.main()
