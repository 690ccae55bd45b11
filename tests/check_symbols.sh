#!/bin/sh
# The shared library exports only what is meant to be exported, and reaches no allocator but the
# host's callbacks. Arguments: nm, the library.
# `operator delete` may be referred to: virtual destructors do. It is never called on anything.
set -eu
nm=$1 library=$2
status=0

foreign=$("$nm" -DC --defined-only "$library" | sed 's/^[0-9a-f ]* [A-Za-z] //; s/@.*//' |
  grep -vE '^(KEL_1|(typeinfo( name)? for |vtable for )?Kel[A-Za-z_]*(::.*)?|InitDefaultCIEParams|CIEParamsAreDefaults|ColorSpecIsKelCompatibile)$' || true)
if [ -n "$foreign" ]; then
  echo "exported, but not meant to be:"; echo "$foreign"; status=1
fi

for name in KelLibInit KelLibShutDown KelLibVersion KelLibBuildDate KelGetMemObj \
    InitDefaultCIEParams CIEParamsAreDefaults ColorSpecIsKelCompatibile; do
  "$nm" -D --defined-only "$library" | grep -qE " T $name(@|\$)" || {
    echo "not exported under its plain name: $name"; status=1; }
done

allocators=$("$nm" -D --undefined-only "$library" | sed 's/.* //; s/@.*//' |
  grep -E '^(_Zn[wa].*|malloc|calloc|realloc|aligned_alloc|posix_memalign|memalign|strdup|free|mmap)$' || true)
if [ -n "$allocators" ]; then
  echo "reaches an allocator other than the host's:"; echo "$allocators"; status=1
fi
exit $status
