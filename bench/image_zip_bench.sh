#!/usr/bin/env bash
# Prints, in one run, the figures of the disk image and zip writers:
#   1. whittle-diskimage create vs bare xorriso, attach vs bare 7zz x (a folder of
#      random blobs and many small files);
#   2. whittle-copy -ck vs zip -r -y of the same files;
#   3. peak resident memory of whittle-diskimage create and attach, and of
#      whittle-copy -ck, for sparse inputs of 1 GB and 5 GB;
#   4. a whole whittle run: dmg target vs folder target of the same request.
# Each timing is the best of --runs runs, after a run that warms the page cache.
#
# Usage: bench/image_zip_bench.sh [--build DIR] [--megabytes N] [--runs N] [--work DIR]
#   --build      build folder with whittle, whittle-bom, whittle-copy, whittle-diskimage
#                and whittle-bundlegen (default: build-release)
#   --megabytes  size of the generated folder of part 1 (default 1000)
#   --runs       timed runs of each measurement (default 3)
#   --work       where everything goes (default: a new folder under /var/tmp)
set -euo pipefail

build=build-release
megabytes=1000
runs=3
work=
while [ $# -gt 0 ]; do
  case $1 in
    --build) build=$2; shift 2 ;;
    --megabytes) megabytes=$2; shift 2 ;;
    --runs) runs=$2; shift 2 ;;
    --work) work=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
build=$(cd "$build" && pwd)
for tool in whittle whittle-bom whittle-copy whittle-diskimage whittle-bundlegen; do
  [ -x "$build/$tool" ] || { echo "no $tool in $build (build it first)" >&2; exit 2; }
done
if [ -z "$work" ]; then
  work=$(mktemp -d /var/tmp/whittle-image-zip-bench.XXXXXX)
  trap 'rm -rf "$work"' EXIT
fi
mkdir -p "$work"
diskimage=$build/whittle-diskimage

. "$(dirname "$0")/timing.sh"
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
peak_kb() {  # command...: peak resident set in kB
  /usr/bin/time -f %M -o "$work/rss.txt" "$@" > "$work/rss-out.txt" 2>/dev/null
  cat "$work/rss.txt"
}
bom_of() {  # folder, bom: a BOM listing everything in the folder
  (cd "$1" && { echo .; find . -mindepth 1 | sort; }) > "$2.list"
  "$build/whittle-bom" -s -i "$2.list" "$2"
}
eject_all() {  # attach output file
  grep -o '/dev/disk[0-9]*' "$1" | sort -u | while read -r device; do "$diskimage" eject "$device" > /dev/null || true; done
}

echo "== 1. create and attach ($megabytes MB: 16 random blobs, 2000 small files)"
source=$work/BenchVolume
mkdir -p "$source/Firmware" "$source/usr/share/many"
for i in $(seq 1 16); do head -c $(( megabytes * 1024 * 1024 / 16 )) /dev/urandom > "$source/Firmware/blob$i.bin"; done
for i in $(seq 1 2000); do echo "small file $i" > "$source/usr/share/many/f$i.txt"; done
ln -s ../Firmware/blob1.bin "$source/usr/link"
xorriso_time=$(best 'rm -f "$work/bare.iso"' xorriso -as mkisofs -quiet -input-charset UTF-8 -V BenchVolume \
  -iso-level 3 -hfsplus -no-pad -o "$work/bare.iso" "$source")
create_time=$(best 'rm -f "$work/new.dmg"' "$diskimage" create -srcfolder "$source" "$work/new.dmg" -format UDRO)
"$diskimage" create -srcfolder "$source" "$work/image.dmg" -format UDRO > /dev/null
extract_time=$(best 'rm -rf "$work/extracted"' 7zz x -y -bd -snld20 -o"$work/extracted" "$work/image.dmg")
attach() { "$diskimage" attach "$work/image.dmg" -plist > "$work/attach.txt"; eject_all "$work/attach.txt"; }
attach_time=$(best ':' attach)
cp_time=$(best 'rm -rf "$work/copied"' cp -a "$source" "$work/copied")
echo "create ${create_time}s | bare xorriso ${xorriso_time}s (ratio $(ratio "$create_time" "$xorriso_time")) | cp -a ${cp_time}s (ratio $(ratio "$create_time" "$cp_time"))"
echo "attach ${attach_time}s | bare 7zz x ${extract_time}s (ratio $(ratio "$attach_time" "$extract_time"))"

