#!/bin/sh
# Checks that the README's programs are those of examples/, which the build compiles, and that every
# file that the README links to exists. Usage: check_readme.sh SOURCE_DIR
set -eu
cd "$1"
shown=$(mktemp)
trap 'rm -f "$shown"' EXIT
failed=0
number=0
for example in encode_file decode_file; do
  number=$((number + 1))
  awk -v want="$number" '/^```cpp$/ { n++; on = n == want; next } /^```$/ { on = 0 } on' README.md >"$shown"
  diff -u "examples/$example.cpp" "$shown" || failed=1
done
for file in $(grep -o '](\([^)#]*\))' README.md | tr -d '()]'); do
  [ -e "$file" ] || { echo "README.md links to $file, which does not exist"; failed=1; }
done
exit "$failed"
