#!/bin/bash
# Holds the direction of the library's includes: a folder includes itself and those before it in
#   base < kernels < samples < transform < format < image < dec, enc < encode, decode < api
# and the encoder's side never meets the decoder's. Arguments: the top of the sources.
set -euo pipefail
cd "$1"
declare -A rank=([base]=0 [kernels]=1 [samples]=2 [transform]=3 [format]=4 [image]=5 [dec]=6 [enc]=6
                 [encode]=7 [decode]=7 [api]=8)
declare -A side=([dec]=decoder [decode]=decoder [enc]=encoder [encode]=encoder)

folder_of() {  # common/src/FOLDER/..., dec/src/... or enc/src/...
  case $1 in
    common/src/*/*) local rest=${1#common/src/}; echo "${rest%%/*}" ;;
    dec/src/*) echo dec ;;
    enc/src/*) echo enc ;;
  esac
}

bad=0
checked=0
while IFS=: read -r file line; do
  name=${line#*\"}
  name=${name%%\"*}
  target=
  for path in "${file%/*}/$name" "common/src/$name" "dec/src/$name" "enc/src/$name"; do
    [ -f "$path" ] && target=$path && break
  done
  [ -n "$target" ] || continue  # a public or a generated header
  from=$(folder_of "$file") to=$(folder_of "$target")
  checked=$((checked + 1))
  if [ -z "${rank[$from]:-}" ] || [ -z "${rank[$to]:-}" ]; then
    echo "$file: a folder that the order does not know"; bad=1
  elif [ "${rank[$to]}" -gt "${rank[$from]}" ]; then
    echo "$file: $from includes $to ($name)"; bad=1
  elif [ -n "${side[$from]:-}" ] && [ -n "${side[$to]:-}" ] && [ "${side[$from]}" != "${side[$to]}" ]; then
    echo "$file: the ${side[$from]}'s side includes the ${side[$to]}'s ($name)"; bad=1
  fi
done < <(grep -rH --include='*.h' --include='*.cpp' '^#include "' common/src dec/src enc/src)
[ "$checked" -gt 200 ] || { echo "only $checked includes seen"; bad=1; }
exit $bad
