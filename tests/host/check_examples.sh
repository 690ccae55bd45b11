#!/bin/sh
# The examples over the host kit do what they say, on a photo. Arguments: the kel command, the
# examples hello, encode_file and decode_file, the photo.
set -eu
kel=$1 hello=$2 encode_file=$3 decode_file=$4 photo=$5
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
"$kel" encode --lossless "$photo" photo.kel
"$kel" decode photo.kel photo.ppm

"$hello" photo.ppm | grep -q '^600 x 400 samples in [0-9]* bytes, 4[0-9]'
"$kel" decode hello.kel again.ppm
cmp hello.ppm again.ppm

said=$("$encode_file" photo.ppm q75.kel)
[ "$said" = "$(wc -c <q75.kel) bytes" ]
"$decode_file" q75.kel q75.ppm
"$kel" decode q75.kel again.ppm
cmp q75.ppm again.ppm
head -c 50 q75.kel >cut.kel
if "$decode_file" cut.kel cut.ppm 2>said; then
  echo "a file without samples was decoded" >&2
  exit 1
fi
[ -s said ]
