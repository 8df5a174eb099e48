"""The drive over a WebDAV share served by a private nginx: listings come
from PROPFIND, and what a user writes through the mount reaches the server
byte for byte. A plain web directory stays read-only.

CACHEDRIVE names the drive binary (set by CTest).
"""

import errno
import hashlib
import os
import shutil
import socket
import subprocess
import tempfile
import time
import unittest

DRIVE = os.environ.get("CACHEDRIVE", "cachedrive")
MiB = 1 << 20

NGINX_CONF = """
load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;
{user}
daemon off;
pid {tmp}/nginx.pid;
error_log {tmp}/error.log;
events {{}}
http {{
  access_log {tmp}/access.log;
  client_body_temp_path {tmp}/body;
  client_max_body_size 0;
  server {{
    listen 127.0.0.1:{port};
    root {root};
    location /share/ {{
      dav_methods PUT DELETE MKCOL COPY MOVE;
      dav_ext_methods PROPFIND OPTIONS;
    }}
    location /plain/ {{
      autoindex on;
      autoindex_format json;
    }}
  }}
}}
"""


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_until(predicate, timeout):
    deadline = time.monotonic() + timeout
    while not predicate():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.05)
    return True


def is_mounted(path):
    target = os.path.realpath(path).replace(" ", "\\040")
    with open("/proc/self/mounts") as f:
        return any(line.split()[1] == target for line in f)


