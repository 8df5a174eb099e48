#!/usr/bin/env python3
"""Trees of small files through cachedrive, on nginx (the README's WebDAV
configuration) and on Apache 2 mod_dav, both private on 127.0.0.1: prints
one markdown table of seconds and of the requests each server saw.

    bench/drive_trees.py [--drive build/default/drive/cachedrive] [--files 3000]
                         [--tree-files 2500] [--servers nginx,apache]

Workloads, each on a fresh mount with an empty cache:
  rsync -a      a tree of --tree-files files (sizes 0-64 KiB, 25 directories)
                into the mount, then the same command again: the second run
                must send nothing
  cp            --files files of 1 KiB into one directory
  rm -rf        that directory
Every byte is compared with the source in the server's own folder after
the rsync and the cp. Needs rsync (and apache2, nginx with its WebDAV
module, like the tests).
"""

import argparse
import filecmp
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "drive"))

from harness import Apache, Drive, Nginx  # noqa: E402


def make_tree(path, files):
    rng = random.Random(1)
    for i in range(files):
        name = os.path.join(path, f"dir{i % 25}", f"sub{i % 3}", f"file{i}.txt")
        os.makedirs(os.path.dirname(name), exist_ok=True)
        with open(name, "wb") as f:
            f.write(rng.randbytes(rng.choice([0, 100, 1000, 4000, 20000, 65536])))


def same_tree(left, right):
    compared = filecmp.dircmp(left, right)
    if compared.left_only or compared.right_only:
        return False
    _, mismatch, errors = filecmp.cmpfiles(left, right, compared.common_files, shallow=False)
    return not mismatch and not errors and all(
        same_tree(os.path.join(left, d), os.path.join(right, d)) for d in compared.common_dirs)


class Run:
    """One server and one mount of the drive under test on it."""

    def __init__(self, kind, drive):
        os.environ["CACHEDRIVE"] = drive
        self.tmp = tempfile.mkdtemp(prefix="drive-trees-")
        self.share = os.path.join(self.tmp, "share")
        os.makedirs(self.share)
        self.server = (Nginx(self.share, webdav=True) if kind == "nginx" else
                       Apache(self.share)).start()
        self.drive = Drive(self.server.url("dav")).start()

    def timed(self, *command):
        """Seconds the command took, and the requests the server saw meanwhile."""
        since = len(self.server.requests())
        start = time.monotonic()
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
        seconds = time.monotonic() - start
        seen = {}
        for method, *_ in self.server.requests()[since:]:
            seen[method] = seen.get(method, 0) + 1
        return seconds, seen

    def close(self):
        self.drive.remove()
        self.server.remove()
        shutil.rmtree(self.tmp, ignore_errors=True)


def row(kind, workload, seconds, seen):
    counts = ", ".join(f"{seen[m]} {m}" for m in sorted(seen)) or "none"
    return f"| {kind} | {workload} | {seconds:.1f} | {counts} |"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--drive", default=os.path.join(ROOT, "build/default/drive/cachedrive"))
    parser.add_argument("--files", type=int, default=3000)
    parser.add_argument("--tree-files", type=int, default=2500)
    parser.add_argument("--servers", default="nginx,apache")
    args = parser.parse_args()
    source = tempfile.mkdtemp(prefix="drive-trees-src-")
    make_tree(os.path.join(source, "tree"), args.tree_files)
    flat = os.path.join(source, "flat")
    os.makedirs(flat)
    for i in range(args.files):
        with open(os.path.join(flat, f"f{i}.bin"), "wb") as f:
            f.write(os.urandom(1024))

    rows = ["| server | workload | seconds | requests |", "|---|---|--:|---|"]
    for kind in args.servers.split(","):
        run = Run(kind, os.path.abspath(args.drive))
        try:
            rsync = ("rsync", "-a", os.path.join(source, "tree") + "/", run.drive.path("tree"))
            rows.append(row(kind, f"rsync -a, {args.tree_files} files", *run.timed(*rsync)))
            if not same_tree(os.path.join(source, "tree"), os.path.join(run.share, "tree")):
                rows[-1] += " **server differs**"
            rows.append(row(kind, "rsync -a again", *run.timed(*rsync)))
            rows.append(row(kind, f"cp {args.files} files into one directory",
                            *run.timed("cp", "-r", flat, run.drive.path("flat"))))
            if not same_tree(flat, os.path.join(run.share, "flat")):
                rows[-1] += " **server differs**"
            rows.append(row(kind, "rm -rf of that directory",
                            *run.timed("rm", "-rf", run.drive.path("flat"))))
        finally:
            run.close()
    shutil.rmtree(source, ignore_errors=True)
    print("\n".join(rows))


if __name__ == "__main__":
    main()