echo
echo "== 2. zip archives of a generated bundle"
bundle=$work/bundle
products=()
for p in x10 x11 x12 x20 x21 x22 x30 x31; do products+=(--product "$p:repair,ss,dfu"); done
"$build/whittle-bundlegen" "$bundle" "${products[@]}" --identities 4 --extra 20 --bytes 560000 > /dev/null
echo "bundle: $(find "$bundle" -type f | wc -l) files, $(du -sm "$bundle" | cut -f1) MB"
bom_of "$bundle" "$work/bundle.bom"
ck_time=$(best 'rm -f "$work/ck.zip"' "$build/whittle-copy" -ck --noextattr --noacl --bom "$work/bundle.bom" "$bundle" "$work/ck.zip")
zip_time=$(best 'rm -f "$work/zip.zip"' bash -c "cd '$bundle' && zip -q -r -y '$work/zip.zip' .")
cpu() {  # command...: user + system seconds
  /usr/bin/time -f '%U %S' -o "$work/cpu.txt" "$@" > /dev/null 2>&1; awk '{ printf "%.2f", $1 + $2 }' "$work/cpu.txt"
}
ck_cpu=$(cpu "$build/whittle-copy" -ck --noextattr --noacl --bom "$work/bundle.bom" "$bundle" "$work/ck.zip")
zip_cpu=$(cpu bash -c "cd '$bundle' && zip -q -r -y '$work/zip.zip' .")
echo "whittle-copy -ck ${ck_time}s (cpu ${ck_cpu}s), $(stat -c %s "$work/ck.zip") bytes | zip -r -y ${zip_time}s (cpu ${zip_cpu}s), $(stat -c %s "$work/zip.zip") bytes (ratio $(ratio "$ck_time" "$zip_time"))"
rm -f "$work/ck.zip" "$work/zip.zip"

echo
echo "== 3. peak resident memory (kB)"
for gigabytes in 1 5; do
  sparse=$work/Sparse$gigabytes
  mkdir -p "$sparse"
  truncate -s "${gigabytes}G" "$sparse/sparse.bin"
  echo "some data" > "$sparse/small.txt"
  create_kb=$(peak_kb "$diskimage" create -srcfolder "$sparse" "$work/sparse.dmg" -format UDRO)
  attach_kb=$(peak_kb "$diskimage" attach "$work/sparse.dmg" -plist)
  eject_all "$work/rss-out.txt"
  bom_of "$sparse" "$work/sparse.bom"
  ck_kb=$(peak_kb "$build/whittle-copy" -ck --noextattr --noacl --bom "$work/sparse.bom" "$sparse" "$work/sparse.zip")
  echo "${gigabytes} GB sparse file: create ${create_kb} | attach ${attach_kb} | whittle-copy -ck ${ck_kb}"
  checker=$(dirname "$0")/../../shared/tools/hfsplus-check
  if [ "$gigabytes" = 5 ] && [ -x "$checker" ]; then
    dmg2img -s "$work/sparse.dmg" "$work/sparse.img" > /dev/null
    start=$(partx -g -o START "$work/sparse.img"); count=$(partx -g -o SECTORS "$work/sparse.img")
    dd if="$work/sparse.img" of="$work/sparse.hfs" bs=1M iflag=skip_bytes,count_bytes skip=$((start * 512)) \
      count=$((count * 512)) conv=sparse status=none
    echo "5 GB volume: $("$checker" -n -f "$work/sparse.hfs" 2>&1 | tail -1 | sed 's/^\*\* //')"
    rm -f "$work/sparse.img" "$work/sparse.hfs"
  fi
  rm -rf "$sparse" "$work/sparse.dmg" "$work/sparse.zip"
done
create_kb=$(peak_kb "$diskimage" create -srcfolder "$source" "$work/rss.dmg" -format UDRO)
attach_kb=$(peak_kb "$diskimage" attach "$work/rss.dmg" -plist)
eject_all "$work/rss-out.txt"
echo "$megabytes MB of random blobs: create ${create_kb} | attach ${attach_kb}"
rm -f "$work/rss.dmg" "$work/image.dmg" "$work/bare.iso"

echo
echo "== 4. whittle: dmg target vs folder target of the same request"
request=(--product x10 --product x20 --product x30 --factory repair --factory ss)
folder_time=$(best 'rm -rf "$work/out"' "$build/whittle" "$bundle" "$work/out" "${request[@]}")
dmg_time=$(best 'rm -f "$work/out.dmg"' "$build/whittle" "$bundle" "$work/out.dmg" "${request[@]}")
zip_target_time=$(best 'rm -f "$work/out.zip"' "$build/whittle" "$bundle" "$work/out.zip" "${request[@]}")
echo "folder target ${folder_time}s | dmg target ${dmg_time}s (ratio $(ratio "$dmg_time" "$folder_time")) | zip target ${zip_target_time}s (ratio $(ratio "$zip_target_time" "$folder_time"))"
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
