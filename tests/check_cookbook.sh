#!/bin/sh
# The cookbook shows the code of its example, and that does what it says. Arguments: source folder,
# the kel command, the built example.
set -eu
source=$1 kel=$2 cookbook=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
awk '/^```cpp$/ { on = 1; next } /^```$/ { on = 0 } on && NF' "$source/docs/cookbook.md" >"$work/shown"
awk '/^\/\/ 1\. / { on = 1 } /^int main/ { on = 0 } on && NF && !/^\/\/ [0-9]+\. /' \
  "$source/examples/cookbook.cpp" >"$work/built"
diff -u "$work/built" "$work/shown"

"$kel" encode --lossless "$source/examples/images/coffee.png" "$work/photo.kel"
"$kel" decode "$work/photo.kel" "$work/photo.ppm"
"$cookbook" "$work/photo.ppm" "$work" >"$work/said" 2>"$work/refusal"
diff -u - "$work/said" <<'SAID'
1 bytes fit, 35.1 dB, thumbnail 150 x 100, part 128 x 128
600 x 400, lossy; half: 300 x 200, lossless; arrived: identical, shown more than once; stranger: refused
SAID
grep -q 'neither a Kel file' "$work/refusal"
