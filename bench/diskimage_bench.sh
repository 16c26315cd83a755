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
#   --runs       runs of each measurement (default 5); medians and minimums are shown,
#                the minimum being the steadier figure on a busy machine
#   --work       where the folder and images go (default: a new folder under /var/tmp)
set -euo pipefail

tool=build/whittle-diskimage
megabytes=1100
runs=5
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
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }  # start, end
median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
minimum() { sort -n | head -1; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", a / b }'; }

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

# Each measurement starts from a clean page cache state (sync), every output is
# removed only after its timing, and the order of each pair alternates between runs,
# so that neither side pays for the other's writeback or freeing of blocks. Wall and CPU (user + system, children
# included) times are both kept: on a busy machine the CPU times are the steadier.
TIMEFORMAT='%R %U %S'
timed() {  # array name, command...; the command's standard output goes to $work/output.txt
  local into=$1; shift
  local figures wall user system
  figures=$( { time "$@" > "$work/output.txt" 2> /dev/null; } 2>&1 )
  read -r wall user system <<< "$figures"
  eval "${into}_wall+=($wall)"
  eval "${into}_cpu+=($(awk -v u="$user" -v s="$system" 'BEGIN { printf "%.3f", u + s }'))"
}
settle() { sync; sleep 1; }
time_bare_xorriso() {
  rm -f "$work/bare.iso"; settle
  timed xorriso "$xorriso" -as mkisofs -quiet -input-charset UTF-8 -V "$volume" -iso-level 3 -hfsplus -no-pad \
    -o "$work/bare.iso" "$source"
  rm -f "$work/bare.iso"
}
time_create() {
  rm -f "$work/new.dmg"; settle
  timed create "$tool" create -srcfolder "$source" "$work/new.dmg" -format UDRO
  mv "$work/new.dmg" "$work/image.dmg"  # the old image goes after the timing, as the bare image does
}
time_bare_extract() {
  rm -rf "$work/extracted"; settle
  timed extract "$seven_zip" x -y -bd -snld20 -o"$work/extracted" "$work/image.dmg"
  rm -rf "$work/extracted"
}
time_attach() {
  settle
  timed attach "$tool" attach "$work/image.dmg" -plist
  "$tool" eject "$(grep -o '/dev/disk[0-9]*' "$work/output.txt" | head -1)" > /dev/null
}

xorriso_wall=() xorriso_cpu=() create_wall=() create_cpu=() extract_wall=() extract_cpu=() attach_wall=() attach_cpu=()
for run in $(seq 1 "$runs"); do
  if [ $((run % 2)) = 1 ]; then
    time_bare_xorriso; time_create; time_bare_extract; time_attach
  else
    time_create; time_bare_xorriso; time_attach; time_bare_extract
  fi
  echo "run $run (wall s): xorriso ${xorriso_wall[-1]}, create ${create_wall[-1]}, 7zz x ${extract_wall[-1]}, attach ${attach_wall[-1]}"
done

report() {  # name, its times, bare name, bare times, what the times are
  local name=$1 ours=$2 bare_name=$3 bare=$4 kind=$5
  local ours_median ours_min bare_median bare_min
  ours_median=$(printf '%s\n' $ours | median); ours_min=$(printf '%s\n' $ours | minimum)
  bare_median=$(printf '%s\n' $bare | median); bare_min=$(printf '%s\n' $bare | minimum)
  printf '%-7s %-4s median %6.2f s  min %6.2f s  |  %-13s median %6.2f s  min %6.2f s  |  ratio median %s  min %s\n' \
    "$name" "$kind" "$ours_median" "$ours_min" "$bare_name" "$bare_median" "$bare_min" \
    "$(ratio "$ours_median" "$bare_median")" "$(ratio "$ours_min" "$bare_min")"
}
echo
echo "image: $(stat -c %s "$work/image.dmg") bytes, load average: $(cut -d' ' -f1-3 /proc/loadavg); limit of each ratio: 1.15"
report create "${create_wall[*]}" "bare xorriso" "${xorriso_wall[*]}" wall
report create "${create_cpu[*]}" "bare xorriso" "${xorriso_cpu[*]}" cpu
report attach "${attach_wall[*]}" "bare 7zz x" "${extract_wall[*]}" wall
report attach "${attach_cpu[*]}" "bare 7zz x" "${extract_cpu[*]}" cpu

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
