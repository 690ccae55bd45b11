#!/bin/sh
# Compares the binary interface of the library with the one that the last release promised, which
# tests/abi keeps: programs built with that must run with this. What was added, or grew in a way
# that a person has to judge, is told; what breaks programs fails. Needs abigail-tools and a build
# with debug information by gcc. Arguments: the built library; --keep behind it writes the promise
# anew, as is done when a release is tagged.
set -eu
library=$1 keep=${2:-}
source=$(cd "$(dirname "$0")/.." && pwd)
promise=$source/tests/abi/libkel.so.1.abi.gz
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
if [ "$keep" = --keep ]; then
  abidw --no-show-locs --no-corpus-path --no-comp-dir-path --headers-dir "$source/include" \
    --drop-private-types --drop-undefined-syms "$library" >"$work/libkel.abi"
  gzip -9nc "$work/libkel.abi" >"$promise"
  exit 0
fi
[ "$(uname -m)" = x86_64 ] || exit 0  # the promise was taken there
gzip -dc "$promise" >"$work/libkel.abi"
status=0
abidiff --headers-dir2 "$source/include" --drop-private-types "$work/libkel.abi" "$library" || status=$?
# Bits of the result: 1 and 2 failures of the tool, 4 a change, 8 one that breaks programs.
[ $((status & 11)) -eq 0 ]
