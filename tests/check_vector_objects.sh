#!/bin/sh
# Objects compiled with extra target flags must define no weak symbol: the linker could keep that
# copy for everybody, and other processors would stop at it. Arguments: nm, the objects as a list
# separated by semicolons.
set -eu
nm=$1
status=0
IFS=';'
for object in $2; do
  # The pointer to the handler of exceptions is data, the same in every object.
  weak=$("$nm" -C --defined-only "$object" | grep -E '^[0-9a-f]* [VWu] ' | grep -v ' DW.ref.' || true)
  [ -z "$weak" ] || { echo "$object:"; echo "$weak"; status=1; }
done
exit $status
