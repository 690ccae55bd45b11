#!/bin/sh
# A picture of 30,000 x 30,000 RGB (2.7 GB of samples), which is never in memory, through kel encode
# and kel decode, from and to pipes: seconds, memory of both, and whether it came back exactly.
# usage: stream_900.sh KEL PHOTO.ppm [arguments of kel encode]; default --lossless
set -eu
here=$(cd "$(dirname "$0")" && pwd)
kel=$1 photo=$2
shift 2
[ $# -gt 0 ] || set -- --lossless
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
picture() { python3 "$here/mirrored.py" "$photo" 30000 30000; }

picture | /usr/bin/time -o "$work/encode" -f 'encode: %e s, %U s user, %S s system, %M KB' \
  "$kel" encode -j 1 --quiet "$@" - - >"$work/x.kel"
cat "$work/encode"
echo "bytes: $(wc -c <"$work/x.kel")"
sum=$(cat "$work/x.kel" | /usr/bin/time -o "$work/decode" \
  -f 'decode: %e s, %U s user, %S s system, %M KB' \
  "$kel" decode -j 1 --quiet --format ppm - - | md5sum)
cat "$work/decode"
[ "$sum" = "$(picture | md5sum)" ] && echo "exact" || echo "not exact"
