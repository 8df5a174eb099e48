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
import stat
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


class Auth:
    """Credentials a test server asks for: `scheme` is "basic" or "digest"."""

    REALM = "cachedrive test"

    def __init__(self, scheme, user, password):
        self.scheme, self.user, self.password = scheme, user, password

    def netrc(self, path, host="127.0.0.1"):
        """Writes a netrc file (mode 0600) naming these credentials for host."""
        fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
        with os.fdopen(fd, "w") as f:
            password = self.password.replace("\\", "\\\\").replace('"', '\\"')
            f.write(f'machine {host}\nlogin {self.user}\npassword "{password}"\n')
        return path

    def write_user_file(self, path):
        """The server's user file: htpasswd lines (an apr1 hash made by
        openssl, which reads the password from standard input) or htdigest
        lines."""
        if self.scheme == "digest":
            digest = hashlib.md5(f"{self.user}:{self.REALM}:{self.password}".encode()).hexdigest()
            line = f"{self.user}:{self.REALM}:{digest}"
        else:
            hashed = subprocess.run(["openssl", "passwd", "-apr1", "-stdin"],
                                    input=self.password, capture_output=True, text=True,
                                    check=True).stdout.strip()
            line = f"{self.user}:{hashed}"
        with open(path, "w") as f:
            f.write(line + "\n")
        return path


class TestCA:
    """A certificate authority made with openssl for one test: its
    certificate (ca.pem), a server certificate for 127.0.0.1 and localhost,
    and client certificates on demand. remove() deletes every file."""

    def __init__(self, name="cachedrive test CA"):
        self.dir = tempfile.mkdtemp(prefix="ca-")
        self.cert = os.path.join(self.dir, "ca.pem")
        self.key = os.path.join(self.dir, "ca.key")
        self._openssl("req", "-x509", *self._new_key(self.key), "-out", self.cert, "-days", "2",
                      "-subj", f"/CN={name}", "-addext", "basicConstraints=critical,CA:TRUE",
                      "-addext", "keyUsage=critical,keyCertSign,cRLSign")
        self.server_cert, self.server_key = self.issue(
            "server", "subjectAltName=IP:127.0.0.1,DNS:localhost\nextendedKeyUsage=serverAuth")

    def client(self, name="client"):
        """A client certificate and its key: (cert path, key path)."""
        return self.issue(name, "extendedKeyUsage=clientAuth")

    def issue(self, name, extensions):
        key = os.path.join(self.dir, f"{name}.key")
        csr = os.path.join(self.dir, f"{name}.csr")
        cert = os.path.join(self.dir, f"{name}.pem")
        ext = os.path.join(self.dir, f"{name}.ext")
        with open(ext, "w") as f:
            f.write("basicConstraints=CA:FALSE\n" + extensions + "\n")
        self._openssl("req", *self._new_key(key), "-out", csr, "-subj", f"/CN={name}")
        self._openssl("x509", "-req", "-in", csr, "-CA", self.cert, "-CAkey", self.key,
                      "-CAcreateserial", "-out", cert, "-days", "2", "-extfile", ext)
        return cert, key

    @staticmethod
    def _new_key(path):
        return ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout",
                path]

    @staticmethod
    def _openssl(*args):
        subprocess.run(["openssl", *args], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.PIPE)

    def remove(self):
        shutil.rmtree(self.dir, ignore_errors=True)


