#!/usr/bin/env bash
# Prints, in one run, the figures of bundles read straight from a zip archive of
# more than a gigabyte (payloads of random text, which deflate shrinks to about 3/4):
#   1. zip source to a folder target, over unzip extracting only the kept files
#      (target: at most 1.1);
#   2. zip source to a zip target, over unzip of the whole archive followed by
#      whittle from that folder to a zip target (target: at most 0.2);
#   3. the same request from the archive served by nginx on 127.0.0.1: the bytes the
#      server sent, over the kept entries' bytes (local headers included) + the
#      central directory + the entries read for analysis (manifests, maps, links),
#      minus one (target: at most 1%).
# Each timing is the best of --runs runs, after a run that warms the page cache. The
# bundle and its archive are made once and kept in the cache folder.
#
# Usage: bench/archive_bench.sh [--build DIR] [--megabytes-per-file N] [--runs N] [--cache DIR] [--work DIR]
#   --build               build folder with whittle, whittle-bom, whittle-copy and
#                         whittle-bundlegen (default: build-release)
#   --megabytes-per-file  size of each payload file (default 28: 49 files, about 1.4 GB
#                         of text, 1.05 GB deflated)
#   --runs                timed runs of each measurement (default 3)
#   --cache               where the bundle and its archive stay between runs
#                         (default /var/tmp/whittle-archive-bench)
#   --work                where the targets go (default: a new folder under /var/tmp)
set -euo pipefail

build=build-release
megabytes=28
runs=3
cache=/var/tmp/whittle-archive-bench
work=
while [ $# -gt 0 ]; do
  case $1 in
    --build) build=$2; shift 2 ;;
    --megabytes-per-file) megabytes=$2; shift 2 ;;
    --runs) runs=$2; shift 2 ;;
    --cache) cache=$2; shift 2 ;;
    --work) work=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
build=$(cd "$build" && pwd)
for tool in whittle whittle-bom whittle-copy whittle-bundlegen; do
  [ -x "$build/$tool" ] || { echo "no $tool in $build (build it first)" >&2; exit 2; }
done
nginx=$(command -v nginx || echo /usr/sbin/nginx)
[ -x "$nginx" ] || { echo "nginx is not installed (scripts/install-deps installs it)" >&2; exit 2; }
if [ -z "$work" ]; then
  work=$(mktemp -d /var/tmp/whittle-archive-bench-work.XXXXXX)
  trap 'rm -rf "$work"' EXIT
fi
mkdir -p "$work" "$cache"
request=(--product x10 --product x30 --factory repair)

. "$(dirname "$0")/timing.sh"
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", a / b }'; }

# ---- the bundle and its archive, made once ----
bundle=$cache/bundle
archive=$cache/bundle.zip
stamp="bytes $((megabytes * 1000000)) extra 3 products x10:repair,ss x30:repair"
if [ ! -f "$archive" ] || [ "$(cat "$cache/stamp" 2>/dev/null)" != "$stamp" ]; then
  echo "making the bundle and its archive in $cache (once)"
  rm -rf "$bundle" "$archive" "$cache/stamp"
  bytes=$((megabytes * 1000000))
  "$build/whittle-bundlegen" "$bundle" --product x10:repair,ss --product x30:repair --extra 3 --bytes "$bytes" > /dev/null
  # Every payload becomes random text: lines of base64.
  find "$bundle" -type f -size "${bytes}c" -print0 | while IFS= read -r -d '' payload; do
    head -c $((bytes * 3 / 4)) /dev/urandom | base64 -w 76 > "$payload"
    truncate -s "$bytes" "$payload"
  done
  (cd "$bundle" && zip -q -r -y "$archive" .)
  echo "$stamp" > "$cache/stamp"
fi
archive_bytes=$(stat -c %s "$archive")
echo "archive: $(zipinfo -1 "$archive" | wc -l) entries, $archive_bytes bytes; bundle $(du -sm "$bundle" | cut -f1) MB"

# The kept files: what a dry run copies that the archive holds as a file or link.
"$build/whittle" "$archive" "${request[@]}" --dryrun |
  awk '/^Files to be copied:/ { on = 1; next } /^Files to be created:/ { on = 0 } on && /^\t/ { sub(/^\t/, ""); print }' \
  > "$work/kept-paths.txt"
zipinfo -1 "$archive" | grep -v '/$' | sort > "$work/archive-files.txt"
sort "$work/kept-paths.txt" | comm -12 - "$work/archive-files.txt" > "$work/kept-files.txt"
mapfile -t kept < "$work/kept-files.txt"
echo "request: ${request[*]}: ${#kept[@]} kept files"

echo
echo "== 1. zip source to a folder target vs unzip of the kept files"
whittle_folder=$(best 'rm -rf "$work/out"' "$build/whittle" "$archive" "$work/out" "${request[@]}")
unzip_kept=$(best 'rm -rf "$work/kept"' unzip -q "$archive" "${kept[@]}" -d "$work/kept")
echo "whittle ${whittle_folder}s | unzip of the kept files ${unzip_kept}s | ratio $(ratio "$whittle_folder" "$unzip_kept") (target 1.1)"

