#!/usr/bin/env bash
# Measures cachedrive beside its bounds and its peers on one WebDAV share
# published by a private nginx on 127.0.0.1, and prints one markdown table
# and a plot (bench/results/drive_peers.png).
#
#   bench/drive_peers.sh [path/to/cachedrive]     (default build/default/drive/cachedrive)
#
# Profiles: plain loopback, and a slow link on which the kernel paces every
# connection nginx accepts to SLOW_RATE MB/s (default 50; bench/
# pace_connections.c, preloaded into nginx). Per profile, bound rows first:
#   curl to a file        curl copies the 1 GiB file to the disk the caches use
#   connections x rate    what the drive's connections may carry (slow link)
#   curls at once         as many curls as connections, each copying its
#                         share of the file to /dev/null (slow link)
#   page cache            dd of the local file, warm
#   passthrough cached    libfuse's passthrough_ll example with cache=always,
#                         warm: reads served from the mount's page cache, the
#                         FUSE ceiling for the default mode's warm reads
#   passthrough direct_io the same example with cache=never (every read goes
#                         through FUSE): the FUSE ceiling for direct_io
#   curl PUT              curl uploads the 1 GiB file (loopback only)
#   curl PUT loop         one curl uploads 1,000 files of 100 KiB over one
#                         keep-alive connection (loopback only)
#   passthrough cp        cp of those files into the passthrough mount: the
#                         FUSE ceiling for many small files (loopback only)
# then the drives (cachedrive, cachedrive with -o direct_io, rclone mount
# --vfs-cache-mode full, davfs2), each run on a fresh mount with an empty
# cache:
#   cold   dd bs=1M of the whole file right after mounting
#   warm   the same dd again in the same mount
#   write  the 1 GiB file written into the mount in 1 MiB blocks, until the
#          server holds every byte (cachedrive uploads before close returns)
#   close  the close() of that file alone: cachedrive's upload (a peer that
#          uploads later returns at once, so its figure means little)
#   small  cp of the 1,000 files into the mount, until the server holds them
# The bytes read are checked with sha256 after every run, and what the
# server holds after every write; a drive that fails gets the reason in its
# row. Every figure is the median of RUNS runs, in MB/s (10^6 bytes/s).
#
# Environment: WORK (default /tmp/drive_peers: sources are kept there between
# runs), RUNS (3), SLOW_RATE (50, MB/s per connection), CONNECTIONS (8, cachedrive's default),
# DRIVES (default "cachedrive cachedrive-direct_io rclone davfs2"),
# PROFILES (default "loopback slow"), CACHE_DIR (the drives' cache directory,
# default $WORK/cache; emptied before each mount).
set -euo pipefail
cd "$(dirname "$0")/.."

cachedrive=$(realpath -m "${1:-build/default/drive/cachedrive}")
work=${WORK:-/tmp/drive_peers}
runs=${RUNS:-3}
slow_rate=${SLOW_RATE:-50}
connections=${CONNECTIONS:-8}
drives=${DRIVES:-cachedrive cachedrive-direct_io rclone davfs2}
profiles=${PROFILES:-loopback slow}
size=$((1 << 30))
small_files=1000
results=$PWD/bench/results
load_before=$(cut -d' ' -f1-3 /proc/loadavg)

for tool in nginx rclone mount.davfs curl gcc pkg-config fusermount3 sha256sum python3 gnuplot; do
    command -v "$tool" >/dev/null || {
        echo "missing $tool: ./scripts/dev bench-drive installs every package" >&2
        exit 1
    }
done
[[ "$drives" != *cachedrive* ]] || [ -x "$cachedrive" ] || { echo "no cachedrive at $cachedrive: ./scripts/dev test first" >&2; exit 1; }

mkdir -p "$work"/{src/small,root/share,nginx,mnt,tmp} "$results"
src=$work/src/bench.bin
if [ ! -f "$src" ] || [ "$(stat -c %s "$src")" -ne $size ]; then
    echo "Generating $src (1 GiB of random bytes)" >&2
    head -c $size /dev/urandom >"$src"