def sha256(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


class Nginx:
    """nginx on a free port, serving `root`; stop() ends it."""

    def __init__(self, tmp, root):
        self.tmp, self.root = tmp, root
        self.port = free_port()
        os.makedirs(os.path.join(tmp, "body"), exist_ok=True)
        with open(os.path.join(tmp, "nginx.conf"), "w") as f:
            f.write(NGINX_CONF.format(tmp=tmp, root=root, port=self.port,
                                      user="user root;" if os.geteuid() == 0 else ""))
        self.process = None
        self.start()

    def start(self):
        self.process = subprocess.Popen(
            ["nginx", "-p", self.tmp, "-c", os.path.join(self.tmp, "nginx.conf")],
            stderr=subprocess.DEVNULL)

        def answers():
            with socket.socket() as s:
                return s.connect_ex(("127.0.0.1", self.port)) == 0

        if not wait_until(answers, 10):
            self.stop()
            raise RuntimeError("nginx did not start: see " + self.tmp + "/error.log")

    def stop(self):
        if self.process is not None:
            self.process.terminate()
            self.process.wait(10)
            self.process = None

    def url(self, path):
        return f"http://127.0.0.1:{self.port}/{path}"


class Mount:
    """The drive mounted in the foreground on a fresh directory."""

    def __init__(self, tmp, url, *options):
        self.point = tempfile.mkdtemp(dir=tmp, prefix="mnt")
        self.log = os.path.join(tmp, "drive.log")
        self.process = subprocess.Popen(
            [DRIVE, url, self.point, "-f", "--cache-dir", tempfile.mkdtemp(dir=tmp),
             "--log", self.log, *options])
        if not wait_until(lambda: is_mounted(self.point) or self.process.poll() is not None, 15) \
                or not is_mounted(self.point):
            self.unmount()
            raise RuntimeError("the drive did not mount: see " + self.log)

    def path(self, *names):
        return os.path.join(self.point, *names)

    def unmount(self):
        if is_mounted(self.point):
            subprocess.run(["fusermount3", "-u", self.point], stderr=subprocess.DEVNULL)
            if not wait_until(lambda: not is_mounted(self.point), 5):
                subprocess.run(["fusermount3", "-uz", self.point], stderr=subprocess.DEVNULL)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


class WebDavDriveTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="webdav-test-")
        self.addCleanup(shutil.rmtree, self.tmp, ignore_errors=True)
        self.root = os.path.join(self.tmp, "root")
        self.share = os.path.join(self.root, "share")
        os.makedirs(os.path.join(self.share, "sub dir"))
        os.makedirs(os.path.join(self.root, "plain"))
        self.nginx = Nginx(self.tmp, self.root)
        self.addCleanup(self.nginx.stop)

    def mount(self, path="share/", *options):
        mount = Mount(self.tmp, self.nginx.url(path), *options)
        self.addCleanup(mount.unmount)
        return mount

    def put_on_server(self, name, data):
        with open(os.path.join(self.share, name), "wb") as f:
            f.write(data)

    def test_lists_with_propfind_and_reads(self):
        data = os.urandom(65537)
        self.put_on_server("sub dir/caf\u00e9 1.bin", data)
        self.put_on_server("empty", b"")
        drive = self.mount()
        self.assertEqual(sorted(os.listdir(drive.point)), ["empty", "sub dir"])
        self.assertEqual(os.listdir(drive.path("sub dir")), ["caf\u00e9 1.bin"])
        self.assertEqual(os.stat(drive.path("sub dir", "caf\u00e9 1.bin")).st_size, 65537)
        with open(drive.path("sub dir", "caf\u00e9 1.bin"), "rb") as f:
            self.assertEqual(f.read(), data)
        with open(self.nginx.tmp + "/access.log") as f:
            self.assertIn('"PROPFIND /share/ ', f.read())

    def server_sha256(self, name):
        return sha256(os.path.join(self.share, name))

    def test_copies_in_reach_the_server(self):
        drive = self.mount()
        sizes = {"zero": 0, "one": 1, "odd": 65537, "big": 3 * MiB + 5}
        for name, size in sizes.items():
            source = os.path.join(self.tmp, name)
            with open(source, "wb") as f:
                f.write(os.urandom(size))
            subprocess.run(["cp", source, drive.path(name)], check=True)
            self.assertEqual(self.server_sha256(name), sha256(source), name)
            self.assertEqual(os.stat(drive.path(name)).st_size, size, name)
            self.assertEqual(sha256(drive.path(name)), sha256(source), name)

    def test_changes_in_place(self):
        original = os.urandom(3 * MiB)
        self.put_on_server("f", original)
        drive = self.mount()
        expected = bytearray(original)
        # Overwrites at unaligned offsets, one of them across the end.
        with open(drive.path("f"), "r+b") as f:
            for offset, length in ((1, 10), (65535, 3), (1234567, 70000), (3 * MiB - 2, 7)):
                data = os.urandom(length)
                f.seek(offset)
                f.write(data)
                expected[offset:offset + length] = data
        self.assertEqual(self.server_sha256("f"), hashlib.sha256(expected).hexdigest())
        with open(drive.path("f"), "ab") as f:
            f.write(b"tail")
        expected += b"tail"
        self.assertEqual(self.server_sha256("f"), hashlib.sha256(expected).hexdigest())
        # Smaller by name, then larger through a handle: the new bytes are zeros.
        os.truncate(drive.path("f"), 100000)
        del expected[100000:]
        self.assertEqual(self.server_sha256("f"), hashlib.sha256(expected).hexdigest())
        with open(drive.path("f"), "r+b") as f:
            f.truncate(200001)
            f.seek(150000)
            self.assertEqual(f.read(10), bytes(10))
        expected += bytes(100001)
        self.assertEqual(self.server_sha256("f"), hashlib.sha256(expected).hexdigest())
        with open(drive.path("f"), "rb") as f:
            self.assertEqual(f.read(), bytes(expected))

    def test_directories_renames_and_removals(self):
        drive = self.mount()
        os.mkdir(drive.path("d"))
        self.assertTrue(os.path.isdir(os.path.join(self.share, "d")))
        with open(drive.path("d", "a"), "wb") as f:
            f.write(b"first")
        os.rename(drive.path("d", "a"), drive.path("b"))
        self.assertEqual(sorted(os.listdir(drive.point)), ["b", "d", "sub dir"])
        self.assertEqual(os.listdir(drive.path("d")), [])
        with open(drive.path("b"), "rb") as f:
            self.assertEqual(f.read(), b"first")
        # A writer keeps its file across a rename: later changes go to the new name.
        with open(drive.path("b"), "r+b") as f:
            f.write(b"F")
            os.rename(drive.path("b"), drive.path("d", "c"))
            f.write(b"I")
        with open(os.path.join(self.share, "d", "c"), "rb") as f:
            self.assertEqual(f.read(), b"FIrst")
        self.assertFalse(os.path.exists(os.path.join(self.share, "b")))
        with self.assertRaises(OSError) as caught:
            os.rmdir(drive.path("d"))
        self.assertEqual(caught.exception.errno, errno.ENOTEMPTY)
        os.unlink(drive.path("d", "c"))
        os.rmdir(drive.path("d"))
        self.assertEqual(os.listdir(self.share), ["sub dir"])
        self.assertEqual(os.listdir(drive.point), ["sub dir"])

    def test_editor_style_save_replaces_the_file(self):
        self.put_on_server("doc.txt", b"version 1\n" * 1000)
        drive = self.mount()
        with open(drive.path("doc.txt"), "rb") as f:
            self.assertEqual(f.read(10), b"version 1\n")
        fd = os.open(drive.path(".doc.txt.swp"), os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o644)
        os.write(fd, b"version 2\n")
        os.fsync(fd)
        os.close(fd)
        os.rename(drive.path(".doc.txt.swp"), drive.path("doc.txt"))
        with open(os.path.join(self.share, "doc.txt"), "rb") as f:
            self.assertEqual(f.read(), b"version 2\n")
        with open(drive.path("doc.txt"), "rb") as f:
            self.assertEqual(f.read(), b"version 2\n")
        self.assertEqual(sorted(os.listdir(self.share)), ["doc.txt", "sub dir"])

    def test_failed_upload_fails_close_and_a_later_fsync_sends_it(self):
        self.put_on_server("f", b"old")
        drive = self.mount()
        f = open(drive.path("f"), "r+b", buffering=0)
        f.write(b"new!")
        self.nginx.stop()
        with self.assertRaises(OSError) as caught:
            f.close()
        self.assertEqual(caught.exception.errno, errno.EIO)
        self.nginx.start()
        fd = os.open(drive.path("f"), os.O_RDONLY)
        try:
            os.fsync(fd)
        finally:
            os.close(fd)
        with open(os.path.join(self.share, "f"), "rb") as f:
            self.assertEqual(f.read(), b"new!")

    def test_plain_web_directory_stays_read_only(self):
        with open(os.path.join(self.root, "plain", "f"), "wb") as f:
            f.write(b"abc")
        drive = self.mount("plain/")
        with open(drive.path("f"), "rb") as f:
            self.assertEqual(f.read(), b"abc")
        for attempt in (lambda: open(drive.path("f"), "r+b"),
                        lambda: open(drive.path("new"), "wb"),
                        lambda: os.mkdir(drive.path("d"))):
            with self.assertRaises(OSError) as caught:
                attempt()
            self.assertEqual(caught.exception.errno, errno.EROFS)


if __name__ == "__main__":
    unittest.main()
