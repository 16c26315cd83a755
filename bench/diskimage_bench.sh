#!/usr/bin/env bash
# Times whittle-diskimage against the bare programs it drives, and prints the figures
# and ratios:
#   create  vs  xorriso writing the same folder's image to a file (same options)
#   attach  vs  7zz x of the same image
# With --large, also round-trips a sparse file of more than 4 GiB (about a minute and
# 5 GB of disk).
#
# Usage: bench/diskimage_bench.sh [--tool PATH] [--megabytes N] [--runs N] [--work DIR] [--large]
#   --tool       the whittle-diskimage to measure (default: build/whittle-diskimage);
#                attach uses the volumes folder it was built with
#   --megabytes  size of the generated folder (default 1100)
#   --runs       runs of each measurement; the median counts (default 3)
#   --work       where the folder and images go (default: a new folder under /var/tmp)
set -euo pipefail

tool=build/whittle-diskimage
megabytes=1100
runs=3
work=
large=no
seven_zip=/usr/bin/7zz
xorriso=/usr/bin/xorriso

while [ $# -gt 0 ]; do
  case $1 in
    --tool) tool=$2; shift 2 ;;
    --megabytes) megabytes=$2; shift 2 ;;
    --runs) runs=$2; shift 2 ;;
    --work) work=$2; shift 2 ;;
    --large) large=yes; shift ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done

[ -x "$tool" ] || { echo "no tool at $tool (build it, or pass --tool)" >&2; exit 2; }
if [ -z "$work" ]; then
  work=$(mktemp -d /var/tmp/whittle-diskimage-bench.XXXXXX)
  trap 'rm -rf "$work"' EXIT
fi
mkdir -p "$work"

now() { date +%s.%N; }
elapsed() { echo "$2 - $1" | bc; }
median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
ratio() { echo "scale=3; $1 / $2" | bc; }

volume=BenchVolume
source="$work/$volume"
echo "== generating $megabytes MB in $source"
rm -rf "$source"
mkdir -p "$source/Firmware" "$source/usr/share/many"
big_files=16
per_file=$(( megabytes * 1024 * 1024 / big_files ))
for i in $(seq 1 $big_files); do
  # Random data, so that nothing is stored as zero runs.
  head -c "$per_file" /dev/urandom > "$source/Firmware/blob$i.bin"
done
for i in $(seq 1 2000); do echo "small file $i" > "$source/usr/share/many/f$i.txt"; done
ln -s ../Firmware/blob1.bin "$source/usr/link"
du -sh "$source"

create_times=() xorriso_times=() attach_times=() extract_times=()
for run in $(seq 1 "$runs"); do
  rm -f "$work/bare.iso" "$work/image.dmg"
  start=$(now)
  "$xorriso" -as mkisofs -quiet -input-charset UTF-8 -V "$volume" -iso-level 3 -hfsplus -no-pad \
    -o "$work/bare.iso" "$source"
  xorriso_times+=("$(elapsed "$start" "$(now)")")
  rm -f "$work/bare.iso"

  start=$(now)
  "$tool" create -srcfolder "$source" "$work/image.dmg" -format UDRO > /dev/null
  create_times+=("$(elapsed "$start" "$(now)")")

  rm -rf "$work/extracted"
  start=$(now)
  "$seven_zip" x -y -bd -snld20 -o"$work/extracted" "$work/image.dmg" > /dev/null
  extract_times+=("$(elapsed "$start" "$(now)")")
  rm -rf "$work/extracted"

  start=$(now)
  output=$("$tool" attach "$work/image.dmg" -plist)
  attach_times+=("$(elapsed "$start" "$(now)")")
  device=$(printf '%s\n' "$output" | grep -o '/dev/disk[0-9]*' | head -1)
  "$tool" eject "$device" > /dev/null
  echo "run $run: xorriso ${xorriso_times[-1]} s, create ${create_times[-1]} s, 7zz x ${extract_times[-1]} s, attach ${attach_times[-1]} s"
done

xorriso_median=$(printf '%s\n' "${xorriso_times[@]}" | median)
create_median=$(printf '%s\n' "${create_times[@]}" | median)
extract_median=$(printf '%s\n' "${extract_times[@]}" | median)
attach_median=$(printf '%s\n' "${attach_times[@]}" | median)
echo
echo "image: $(stat -c %s "$work/image.dmg") bytes"
echo "create   median ${create_median} s  vs bare xorriso ${xorriso_median} s  ratio $(ratio "$create_median" "$xorriso_median") (limit 1.15)"
echo "attach   median ${attach_median} s  vs bare 7zz x   ${extract_median} s  ratio $(ratio "$attach_median" "$extract_median") (limit 1.15)"

if [ "$large" = yes ]; then
  echo
  echo "== a sparse file of more than 4 GiB"
  rm -rf "$work/Large" "$work/large.dmg"
  mkdir -p "$work/Large"
  size=$(( (4 << 30) + 12345 ))
  truncate -s $(( size - 4 )) "$work/Large/huge.bin"
  printf tail >> "$work/Large/huge.bin"
  start=$(now)
  "$tool" create -srcfolder "$work/Large" "$work/large.dmg" -format UDRO > /dev/null
  echo "create: $(elapsed "$start" "$(now)") s, image $(stat -c %s "$work/large.dmg") bytes"
  start=$(now)
  output=$("$tool" attach "$work/large.dmg" -plist)
  echo "attach: $(elapsed "$start" "$(now)") s"
  mount_point=$(printf '%s\n' "$output" | sed -n 's:.*<string>\(/.*\)</string>.*:\1:p' | grep -v '^/dev/' | head -1)
  device=$(printf '%s\n' "$output" | grep -o '/dev/disk[0-9]*' | head -1)
  got_size=$(stat -c %s "$mount_point/huge.bin")
  got_tail=$(tail -c 4 "$mount_point/huge.bin")
  "$tool" eject "$device" > /dev/null
  if [ "$got_size" = "$size" ] && [ "$got_tail" = tail ]; then
    echo "large file round trip: ok ($got_size bytes)"
  else
    echo "large file round trip: FAILED (size $got_size, last bytes '$got_tail')"
    exit 1
  fi
fi
