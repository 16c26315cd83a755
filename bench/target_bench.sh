#!/usr/bin/env bash
# Strips a generated bundle of over 2 GB into a folder target and a zip target, and
# times the same kept paths copied by rsync and cp, and archived by zip.
#   bench/target_bench.sh [BUILD_DIR] [WORK_DIR]
set -euo pipefail
build=$(cd "${1:-build-release}" && pwd)
work=${2:-/tmp/whittle-target-bench}
rm -rf "$work" && mkdir -p "$work"
trap 'rm -rf "$work"' EXIT

# 16 products, 3 variants, 4 identities each, 20 extra files per identity: about
# 4,500 files of 560 kB each.
products=()
for p in x10 x11 x12 x20 x21 x22 x30 x31 x32 x40 x41 x42 x43 x50 x51 x52; do
  products+=(--product "$p:repair,ss,dfu")
done
"$build/whittle-bundlegen" "$work/bundle" "${products[@]}" --identities 4 --extra 20 --bytes 560000 >/dev/null
request=(--product x10 --product x20 --product x30 --product x40 --product x50 --factory repair --factory ss)

"$build/whittle" "$work/bundle" "${request[@]}" --dryrun |
  awk '/^Files to be copied:/{on=1;next} /^$/{on=0} on && /^\t/{sub(/^\t/,""); print}' >"$work/kept.txt"
# The kept files and links alone (their folders come along with them).
(cd "$work/bundle" && while IFS= read -r path; do [ -d "$path" ] && [ ! -L "$path" ] || printf '%s\n' "$path"; done) \
  <"$work/kept.txt" >"$work/kept-files.txt"
kept_bytes=$(cd "$work/bundle" && tr '\n' '\0' <"$work/kept-files.txt" | xargs -0 stat -c %s | paste -sd+ | bc)
total_bytes=$(du -sb "$work/bundle" | cut -f1)
echo "bundle: $(find "$work/bundle" -type f | wc -l) files, $((total_bytes / 1000000)) MB;" \
  "kept: $(wc -l <"$work/kept.txt") paths, $(wc -l <"$work/kept-files.txt") files, $((kept_bytes / 1000000)) MB"

seconds() { local start end; start=$(date +%s.%N); "$@" >/dev/null 2>&1; end=$(date +%s.%N); echo "$end - $start" | bc; }
best() {  # best of three, after a run that warms the page cache
  local best=999999 t
  for _ in 1 2 3; do
    rm -rf "$work/out" "$work/out.zip" "$work/out.bom"; sync
    t=$(seconds "$@")
    best=$(echo "if ($t < $best) $t else $best" | bc)
  done
  echo "$best"
}
ratio() { echo "scale=2; $1 / $2" | bc; }

cat "$work"/bundle/Restore/* "$work"/bundle/Restore/Firmware/extra/* >/dev/null 2>&1 || true
tool=$(best "$build/whittle" "$work/bundle" "$work/out" "${request[@]}")
rsync_time=$(best rsync -a --files-from="$work/kept.txt" "$work/bundle/" "$work/out/")
cp_time=$(best bash -c "cd '$work/bundle' && mkdir -p '$work/out' && tr '\\n' '\\0' <'$work/kept-files.txt' | xargs -0 cp -a --parents -t '$work/out/'")
echo "folder target: whittle ${tool}s | rsync -a --files-from ${rsync_time}s (ratio $(ratio "$tool" "$rsync_time")) | cp -a ${cp_time}s (ratio $(ratio "$tool" "$cp_time"))"

zip_tool=$(best "$build/whittle" "$work/bundle" "$work/out.zip" "${request[@]}")
zip_time=$(best bash -c "cd '$work/bundle' && zip -q -r -y '$work/out.zip' -@ <'$work/kept-files.txt'")
echo "zip target:    whittle ${zip_tool}s | zip -r -y ${zip_time}s (ratio $(ratio "$zip_tool" "$zip_time"))"
