#!/usr/bin/env bash
# Reads one 1 GiB file through cachedrive, rclone (mount --vfs-cache-mode
# full) and httpdirfs (--cache), all mounting the same directory published by
# a private nginx on 127.0.0.1, and prints one markdown table.
#
#   bench/drive_peers.sh [path/to/cachedrive]     (default build/default/drive/cachedrive)
#
# Per drive and network profile, three runs, each on a fresh mount with an
# empty cache directory:
#   cold  dd bs=1M of the whole file right after mounting
#   warm  the same dd again in the same mount
#   fio   4 KiB random reads for FIO_SECONDS on another fresh mount (IOPS,
#         completion latency p50/p99)
# After every run sha256sum reads the file through the mount once more and
# must match the source; a drive that fails or serves wrong bytes gets that
# in its row instead of figures. Every figure is the median of
# the three runs. Profiles: plain loopback, and nginx limit_rate per
# connection (SLOW_RATE, default 50m = 50 MB/s) as a slow link.
# cachedrive also runs with -o direct_io (kernel page cache bypassed).
#
# Environment: WORK (default /tmp/drive_peers: the 1 GiB file is kept there
# between runs), RUNS (3), FIO_SECONDS (10), SLOW_RATE (50m), DRIVES (default
# "cachedrive cachedrive-direct_io rclone httpdirfs").
set -euo pipefail
cd "$(dirname "$0")/.."

cachedrive=$(realpath -m "${1:-build/default/drive/cachedrive}")
work=${WORK:-/tmp/drive_peers}
runs=${RUNS:-3}
fio_seconds=${FIO_SECONDS:-10}
slow_rate=${SLOW_RATE:-50m}
drives=${DRIVES:-cachedrive cachedrive-direct_io rclone httpdirfs}
size=$((1 << 30))

for tool in nginx rclone httpdirfs fio fusermount3 sha256sum python3; do
    command -v "$tool" >/dev/null || {
        echo "missing $tool: apt-get install -y nginx rclone httpdirfs fio fuse3 python3" >&2
        exit 1
    }
done
[[ "$drives" != *cachedrive* ]] || [ -x "$cachedrive" ] || { echo "no cachedrive at $cachedrive: ./scripts/dev test first" >&2; exit 1; }

mkdir -p "$work/root" "$work/nginx"
file=$work/root/bench.bin
if [ ! -f "$file" ] || [ "$(stat -c %s "$file")" -ne $size ]; then
    echo "Generating $file (1 GiB of random bytes)" >&2
    head -c $size /dev/urandom >"$file"
fi
want=$(sha256sum "$file" | cut -d' ' -f1)

mnt=$work/mnt
cache=$work/cache
nginx_pid=
drive_pid=

mounted() { grep -q " $mnt " /proc/self/mounts; }

stop_drive() {
    if mounted; then
        [ -n "$drive_pid" ] && kill -TERM "$drive_pid" 2>/dev/null || true
        for _ in $(seq 100); do mounted || break; sleep 0.1; done
        if mounted; then fusermount3 -u "$mnt" 2>/dev/null || fusermount3 -uz "$mnt"; fi
    fi
    if [ -n "$drive_pid" ]; then
        kill -TERM "$drive_pid" 2>/dev/null || true
        wait "$drive_pid" 2>/dev/null || true
    fi
    drive_pid=
}

stop_nginx() {
    if [ -n "$nginx_pid" ]; then
        kill -TERM "$nginx_pid" 2>/dev/null || true
        wait "$nginx_pid" 2>/dev/null || true
    fi
    nginx_pid=
}

cleanup() {
    stop_drive
    stop_nginx
    rm -rf "$cache"
}
trap cleanup EXIT

free_port() {
    python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}

# start_nginx RATE: RATE is an nginx limit_rate value, or 0 for none.
start_nginx() {
    port=$(free_port)
    cat >"$work/nginx/nginx.conf" <<EOF
user root;
daemon off;
worker_processes 2;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log warn;
events { worker_connections 1024; }
http {
  default_type application/octet-stream;
  access_log off;
  client_body_temp_path $work/nginx/client_body;
  proxy_temp_path $work/nginx/proxy;
  fastcgi_temp_path $work/nginx/fastcgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  scgi_temp_path $work/nginx/scgi;
  keepalive_requests 100000;
  sendfile on;
  server {
    listen 127.0.0.1:$port;
    limit_rate $1;
    location /json/ { alias $work/root/; autoindex on; autoindex_format json; }
    location / { root $work/root; autoindex on; }
  }
}
EOF
    nginx -e "$work/nginx/error.log" -c "$work/nginx/nginx.conf" -p "$work/nginx" &
    nginx_pid=$!
    for _ in $(seq 100); do
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && return 0
        sleep 0.1
    done
    echo "nginx did not start" >&2
    exit 1
}

