#!/usr/bin/env python3
"""The built library's files as a host and the loader see them: cache.so is
the library itself, its SONAME is cache.so.<major>, a link of that name
beside it leads to cache.so, and an executable linked with it records the
SONAME and starts from the build tree.

usage: library_files_test.py PATH_TO_CACHE_SO SONAME PATH_TO_CACHECAT [unittest options]
"""
import os
import re
import subprocess
import sys
import unittest

LIBRARY = SONAME = CACHECAT = None

EXPORTED = ["Cache_BindAsyncQ", "Cache_BindLogger", "Cache_UnbindAsyncQ",
            "Cache_UnbindLogger", "InitCache", "ReleaseCache"]


def dynamic_entries(path, tag):
    """Values of the dynamic section entries `tag` (NEEDED, SONAME) of `path`."""
    out = subprocess.run(["readelf", "-d", path], capture_output=True, text=True,
                         check=True).stdout
    return re.findall(r"\(%s\)\s+[^\[]*\[([^\]]*)\]" % tag, out)


class LibraryFilesTest(unittest.TestCase):
    def test_library_is_a_regular_file_named_cache_so(self):
        self.assertEqual(os.path.basename(LIBRARY), "cache.so")
        self.assertFalse(os.path.islink(LIBRARY), "cache.so is a link")
        self.assertTrue(os.path.isfile(LIBRARY))

    def test_soname_carries_the_major_version(self):
        self.assertRegex(SONAME, r"^cache\.so\.\d+$")
        self.assertEqual(dynamic_entries(LIBRARY, "SONAME"), [SONAME])

    def test_soname_link_beside_the_library_leads_to_it(self):
        link = os.path.join(os.path.dirname(LIBRARY), SONAME)
        self.assertTrue(os.path.islink(link), "%s is not a link" % link)
        # Relative, so the tree can be moved or installed as it is.
        self.assertEqual(os.readlink(link), "cache.so")
        self.assertTrue(os.path.samefile(link, LIBRARY))

    def test_exports_six_functions_in_the_version_node(self):
        out = subprocess.run(["nm", "-D", "--defined-only", LIBRARY], capture_output=True,
                             text=True, check=True).stdout
        functions = sorted(line.split()[2] for line in out.splitlines()
                           if line.split()[1] == "T")
        self.assertEqual(functions, [name + "@@CACHE_0" for name in EXPORTED])

    def test_linked_executable_needs_the_soname_and_loads_it(self):
        needed = dynamic_entries(CACHECAT, "NEEDED")
        self.assertIn(SONAME, needed)
        self.assertNotIn("cache.so", needed)
        env = {k: v for k, v in os.environ.items() if k != "LD_LIBRARY_PATH"}
        done = subprocess.run([CACHECAT, "--version"], env=env, capture_output=True,
                              text=True, timeout=60)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertTrue(done.stdout.startswith("cachecat (cache) "))


if __name__ == "__main__":
    LIBRARY = os.path.abspath(sys.argv.pop(1))
    SONAME = sys.argv.pop(1)
    CACHECAT = os.path.abspath(sys.argv.pop(1))
    unittest.main()
