"""The drive over a WebDAV share, on nginx (the README's configuration) and
on Apache 2 mod_dav: listings come from PROPFIND, and what a user writes
through the mount reaches the server byte for byte, checked in the server's
own folder. A plain web directory stays read-only."""

import errno
import hashlib
import os
import shutil
import subprocess
import tempfile
import unittest

from harness import (MiB, Apache, DriveTestCase, Nginx, cachedrive_only, requires_fuse,
                     sha256_file)


class WebDavCase(DriveTestCase):
    """One server per test, serving an empty folder with a subdirectory
    `sub dir`; subclasses say which server."""

    def make_server(self, root):
        raise NotImplementedError

    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="webdav-")
        self.addCleanup(shutil.rmtree, self.tmp, True)
        self.share = os.path.join(self.tmp, "share")
        os.makedirs(os.path.join(self.share, "sub dir"))
        self.server = self.make_server(self.share).start()
        self.addCleanup(self.server.remove)

    def mount_share(self, **kwargs):
        return self.mount(self.server.url("dav"), **kwargs)

    def on_server(self, *names):
        return os.path.join(self.share, *names)

    def server_bytes(self, *names):
        with open(self.on_server(*names), "rb") as f:
            return f.read()


class WebDavTests:
    """The cases every WebDAV server must pass; mixed into a WebDavCase."""

    def test_lists_with_propfind_and_reads(self):
        data = os.urandom(65537)
        self.server.put("sub dir/caf\u00e9 1.bin", data)
        self.server.put("empty", b"")
        drive = self.mount_share()
        self.assertEqual(sorted(os.listdir(drive.mountpoint)), ["empty", "sub dir"])
        self.assertEqual(os.listdir(drive.path("sub dir")), ["caf\u00e9 1.bin"])
        self.assertEqual(os.stat(drive.path("sub dir", "caf\u00e9 1.bin")).st_size, 65537)
        with open(drive.path("sub dir", "caf\u00e9 1.bin"), "rb") as f:
            self.assertEqual(f.read(), data)
        self.assertGreater(self.server.count("PROPFIND"), 0)

    def test_copies_in_reach_the_server(self):
        drive = self.mount_share()
        sizes = {"zero": 0, "one": 1, "odd": 65537, "big": 3 * MiB + 5}
        for name, size in sizes.items():
            source = os.path.join(self.tmp, name)
            with open(source, "wb") as f:
                f.write(os.urandom(size))
            subprocess.run(["cp", source, drive.path(name)], check=True)
            self.assertEqual(sha256_file(self.on_server(name)), sha256_file(source), name)
            self.assertEqual(os.stat(drive.path(name)).st_size, size, name)
            self.assertEqual(sha256_file(drive.path(name)), sha256_file(source), name)

    def test_changes_in_place(self):
        original = os.urandom(3 * MiB)
        self.server.put("f", original)
        drive = self.mount_share()
        expected = bytearray(original)

        def server_has(what):
            self.assertEqual(hashlib.sha256(self.server_bytes("f")).hexdigest(),
                             hashlib.sha256(expected).hexdigest(), what)

        # Overwrites at unaligned offsets, one of them across the end.
        with open(drive.path("f"), "r+b") as f:
            for offset, length in ((1, 10), (65535, 3), (1234567, 70000), (3 * MiB - 2, 7)):
                data = os.urandom(length)
                f.seek(offset)
                f.write(data)
                expected[offset:offset + length] = data
        server_has("overwrites")
        with open(drive.path("f"), "ab") as f:
            f.write(b"tail")
        expected += b"tail"
        server_has("append")
        # Smaller by name, then larger through a handle: the new bytes are zeros.
        os.truncate(drive.path("f"), 100000)
        del expected[100000:]
        server_has("truncate by name")
        with open(drive.path("f"), "r+b") as f:
            f.truncate(200001)
            f.seek(150000)
            self.assertEqual(f.read(10), bytes(10))
        expected += bytes(100001)
        server_has("extend through a handle")
        with open(drive.path("f"), "rb") as f:
            self.assertEqual(f.read(), bytes(expected))

    def test_directories_renames_and_removals(self):
        drive = self.mount_share()
        os.mkdir(drive.path("d"))
        self.assertTrue(os.path.isdir(self.on_server("d")))
        with open(drive.path("d", "a"), "wb") as f:
            f.write(b"first")
        os.rename(drive.path("d", "a"), drive.path("b"))
        self.assertEqual(sorted(os.listdir(drive.mountpoint)), ["b", "d", "sub dir"])
        self.assertEqual(os.listdir(drive.path("d")), [])
        with open(drive.path("b"), "rb") as f:
            self.assertEqual(f.read(), b"first")
        # A writer keeps its file across a rename: later changes go to the new name.
        with open(drive.path("b"), "r+b") as f:
            f.write(b"F")
            os.rename(drive.path("b"), drive.path("d", "c"))
            f.write(b"I")
        self.assertEqual(self.server_bytes("d", "c"), b"FIrst")
        self.assertFalse(os.path.exists(self.on_server("b")))
        with self.assertRaises(OSError) as caught:
            os.rmdir(drive.path("d"))
        self.assertEqual(caught.exception.errno, errno.ENOTEMPTY)
        os.unlink(drive.path("d", "c"))
        os.rmdir(drive.path("d"))
        self.assertEqual(os.listdir(self.share), ["sub dir"])
        self.assertEqual(os.listdir(drive.mountpoint), ["sub dir"])

    def test_editor_style_save_replaces_the_file(self):
        self.server.put("doc.txt", b"version 1\n" * 1000)
        drive = self.mount_share()
        with open(drive.path("doc.txt"), "rb") as f:
            self.assertEqual(f.read(10), b"version 1\n")
        fd = os.open(drive.path(".doc.txt.swp"), os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o644)
        os.write(fd, b"version 2\n")
        os.fsync(fd)
        os.close(fd)
        os.rename(drive.path(".doc.txt.swp"), drive.path("doc.txt"))
        self.assertEqual(self.server_bytes("doc.txt"), b"version 2\n")
        with open(drive.path("doc.txt"), "rb") as f:
            self.assertEqual(f.read(), b"version 2\n")
        self.assertEqual(sorted(os.listdir(self.share)), ["doc.txt", "sub dir"])

    @cachedrive_only
    def test_failed_upload_fails_close_and_a_later_fsync_sends_it(self):
        self.server.put("f", b"old")
        drive = self.mount_share()
        f = open(drive.path("f"), "r+b", buffering=0)
        f.write(b"new!")
        self.server.stop()
        with self.assertRaises(OSError) as caught:
            f.close()
        self.assertEqual(caught.exception.errno, errno.EIO)
        self.server.start()
        fd = os.open(drive.path("f"), os.O_RDONLY)
        try:
            os.fsync(fd)
        finally:
            os.close(fd)
        self.assertEqual(self.server_bytes("f"), b"new!")


@requires_fuse
class NginxWebDavTest(WebDavTests, WebDavCase):
    def make_server(self, root):
        return Nginx(root, webdav=True)


@requires_fuse
class ApacheWebDavTest(WebDavTests, WebDavCase):
    def make_server(self, root):
        return Apache(root)


@requires_fuse
class PlainWebDirectoryTest(DriveTestCase):
    def test_stays_read_only(self):
        root = tempfile.mkdtemp(prefix="plain-")
        self.addCleanup(shutil.rmtree, root, True)
        with open(os.path.join(root, "f"), "wb") as f:
            f.write(b"abc")
        server = Nginx(root).start()
        self.addCleanup(server.remove)
        drive = self.mount(server.url("json"))
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
