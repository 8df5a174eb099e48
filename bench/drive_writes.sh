#!/usr/bin/env bash
# Writes into a WebDAV share published by a private nginx on 127.0.0.1,
# through cachedrive and through rclone (mount --vfs-cache-mode full), and
# prints one markdown table.
#
#   bench/drive_writes.sh [path/to/cachedrive]   (default build/default/drive/cachedrive)
#
# Two workloads per drive, each on a fresh mount with an empty cache:
#   1 GiB   dd bs=1M of one file into the mount
#   1000    files of 100 KiB copied into one directory
# "close" is the time until the writing program returns (cachedrive uploads
# before close returns); "on server" is the time until the server holds
# every byte (rclone uploads after close). sha256 of what the server holds
# is checked against the source.
#
# Environment: WORK (default /tmp/drive_writes), FILES (1000), BIG_MIB (1024).
set -euo pipefail
cd "$(dirname "$0")/.."

cachedrive=$(realpath -m "${1:-build/default/drive/cachedrive}")
work=${WORK:-/tmp/drive_writes}
files=${FILES:-1000}
big_mib=${BIG_MIB:-1024}

for tool in nginx rclone fusermount3 sha256sum bc; do
    command -v "$tool" >/dev/null || { echo "missing: $tool (apt-get install -y ${tool/fusermount3/fuse3})" >&2; exit 1; }
done
[ -x "$cachedrive" ] || { echo "no drive at $cachedrive: run ./scripts/dev test first" >&2; exit 1; }

rm -rf "$work"
mkdir -p "$work"/{root/share,tmp,src/small,mnt}
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
# Run as root, nginx's workers would write the share as nobody.
user_line=""
[ "$(id -u)" -eq 0 ] && user_line="user root;"
cat >"$work/nginx.conf" <<EOF
load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;
$user_line
pid $work/tmp/nginx.pid;
error_log $work/tmp/error.log;
events {}
http {
  access_log off;
  client_body_temp_path $work/tmp/body;
  client_max_body_size 0;
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
nginx -c "$work/nginx.conf" -p "$work/tmp"
trap 'fusermount3 -uz "$work/mnt" 2>/dev/null || true; kill "$(cat "$work/tmp/nginx.pid")" 2>/dev/null || true' EXIT
url=http://127.0.0.1:$port/share/

echo "Generating sources in $work/src" >&2
head -c $((big_mib << 20)) /dev/urandom >"$work/src/big.bin"
for i in $(seq 1 "$files"); do head -c 102400 /dev/urandom >"$work/src/small/f$i.bin"; done
big_sum=$(sha256sum <"$work/src/big.bin" | cut -d' ' -f1)
small_sum=$(cat "$work/src/small"/* | sha256sum | cut -d' ' -f1)

now() { date +%s.%N; }
mount_drive() {
    rm -rf "$work/cache"
    case $1 in
    cachedrive) "$cachedrive" "$url" "$work/mnt" --webdav --cache-dir "$work/cache" -q ;;
    rclone) rclone mount :webdav: "$work/mnt" --webdav-url "$url" --vfs-cache-mode full \
        --cache-dir "$work/cache" --daemon ;;
    esac
    for _ in $(seq 100); do mountpoint -q "$work/mnt" && return; sleep 0.1; done
    echo "$1 did not mount" >&2; exit 1
}
unmount_drive() { fusermount3 -u "$work/mnt" || fusermount3 -uz "$work/mnt"; sleep 0.5; }
# Seconds from $1 until the server holds $2 bytes under the paths $3 (a
# glob); the content is checked once afterwards, outside the timing.
until_on_server() {
    local start=$1 bytes=$2 paths=$3
    for _ in $(seq 6000); do
        if [ "$(stat -c %s $paths 2>/dev/null | awk '{n += $1} END {print n + 0}')" -eq "$bytes" ]; then
            printf '%.2f\n' "$(echo "$(now) - $start" | bc)"; return
        fi
        sleep 0.1
    done
    echo "never"
}
sha_of() { cat $1 2>/dev/null | sha256sum | cut -d' ' -f1; }

echo "| drive | workload | close s | MB/s to close | on server s | server sha256 |"
echo "|---|---|--:|--:|--:|---|"
for drive in cachedrive rclone; do
    rm -rf "$work/root/share"/*
    mount_drive "$drive"
    start=$(now)
    dd if="$work/src/big.bin" of="$work/mnt/big.bin" bs=1M status=none
    closed=$(echo "$(now) - $start" | bc)
    server=$(until_on_server "$start" $((big_mib << 20)) "$work/root/share/big.bin")
    ok=$([ "$(sha_of "$work/root/share/big.bin")" = "$big_sum" ] && echo match || echo MISMATCH)
    printf '| %s | 1 file of %d MiB | %.2f | %.0f | %s | %s |\n' "$drive" "$big_mib" "$closed" \
        "$(echo "$big_mib * 1.048576 / $closed" | bc -l)" "$server" "$ok"

    mkdir -p "$work/mnt/small"
    start=$(now)
    cp "$work/src/small"/* "$work/mnt/small/"
    closed=$(echo "$(now) - $start" | bc)
    server=$(until_on_server "$start" $((files * 102400)) "$work/root/share/small/*")
    ok=$([ "$(sha_of "$work/root/share/small/*")" = "$small_sum" ] && echo match || echo MISMATCH)
    printf '| %s | %d files of 100 KiB | %.2f | %.0f | %s | %s |\n' "$drive" "$files" "$closed" \
        "$(echo "$files * 0.1024 / $closed" | bc -l)" "$server" "$ok"
    unmount_drive
done
echo
echo "cachedrive $("$cachedrive" --version 2>&1 | head -1), $(rclone version | head -1), $(nginx -v 2>&1)"