echo
echo "== 2. zip source to a zip target vs unzip of everything + whittle folder to zip target"
whittle_zip=$(best 'rm -f "$work/out.zip"' "$build/whittle" "$archive" "$work/out.zip" "${request[@]}")
unzip_all=$(best 'rm -rf "$work/all"' unzip -q "$archive" -d "$work/all")
unzip -q "$archive" -d "$work/all"
folder_zip=$(best 'rm -f "$work/from-folder.zip"' "$build/whittle" "$work/all" "$work/from-folder.zip" "${request[@]}")
rm -rf "$work/all"
two_steps=$(awk -v a="$unzip_all" -v b="$folder_zip" 'BEGIN { printf "%.3f", a + b }')
echo "whittle ${whittle_zip}s | unzip ${unzip_all}s + whittle from the folder ${folder_zip}s = ${two_steps}s | ratio $(ratio "$whittle_zip" "$two_steps") (target 0.2)"

echo
echo "== 3. remote source: bytes fetched over what the run needs"
mkdir -p "$work/nginx/www"
ln -f "$archive" "$work/nginx/www/bundle.zip" 2>/dev/null || cp "$archive" "$work/nginx/www/bundle.zip"
port=$(( 20000 + RANDOM % 20000 ))
d=$work/nginx
cat > "$d/nginx.conf" <<EOF
daemon off; master_process off; worker_processes 1; pid $d/nginx.pid; error_log $d/error.log;
events { worker_connections 64; }
http {
  log_format counted '\$status \$body_bytes_sent \$request_uri';
  access_log $d/access.log counted;
  client_body_temp_path $d/cb; proxy_temp_path $d/px; fastcgi_temp_path $d/fc; uwsgi_temp_path $d/uw; scgi_temp_path $d/sc;
  default_type application/octet-stream;
  server { listen 127.0.0.1:$port; root $d/www; }
}
EOF
"$nginx" -e "$d/error.log" -p "$d" -c "$d/nginx.conf" &
server=$!
for _ in $(seq 1 100); do (echo > "/dev/tcp/127.0.0.1/$port") 2> /dev/null && break; sleep 0.05; done
start=$(now)
"$build/whittle" "http://127.0.0.1:$port/bundle.zip" "$work/remote" "${request[@]}" > "$work/remote.txt" 2>&1 ||
  { echo "the remote run failed:" >&2; cat "$work/remote.txt" >&2; kill "$server"; exit 1; }
remote_time=$(awk -v a="$start" -v b="$(now)" 'BEGIN { printf "%.3f", b - a }')
sleep 0.2
kill "$server"
wait "$server" 2> /dev/null || true
served=$(awk '{ sum += $2 } END { print sum + 0 }' "$d/access.log")
requests=$(wc -l < "$d/access.log")

# Each entry's extent runs from its local header to the next one (or to the central
# directory); the kept files, and the manifests, maps and links the analysis reads.
zipinfo -v "$archive" | awk '
  /^  is [0-9]+ \(/ && !directory { directory = $2 }
  /^Central directory entry #/ { getline; getline; getline; name = substr($0, 3); next }
  /^  offset of local header from start of archive:/ { offset[name] = $NF }
  /^  Unix file attributes/ && $NF ~ /^l/ { link[name] = 1 }
  END {
    for (n in offset) print offset[n] "\t" (n in link ? "link" : "file") "\t" n
    print directory "\tdirectory\t"
  }' | sort -n > "$work/extents.txt"
read -r kept_bytes analysis_bytes directory_bytes < <(awk -F'\t' -v size="$archive_bytes" '
  FILENAME == ARGV[1] { kept[$0] = 1; next }
  {
    if (open) extent[name] = $1 - start
    name = $3; start = $1; kind[$3] = $2; open = $2 != "directory"
    if ($2 == "directory") directory = size - $1
  }
  END {
    for (n in extent) {
      if (n ~ /\/$/) continue
      folder = n; sub(/[^\/]*$/, "", folder)
      if (n in kept) k += extent[n]
      if (kind[n] == "link" || ((n ~ /\.(plist|txt)$/) && (folder == "Restore/" || folder == "Restore/Firmware/")) || n ~ /\/manifest$/)
        a += extent[n]
    }
    printf "%d %d %d\n", k, a, directory
  }' "$work/kept-files.txt" "$work/extents.txt")
needed=$((kept_bytes + analysis_bytes + directory_bytes))
echo "served $served bytes in $requests requests (${remote_time}s) | kept entries $kept_bytes + analysis entries $analysis_bytes + central directory $directory_bytes = $needed"
echo "over-fetch: $(awk -v a="$served" -v b="$needed" 'BEGIN { printf "%.3f%%", (a / b - 1) * 100 }') (target 1%)"
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