class Server:
    """What the private web servers share: a free port found at start, an
    access log with one tab-separated line per request (method, decoded path,
    status, Range header, body bytes sent), and stop().

    `root` is the server's own folder: tests put files there and check there
    what the drive wrote. Subclasses give config() and command().
    """

    name = "server"
    # The user that owns what the server writes; None: the test's own.
    user = None

    def __init__(self, root, tls=None, auth=None, verify_clients=False):
        if verify_clients and not tls:
            raise ValueError("client certificates need TLS")
        self.root = root.rstrip("/")
        self.tls = tls
        self.auth = auth
        self.verify_clients = verify_clients
        self.dir = tempfile.mkdtemp(prefix=f"{self.name}-")
        self.access_log = os.path.join(self.dir, "access.log")
        self.error_log = os.path.join(self.dir, "error.log")
        self.proc = None
        self.port = None

    @property
    def scheme(self):
        return "https" if self.tls else "http"

    def start(self):
        self.adopt(self.root)
        # A restart keeps the port: a mounted drive knows the server by it.
        for attempt in range(5):
            if self.port is None or attempt > 0:
                self.port = free_port()
            conf = os.path.join(self.dir, f"{self.name}.conf")
            with open(conf, "w") as f:
                f.write(self.config())
            with open(os.path.join(self.dir, "output"), "ab") as output:
                self.proc = subprocess.Popen(self.command(conf), stdout=output, stderr=output)
            if wait_until(lambda: self._answers() or self.proc.poll() is not None, 10):
                if self.proc.poll() is None:
                    return self
        raise RuntimeError(f"{self.name} did not start: {self._error_tail()}")

    def adopt(self, path):
        """Hands `path` (and everything under it) to the server's user, so
        that the server can change what the test put there."""
        if self.user is None or os.geteuid() != 0:
            return
        import pwd
        entry = pwd.getpwnam(self.user)
        for dirpath, dirnames, filenames in os.walk(path):
            os.chown(dirpath, entry.pw_uid, entry.pw_gid)
            for name in dirnames + filenames:
                os.lchown(os.path.join(dirpath, name), entry.pw_uid, entry.pw_gid)

    def put(self, relative, data):
        """Writes a file into the server's folder, as another writer would."""
        path = os.path.join(self.root, relative)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(data)
        self.adopt(os.path.dirname(path))
        return path

    def _answers(self):
        with contextlib.suppress(OSError):
            with socket.create_connection(("127.0.0.1", self.port), timeout=1):
                return True
        return False

    def _error_tail(self):
        text = ""
        for path in (os.path.join(self.dir, "output"), self.error_log):
            with contextlib.suppress(OSError), open(path, errors="replace") as f:
                text += f.read()[-2000:]
        return text

    def stop(self):
        """Ends the server; its folder and logs stay until remove()."""
        if self.proc:
            stop_process(self.proc, 10)
            self.proc = None

    def remove(self):
        self.stop()
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
                    rows.append((method, path, int(status), "" if rng == "-" else rng,
                                 int(sent) if sent.isdigit() else 0))
        return rows

    def count(self, method, since=0):
        """How many requests of `method` the server saw from number `since` on."""
        return sum(1 for row in self.requests()[since:] if row[0] == method)

    def fetched_spans(self, path_suffix, since=0):
        """Byte spans of the file actually sent by GETs from request number
        `since` on: (start, end) pairs, end exclusive, from the Range asked
        and the bytes the server sent."""
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