fi
if [ "$(find "$work/src/small" -type f | wc -l)" -ne $small_files ]; then
    for i in $(seq $small_files); do head -c 102400 /dev/urandom >"$work/src/small/f$i.bin"; done
fi
want=$(sha256sum <"$src" | cut -d' ' -f1)
small_want=$(cat "$work/src/small"/f*.bin | sha256sum | cut -d' ' -f1)
share=$work/root/share
cp "$src" "$share/bench.bin"

passthrough=$work/passthrough_ll
if [ ! -x "$passthrough" ]; then
    gcc -O2 -o "$passthrough" /usr/share/doc/libfuse3-dev/examples/passthrough_ll.c \
        $(pkg-config --cflags --libs fuse3)
fi
pacing=$work/pace_connections.so
gcc -O2 -shared -fPIC -o "$pacing" bench/pace_connections.c -ldl

mnt=$work/mnt
cache=${CACHE_DIR:-$work/cache}
nginx_pid=
drive_pid=
drive_kind=

mounted() { grep -q " $mnt " /proc/self/mounts; }

stop_drive() {
    if mounted; then
        if [ "$drive_kind" = davfs2 ]; then
            umount "$mnt" 2>/dev/null || umount -l "$mnt"
        else
            [ -n "$drive_pid" ] && kill -TERM "$drive_pid" 2>/dev/null || true
            for _ in $(seq 100); do mounted || break; sleep 0.1; done
            if mounted; then fusermount3 -u "$mnt" 2>/dev/null || fusermount3 -uz "$mnt"; fi
        fi
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
    rm -rf "$cache" "$work/tmp"/*
}
trap cleanup EXIT

# start_nginx RATE: RATE is the MB/s of each connection, or 0 for no limit.
start_nginx() {
    port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
    cat >"$work/nginx/nginx.conf" <<EOF
load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;
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
  client_max_body_size 0;
  keepalive_requests 100000;
  sendfile on;
  server {
    listen 127.0.0.1:$port;
    root $work/root;
    location /share/ {
      dav_methods PUT DELETE MKCOL COPY MOVE;
      dav_ext_methods PROPFIND OPTIONS;
      create_full_put_path on;
    }
  }
}
EOF
    if [ "$1" = 0 ]; then
        nginx -e "$work/nginx/error.log" -c "$work/nginx/nginx.conf" -p "$work/nginx" &
    else
        PACE_BYTES_PER_SECOND=$(($1 * 1000000)) LD_PRELOAD=$pacing \
            nginx -e "$work/nginx/error.log" -c "$work/nginx/nginx.conf" -p "$work/nginx" &
    fi
    nginx_pid=$!
    url=http://127.0.0.1:$port/share/
    for _ in $(seq 100); do
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && return 0
        sleep 0.1
    done
    echo "nginx did not start" >&2
    exit 1
}

# Writes the page cache's dirty pages back and waits for it: the write-back
# of the last run's gigabytes otherwise runs during the next.
settle() { sync; }

# mount_drive NAME: a fresh mount with an empty cache directory.
mount_drive() {
    stop_drive
    drive_kind=$1
    rm -rf "$cache"
    settle
    mkdir -p "$mnt" "$cache"
    case $1 in
    cachedrive) "$cachedrive" "$url" "$mnt" -f -q --webdav --connections "$connections" \
        --cache-dir "$cache" 2>"$work/cachedrive.log" & ;;
    cachedrive-direct_io) "$cachedrive" "$url" "$mnt" -f -q --webdav --connections "$connections" \
        --cache-dir "$cache" -o direct_io 2>"$work/cachedrive.log" & ;;
    rclone) rclone mount :webdav: "$mnt" --webdav-url "$url" --vfs-cache-mode full \
        --cache-dir "$cache" 2>"$work/rclone.log" & ;;
    davfs2)
        # mount.davfs runs as its own user, which must be able to write there.
        chmod 1777 "$cache"
        printf 'cache_dir %s\nask_auth 0\nuse_locks 0\ndelay_upload 0\ncache_size 4096\n' \
            "$cache" >"$work/davfs2.conf"
        mount.davfs "$url" "$mnt" -o "conf=$work/davfs2.conf" </dev/null >"$work/davfs2.log" 2>&1 ||
            return 1
        ;;
    passthrough-never | passthrough-always)
        "$passthrough" -f -o "source=$share,cache=${1#passthrough-}" "$mnt" 2>"$work/passthrough.log" &
        ;;
    esac
    drive_pid=
    [ "$1" = davfs2 ] || drive_pid=$!
    for _ in $(seq 200); do
        mountpoint -q "$mnt" && return 0
        [ -z "$drive_pid" ] || kill -0 "$drive_pid" 2>/dev/null || break
        sleep 0.1
    done
    echo "$1 did not mount" >&2
    return 1
}

now() { date +%s.%N; }
# mbps BYTES START: MB/s of BYTES moved since START. Nothing starts between
# the end of the transfer and the clock: python3 takes 0.4 s to start on
# the development machine.
mbps() { awk -v bytes="$1" -v start="$2" -v end="$(now)" 'BEGIN { printf "%.0f\n", bytes / (end - start) / 1e6 }'; }
# dd_mbps FILE: reads FILE with dd bs=1M, prints MB/s.
dd_mbps() {
    local start
    start=$(now)
    dd if="$1" of=/dev/null bs=1M status=none || return 1
    mbps $size "$start"
}

# until_on_server START BYTES GLOB: MB/s once the server holds BYTES bytes
# under GLOB (5 minutes at most).
until_on_server() {
    local start=$1 bytes=$2 glob=$3
    for _ in $(seq 3000); do
        if [ "$(stat -c %s $glob 2>/dev/null | awk '{n += $1} END {print n + 0}')" -eq "$bytes" ]; then
            mbps "$bytes" "$start"
            return
        fi
        sleep 0.1
    done
    failure="the server never held all bytes"
    return 1
}

# Reads: sets c (cold) and w (warm), or failure.
read_run() {
    mount_drive "$1" || { failure="did not mount: $(tail -1 "$work/$1.log")"; return 1; }
    failure="read failed (see $work/$1.log)"
    c=$(dd_mbps "$mnt/bench.bin") || return 1
    w=$(dd_mbps "$mnt/bench.bin") || return 1
    local got
    got=$(sha256sum <"$mnt/bench.bin" | cut -d' ' -f1) || return 1
    [ "$got" = "$want" ] || { failure="WRONG BYTES (sha256 $got)"; return 1; }
}

# Writes: sets b (1 GiB file until on the server), k (its close() alone) and
# s (1,000 small files), or failure.
write_run() {
    rm -rf "$share/in"
    mkdir -p "$share/in"
    mount_drive "$1" || { failure="did not mount: $(tail -1 "$work/$1.log")"; return 1; }
    failure="write failed (see $work/$1.log)"
    local start timing
    # Writes in 1 MiB blocks; prints when the first write began and the MB/s
    # of the close() alone.
    timing=$(python3 - "$src" "$mnt/in/big.bin" <<'EOF2'
import os, sys, time
source = open(sys.argv[1], "rb")
out = os.open(sys.argv[2], os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
first = time.time()
while block := source.read(1 << 20):
    os.write(out, block)
start = time.time()
os.close(out)
print(f"{first:.6f} {(1 << 30) / (time.time() - start) / 1e6:.0f}")
EOF2
) || return 1
    read -r start k <<<"$timing"
    b=$(until_on_server "$start" $size "$share/in/big.bin") || return 1
    mkdir -p "$mnt/in/small" || return 1
    start=$(now)
    cp "$work/src/small"/f*.bin "$mnt/in/small/" || return 1
    s=$(until_on_server "$start" $((small_files * 102400)) "$share/in/small/f*.bin") || return 1
    [ "$(sha256sum <"$share/in/big.bin" | cut -d' ' -f1)" = "$want" ] &&
        [ "$(cat "$share/in/small"/f*.bin | sha256sum | cut -d' ' -f1)" = "$small_want" ] ||
        { failure="WRONG BYTES on the server"; return 1; }
}

# Bound runs: set x (one figure).
curl_get_run() {
    rm -f "$work/tmp/copy.bin"
    local start
    start=$(now)
    curl -sf -o "$work/tmp/copy.bin" "${url}bench.bin" || return 1
    x=$(mbps $size "$start")
    rm -f "$work/tmp/copy.bin"
}
curl_put_run() {
    rm -rf "$share/in"
    local start
    start=$(now)
    curl -sf -T "$src" "${url}in/big.bin" || return 1
    x=$(mbps $size "$start")
}
curl_put_loop_run() {
    rm -rf "$share/in"
    local config=$work/tmp/put_loop.curl start
    for i in $(seq $small_files); do
        printf 'upload-file = "%s"\nurl = "%sin/small/f%d.bin"\n' "$work/src/small/f$i.bin" "$url" "$i"
    done >"$config"
    start=$(now)
    curl -sf -K "$config" -o /dev/null || return 1
    x=$(mbps $((small_files * 102400)) "$start")
}
curls_at_once_run() {
    local share_bytes=$((size / connections)) start i curls=()
    start=$(now)
    for ((i = 0; i < connections; i++)); do
        curl -sf -o /dev/null -r "$((i * share_bytes))-$(((i + 1) * share_bytes - 1))" \
            "${url}bench.bin" &
        curls+=($!)
    done
    for i in "${curls[@]}"; do wait "$i" || return 1; done
    x=$(mbps $size "$start")
}
page_cache_run() { x=$(dd_mbps "$share/bench.bin"); }
# passthrough_run never|always: the second of two reads in one mount with
# that cache mode.
passthrough_run() {
    failure="did not mount (see $work/passthrough.log)"
    mount_drive "passthrough-$1" || return 1
    dd_mbps "$mnt/bench.bin" >/dev/null || return 1
    x=$(dd_mbps "$mnt/bench.bin") || return 1
}
passthrough_cp_run() {
    rm -rf "$share/in"
    mkdir -p "$share/in/small"
    failure="did not mount (see $work/passthrough.log)"
    mount_drive passthrough-never || return 1
    local start
    start=$(now)
    cp "$work/src/small"/f*.bin "$mnt/in/small/" || return 1
    x=$(mbps $((small_files * 102400)) "$start")
}

median() { printf '%s\n' "$@" | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

rows=()
plot=$results/drive_peers.dat
: >"$plot"
# plot_point PROFILE NAME FIGURE: one bar of the plot.
plot_point() { echo "\"$1\" \"$2\" $3" >>"$plot"; }
# bound_row PROFILE NAME COLUMN FUNCTION [ARGS...]: the median of RUNS runs of
# FUNCTION ARGS.
bound_row() {
    local profile=$1 name=$2 column=$3 run=$4 figures=() cells
    for _ in $(seq "$runs"); do
        failure="failed"
        settle
        "$run" "${@:5}" || { figures=(); break; }
        figures+=("$x")
    done
    stop_drive
    if [ ${#figures[@]} -eq 0 ]; then
        cells="$failure"
    else
        cells=$(median "${figures[@]}")
        plot_point "$profile" "$name" "$cells"
    fi
    case $column in
    cold) row="| $profile | **$name** | $cells | | | | |" ;;
    warm) row="| $profile | **$name** | | $cells | | | |" ;;
    close) row="| $profile | **$name** | | | $cells | $cells | |" ;;
    small) row="| $profile | **$name** | | | | | $cells |" ;;
    esac
    echo "$row" >&2
    rows+=("$row")
}

for profile in $profiles; do
    if [ "$profile" = loopback ]; then start_nginx 0; else start_nginx "$slow_rate"; fi
    label=$profile
    [ "$profile" = loopback ] || label="$slow_rate MB/s per connection"
    bound_row "$label" "curl to a file" cold curl_get_run
    if [ "$profile" != loopback ]; then
        row="| $label | **$connections connections x $slow_rate MB/s** | $((connections * slow_rate)) | | | | |"
        rows+=("$row")
        plot_point "$label" "connections x rate" $((connections * slow_rate))
        bound_row "$label" "$connections curls at once" cold curls_at_once_run
    fi
    bound_row "$label" "page cache" warm page_cache_run
    bound_row "$label" "passthrough cached" warm passthrough_run always
    bound_row "$label" "passthrough direct_io" warm passthrough_run never
    if [ "$profile" = loopback ]; then
        bound_row "$label" "curl PUT" close curl_put_run
        bound_row "$label" "curl PUT loop" small curl_put_loop_run
        bound_row "$label" "passthrough cp" small passthrough_cp_run
    fi
    for drive in $drives; do
        cold=() warm=() big=() closes=() small=() row=
        for run in $(seq "$runs"); do
            echo "[$label] $drive run $run" >&2
            if ! read_run "$drive"; then
                row="| $label | $drive | $failure | | | | |"
                break
            fi
            cold+=("$c") warm+=("$w")
            if [ "$profile" = loopback ]; then
                if ! write_run "$drive"; then
                    row="| $label | $drive | | | $failure | | |"
                    break
                fi
                big+=("$b") closes+=("$k") small+=("$s")
            fi
        done
        stop_drive
        if [ -z "$row" ]; then
            cold_median=$(median "${cold[@]}") warm_median=$(median "${warm[@]}")
            plot_point "$label" "$drive cold" "$cold_median"
            plot_point "$label" "$drive warm" "$warm_median"
            row="| $label | $drive | $cold_median | $warm_median |"
            if [ ${#big[@]} -gt 0 ]; then
                big_median=$(median "${big[@]}") small_median=$(median "${small[@]}")
                plot_point "$label" "$drive write" "$big_median"
                # A peer's close returns before its upload: its figure says nothing.
                close_median="(uploads later)"
                if [[ "$drive" == cachedrive* ]]; then
                    close_median=$(median "${closes[@]}")
                    plot_point "$label" "$drive close" "$close_median"
                fi
                plot_point "$label" "$drive small" "$small_median"
                row+=" $big_median | $close_median | $small_median |"
            else
                row+=" | | |"
            fi
        fi
        echo "$row" >&2
        rows+=("$row")
    done
    stop_nginx
done

echo
echo "1 GiB file and 1,000 files of 100 KiB; medians of $runs runs; MB/s = 10^6 bytes/s; bounds in bold."
echo "Machine: $(nproc) cores, $(uname -r); load before: $load_before; after: $(cut -d' ' -f1-3 /proc/loadavg)."
echo
echo "| network | drive | cold dd | warm dd | write 1 GiB | its close() | cp 1,000 x 100 KiB |"
echo "| --- | --- | ---: | ---: | ---: | ---: | ---: |"
printf '%s\n' "${rows[@]}"
echo
version=n/a
[ -x "$cachedrive" ] && version=$("$cachedrive" --version 2>&1 | head -1)
echo "Versions: cachedrive $version; $(rclone version 2>/dev/null | head -1);" \
    "$(mount.davfs -V 2>&1 | head -1); $(nginx -v 2>&1); $(curl --version | head -1 | cut -d' ' -f1-2)."
(cd "$results" && gnuplot -e "data='drive_peers.dat'; out='drive_peers.png'" ../drive_peers.gp)
echo "Plot: bench/results/drive_peers.png" >&2
