"""Attributes and listings through the drive, on nginx and on Apache 2
mod_dav: times and modes that make, rsync and programs rely on are kept by
the drive, and a directory of many files is changed without listing it
again and again."""

import errno
import os
import stat
import subprocess
import time
import unittest

from harness import QUICK, Apache, Nginx, requires_fuse, write_random_file
from test_webdav import WebDavCase

MANY = 300 if QUICK else 1000

MAKEFILE = """\
prog: main.o util.o
\tgcc -o prog main.o util.o
%.o: %.c common.h
\tgcc -c -o $@ $<
"""


class AttributeTests:
    """Mixed into a WebDavCase."""

    def run_in(self, directory, *command):
        out = subprocess.run(command, cwd=directory, capture_output=True, text=True, timeout=300)
        self.assertEqual(out.returncode, 0, f"{' '.join(command)}: {out.stdout}{out.stderr}")
        return out.stdout

    def test_make_sees_a_touched_header_and_the_program_it_links_runs(self):
        drive = self.mount_share()
        project = drive.path("project")
        os.mkdir(project)
        sources = {"Makefile": MAKEFILE, "common.h": "#define ANSWER 42\n",
                   "main.c": '#include "common.h"\nint util(void);\n'
                             "int main(void) { return util() == ANSWER ? 0 : 1; }\n",
                   "util.c": '#include "common.h"\nint util(void) { return ANSWER; }\n'}
        for name, text in sources.items():
            with open(os.path.join(project, name), "w") as f:
                f.write(text)
        self.assertIn("gcc -o prog", self.run_in(project, "make"))
        self.assertIn("is up to date", self.run_in(project, "make"))
        self.run_in(project, "./prog")
        time.sleep(1.1)  # a new second for make's comparison of times
        self.run_in(project, "touch", "common.h")
        rebuilt = self.run_in(project, "make")
        self.assertIn("gcc -c -o main.o main.c", rebuilt)
        self.assertIn("gcc -c -o util.o util.c", rebuilt)
        self.assertTrue(os.stat(self.on_server("project", "prog")).st_size > 0)

    def test_chmod_and_install_modes_are_kept_and_scripts_run(self):
        drive = self.mount_share(extra_args=["--dir-cache", "0.5"])
        script = drive.path("hello.sh")
        with open(script, "w") as f:
            f.write("#!/bin/sh\necho hello\n")
        self.assertEqual(stat.S_IMODE(os.stat(script).st_mode) & 0o111, 0)
        with self.assertRaises(PermissionError):
            subprocess.run([script])
        subprocess.run(["chmod", "+x", script], check=True)
        self.assertEqual(subprocess.run([script], capture_output=True, text=True).stdout,
                         "hello\n")
        self.run_in(self.tmp, "install", "-m", "0750", script, drive.path("installed.sh"))
        os.chmod(drive.path("hello.sh"), 0o600)
        os.rename(drive.path("hello.sh"), drive.path("renamed.sh"))
        time.sleep(1)  # listings and attributes come from the server again
        os.listdir(drive.mountpoint)
        self.assertEqual(stat.S_IMODE(os.stat(drive.path("installed.sh")).st_mode), 0o750)
        self.assertEqual(stat.S_IMODE(os.stat(drive.path("renamed.sh")).st_mode), 0o600)

    def test_a_second_rsync_of_an_unchanged_tree_sends_nothing(self):
        source = os.path.join(self.tmp, "tree")
        for i in range(40):
            write_random_file(os.path.join(source, f"d{i % 5}", f"f{i}.bin"), 300 * i)
        os.utime(os.path.join(source, "d1", "f1.bin"), ns=(1_000_000_123, 1_000_000_123))
        drive = self.mount_share()
        target = drive.path("tree")
        subprocess.run(["rsync", "-a", source + "/", target], check=True, timeout=300)
        puts = self.server.count("PUT")
        again = self.run_in(self.tmp, "rsync", "-a", "--stats", source + "/", target)
        self.assertIn("Number of regular files transferred: 0", again)
        self.assertEqual(self.server.count("PUT"), puts, "the second run uploaded files")
        for name in ("d1/f1.bin", "d4/f39.bin"):
            self.assertEqual(os.stat(os.path.join(target, name)).st_mtime_ns,
                             os.stat(os.path.join(source, name)).st_mtime_ns, name)

    def test_owners_cannot_change(self):
        drive = self.mount_share()
        path = drive.path("f")
        with open(path, "w") as f:
            f.write("x")
        mine = os.stat(path)
        os.chown(path, mine.st_uid, mine.st_gid)
        with self.assertRaises(OSError) as caught:
            os.chown(path, mine.st_uid + 1, -1)
        self.assertEqual(caught.exception.errno, errno.EPERM)

    def test_many_files_made_and_removed_in_one_directory_list_it_few_times(self):
        source = os.path.join(self.tmp, "many")
        os.mkdir(source)
        for i in range(MANY):
            with open(os.path.join(source, f"f{i:04}"), "wb") as f:
                f.write(b"%d\n" % i)
        drive = self.mount_share()
        since = len(self.server.requests())
        subprocess.run(["cp", "-r", source, drive.path("many")], check=True, timeout=600)
        self.assertEqual(len(os.listdir(self.on_server("many"))), MANY)
        self.assertEqual(self.server_bytes("many", "f0123"), b"123\n")
        self.assertEqual(self.server.count("PUT", since), MANY, "one PUT per new file")
        subprocess.run(["rm", "-rf", drive.path("many")], check=True, timeout=600)
        self.assertFalse(os.path.exists(self.on_server("many")))
        propfinds = self.server.count("PROPFIND", since)
        print(f"\n{MANY} files copied and removed: {propfinds} PROPFINDs")
        self.assertLessEqual(propfinds, 10)

    def test_listings_are_kept_for_the_dir_cache_time_and_own_changes_show_at_once(self):
        self.server.put("a", b"a")
        drive = self.mount_share(extra_args=["--dir-cache", "2"])
        self.assertEqual(sorted(os.listdir(drive.mountpoint)), ["a", "sub dir"])
        self.server.put("b", b"b")
        with open(drive.path("mine"), "w") as f:
            f.write("mine")
        os.unlink(drive.path("a"))
        since = len(self.server.requests())
        self.assertEqual(sorted(os.listdir(drive.mountpoint)), ["mine", "sub dir"])
        self.assertEqual(self.server.count("PROPFIND", since), 0)
        time.sleep(2.5)
        self.assertEqual(sorted(os.listdir(drive.mountpoint)), ["b", "mine", "sub dir"])


@requires_fuse
class NginxAttributeTest(AttributeTests, WebDavCase):
    def make_server(self, root):
        return Nginx(root, webdav=True)


@requires_fuse
class ApacheAttributeTest(AttributeTests, WebDavCase):
    def make_server(self, root):
        return Apache(root)


if __name__ == "__main__":
    unittest.main()