# mount_drive NAME: a fresh mount with an empty cache directory.
mount_drive() {
    stop_drive
    rm -rf "$cache"
    mkdir -p "$mnt" "$cache"
    local base=http://127.0.0.1:$port
    case $1 in
    cachedrive) "$cachedrive" "$base/json/" "$mnt" -f -q --cache-dir "$cache" & ;;
    cachedrive-direct_io) "$cachedrive" "$base/json/" "$mnt" -f -q --cache-dir "$cache" -o direct_io & ;;
    rclone) rclone mount :http: "$mnt" --http-url "$base/" --vfs-cache-mode full \
        --cache-dir "$cache" 2>"$work/rclone.log" & ;;
    httpdirfs) httpdirfs -f --cache --no-range-check --cache-location "$cache" "$base/" "$mnt" \
        >"$work/httpdirfs.log" 2>&1 & ;;
    esac
    drive_pid=$!
    for _ in $(seq 200); do
        mountpoint -q "$mnt" && return 0
        kill -0 "$drive_pid" 2>/dev/null || break
        sleep 0.1
    done
    echo "$1 did not mount" >&2
    return 1
}

# dd_mbps FILE: reads FILE with dd bs=1M, prints MB/s (10^6 bytes).
dd_mbps() {
    python3 - "$1" <<'EOF'
import subprocess, sys, time
start = time.monotonic()
subprocess.run(["dd", f"if={sys.argv[1]}", "of=/dev/null", "bs=1M", "status=none"], check=True)
print(f"{(1 << 30) / (time.monotonic() - start) / 1e6:.0f}")
EOF
}

# fio_figures FILE: prints "IOPS P50_US P99_US" of 4 KiB random reads.
fio_figures() {
    fio --name=rand4k --filename="$1" --rw=randread --bs=4k --size=$size --ioengine=psync \
        --iodepth=1 --numjobs=1 --time_based --runtime="$fio_seconds" --invalidate=0 \
        --output-format=json 2>/dev/null |
        python3 -c '
import json, sys
r = json.load(sys.stdin)["jobs"][0]["read"]
p = r["clat_ns"]["percentile"]
print("%.0f %.0f %.0f" % (r["iops"], p["50.000000"] / 1000, p["99.000000"] / 1000))'
}

# check_bytes: the file read through the mount must hash like the source.
check_bytes() {
    local got
    got=$(sha256sum "$mnt/bench.bin" | cut -d' ' -f1) || return 1
    [ "$got" = "$want" ] || { failure="WRONG BYTES (sha256 $got)"; return 1; }
}

# one_run DRIVE: one cold/warm/fio run; sets c w i a b, or failure.
one_run() {
    failure="failed (see $work/*.log)"
    mount_drive "$1" || return 1
    c=$(dd_mbps "$mnt/bench.bin") || return 1
    w=$(dd_mbps "$mnt/bench.bin") || return 1
    check_bytes || return 1
    mount_drive "$1" || return 1
    read -r i a b < <(fio_figures "$mnt/bench.bin") && [ -n "$b" ] || return 1
    check_bytes
}

median() { printf '%s\n' "$@" | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

rows=()
local_warm=$(dd_mbps "$file")
for profile in loopback "limit_rate $slow_rate"; do
    if [ "$profile" = loopback ]; then start_nginx 0; else start_nginx "$slow_rate"; fi
    for drive in $drives; do
        cold=() warm=() iops=() p50=() p99=()
        for run in $(seq "$runs"); do
            echo "[$profile] $drive run $run" >&2
            if ! one_run "$drive"; then
                echo "[$profile] $drive: $failure" >&2
                cold=()
                break
            fi
            cold+=("$c") warm+=("$w") iops+=("$i") p50+=("$a") p99+=("$b")
        done
        stop_drive
        if [ ${#cold[@]} -eq 0 ]; then
            row="| $profile | $drive | $failure | | | | |"
        else
            row="| $profile | $drive | $(median "${cold[@]}") | $(median "${warm[@]}") | $(median "${iops[@]}") | $(median "${p50[@]}") | $(median "${p99[@]}") |"
        fi
        echo "$row" >&2
        rows+=("$row")
    done
    stop_nginx
done

echo
echo "1 GiB file, medians of $runs runs, MB/s = 10^6 bytes/s; fio: 4 KiB random reads for ${fio_seconds} s on a fresh mount."
echo "Local file from the page cache: $local_warm MB/s. Machine: $(nproc) cores, $(uname -r)."
echo
echo "| network | drive | cold dd MB/s | warm dd MB/s | rand 4k IOPS | p50 µs | p99 µs |"
echo "| --- | --- | ---: | ---: | ---: | ---: | ---: |"
printf '%s\n' "${rows[@]}"
echo
version=n/a
[ -x "$cachedrive" ] && version=$("$cachedrive" --version 2>&1 | head -1)
echo "Versions: cachedrive $version; $(rclone version 2>/dev/null | head -1);" \
    "$(httpdirfs --version 2>&1 | head -1); $(nginx -v 2>&1); $(fio --version); sha256sum checked after every run."
