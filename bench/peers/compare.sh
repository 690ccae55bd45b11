#!/bin/sh
# The kel command beside other image codecs, on one core: builds the corpus when it is not there,
# and prints a Markdown table.
# usage: compare.sh KEL [CORPUS [arguments of peers.py]]
#   KEL     the command, such as build/release/tools/kel
#   CORPUS  folder of the pictures; default $HOME/kel-corpus
# The README beside this file tells which packages it needs, and what the figures mean.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
kel=$1
corpus=${2:-$HOME/kel-corpus}
[ $# -lt 2 ] && shift || shift 2
[ -s "$corpus/desktop.ppm" ] || "$here/corpus.sh" "$corpus" >&2
exec python3 "$here/peers.py" "$corpus" --rounds 3 --psnr 40 \
  --codecs 'OpenJPH,JPEG XL e1,WebP z0,libjpeg-turbo 4:4:4,file copy (dd)' \
  --extra "Kel|$kel encode --quiet -j 1 --lossless {in} {out}|$kel decode --quiet -j 1 {in} {out}|kel" \
  --extra "Kel|$kel encode --quiet -j 1 -q {q} {in} {out}|$kel decode --quiet -j 1 {in} {out}|kel|lossy:1..100" \
  "$@"
