#!/bin/sh
# What the size of the tiles costs and brings: bytes, PSNR, time and memory of the kel command on a
# photo, as a table. Arguments: the command, an image file, sizes such as 1024 (0: one tile).
# Times are the best of twelve runs and of the coding alone; memory is that of the whole process.
set -eu
kel=$1 photo=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$kel" encode --lossless --quiet "$photo" "$work/all.kel"
"$kel" decode --quiet "$work/all.kel" "$work/in.ppm"

best() {  # the shortest time that twelve runs of a command tell
  for run in 1 2 3 4 5 6 7 8 9 10 11 12; do
    "$kel" "$@" --quiet --verbose 2>&1
  done | sed -n 's/.*, \([0-9.]*\) s, .*/\1/p' | sort -n | head -n 1
}
peak() {  # MB
  /usr/bin/time -f %M "$kel" "$@" --quiet 2>&1 >/dev/null | awk '{ printf "%.0f", $1 / 1000 }'
}

echo "| tiles | threads | bytes | PSNR, dB | encode, s | decode, s | decode, peak MB |"
echo "|---:|---:|---:|---:|---:|---:|---:|"
for size in "$@"; do
  tile=${size}x$size
  [ "$size" != 0 ] || tile=65535x65535
  for threads in 1 2; do
    file=$work/$size.kel
    encode=$(best encode -j $threads --tile "$tile" "$work/in.ppm" "$file")
    decode=$(best decode -j $threads "$file" "$work/out.ppm")
    memory=$(peak decode -j $threads "$file" "$work/out.ppm")
    psnr=$("$kel" compare "$work/in.ppm" "$work/out.ppm" | sed -n 's/^all *\([0-9.]*\) .*/\1/p')
    echo "| $size | $threads | $(wc -c <"$file") | $psnr | $encode | $decode | $memory |"
  done
done