class Nginx(Server):
    """An nginx on 127.0.0.1 with a free port. A web directory serves `root`
    twice: under /json/ with JSON autoindex and under / with HTML autoindex.
    With `webdav`, it serves `root` read-write under /dav/ the way the
    README's WebDAV configuration does (dav_methods and dav_ext_methods).
    `tls` (a TestCA) makes it HTTPS; `auth` asks for basic credentials;
    `verify_clients` requires a client certificate from the same CA."""

    name = "nginx"

    def __init__(self, root, limit_rate=None, webdav=False, tls=None, auth=None,
                 verify_clients=False):
        if auth and auth.scheme != "basic":
            raise ValueError("nginx speaks basic authentication only")
        super().__init__(root, tls, auth, verify_clients)
        self.limit_rate = limit_rate
        self.webdav = webdav

    def command(self, conf):
        return ["nginx", "-e", self.error_log, "-c", conf, "-p", self.dir]

    def config(self):
        rate = f"limit_rate {self.limit_rate};" if self.limit_rate else ""
        temps = "\n".join(
            f"  {kind}_temp_path {self.dir}/{kind};"
            for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        listen = f"127.0.0.1:{self.port}"
        tls = ""
        if self.tls:
            listen += " ssl"
            tls = (f"ssl_certificate {self.tls.server_cert}; "
                   f"ssl_certificate_key {self.tls.server_key};")
            if self.verify_clients:
                tls += f" ssl_verify_client on; ssl_client_certificate {self.tls.cert};"
        auth = ""
        if self.auth:
            users = self.auth.write_user_file(os.path.join(self.dir, "htpasswd"))
            auth = f'auth_basic "{Auth.REALM}"; auth_basic_user_file {users};'
        if self.webdav:
            module = "load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;"
            locations = (f"location /dav/ {{ alias {self.root}/; "
                         "dav_methods PUT DELETE MKCOL COPY MOVE; "
                         "dav_ext_methods PROPFIND OPTIONS; }")
        else:
            module = ""
            locations = (f"location /json/ {{ alias {self.root}/; autoindex on; "
                         "autoindex_format json; }\n"
                         f"    location / {{ root {self.root}; autoindex on; }}")
        return f"""
{module}
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
  client_max_body_size 0;
  server {{
    listen {listen};
    {tls}
    {rate}
    {auth}
    {locations}
  }}
}}
"""

    def url(self, style="json"):
        """The mount URL: "json" or "html" for a web directory, "dav" for
        the WebDAV share."""
        path = {"json": "json/", "html": "", "dav": "dav/"}[style]
        return f"{self.scheme}://127.0.0.1:{self.port}/{path}"


class Apache(Server):
    """An Apache 2 on 127.0.0.1 with a free port, serving `root` read-write
    under /dav/ with mod_dav, from a server root of its own. Its children
    run as www-data, so start() hands `root` to that user (put() and adopt()
    keep it so). `tls` (a TestCA) makes it HTTPS; `auth` asks for basic or
    digest credentials; `verify_clients` requires a client certificate from
    the same CA. `extra_config` lines go at the end of the share's
    <Directory> section (e.g. "AuthDigestNonceLifetime 2")."""

    name = "apache"
    user = "www-data"
    MODULES = ("mpm_event", "authz_core", "authn_core", "authn_file", "authz_user",
               "auth_basic", "auth_digest", "alias", "dav", "dav_fs", "ssl",
               "socache_shmcb")

    def __init__(self, root, tls=None, auth=None, verify_clients=False, extra_config=""):
        super().__init__(root, tls, auth, verify_clients)
        self.extra_config = extra_config

    def command(self, conf):
        return ["apache2", "-d", self.dir, "-f", conf, "-DFOREGROUND"]

    def config(self):
        modules = "\n".join(f"LoadModule {m}_module /usr/lib/apache2/modules/mod_{m}.so"
                            for m in self.MODULES)
        tls = ""
        if self.tls:
            tls = (f"SSLEngine on\nSSLCertificateFile {self.tls.server_cert}\n"
                   f"SSLCertificateKeyFile {self.tls.server_key}\n"
                   f"SSLSessionCache shmcb:{self.dir}/ssl_cache(512000)")
            if self.verify_clients:
                tls += f"\nSSLVerifyClient require\nSSLCACertificateFile {self.tls.cert}"
        access = "Require all granted"
        if self.auth:
            users = self.auth.write_user_file(os.path.join(self.dir, "users"))
            if self.auth.scheme == "digest":
                access = (f'AuthType Digest\n  AuthName "{Auth.REALM}"\n'
                          f"  AuthDigestProvider file\n  AuthUserFile {users}\n"
                          "  Require valid-user")
            else:
                access = (f'AuthType Basic\n  AuthName "{Auth.REALM}"\n'
                          f"  AuthUserFile {users}\n  Require valid-user")
        return f"""
{modules}
ServerName 127.0.0.1
Listen 127.0.0.1:{self.port}
User {self.user}
Group {self.user}
PidFile {self.dir}/apache.pid
DefaultRuntimeDir {self.dir}
Mutex file:{self.dir} default
ErrorLog {self.error_log}
LogLevel warn
LogFormat "%m\\t%U\\t%>s\\t%{{Range}}i\\t%B" fetches
CustomLog {self.access_log} fetches
KeepAlive On
MaxKeepAliveRequests 0
KeepAliveTimeout 30
DavLockDB {self.dir}/davlock
{tls}
Alias /dav/ "{self.root}/"
<Directory "{self.root}">
  Dav On
  AllowOverride None
  {access}
  {self.extra_config}
</Directory>
"""

    def start(self):
        # The lock database lives in the server root, which the children must
        # write; they must also pass through the temporary folders above the
        # share (mkdtemp makes them 0700).
        self.adopt(self.dir)
        parent = os.path.dirname(self.root)
        while parent not in ("/", ""):
            mode = os.stat(parent).st_mode
            if not mode & stat.S_IXOTH:
                os.chmod(parent, stat.S_IMODE(mode) | stat.S_IXOTH)
            parent = os.path.dirname(parent)
        return super().start()

    def url(self, style="dav"):
        if style != "dav":
            raise ValueError("the Apache fixture serves WebDAV only")
        return f"{self.scheme}://127.0.0.1:{self.port}/dav/"


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
            remote = ["webdav", "--webdav-url"] if "/dav/" in url else ["http", "--http-url"]
            cmd = ["rclone", "mount", f":{remote[0]}:", self.mountpoint, remote[1], url,
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
