#!/bin/sh
# The loader, the MIME type and the thumbnailer that have been built, as a desktop finds them.
# Arguments: the loader, kel-thumbnailer, kel, the tests' program, the project's folder, sanitizers.
set -eu
loader=$1 thumbnailer=$2 kel=$3 tests=$4 source=$5 sanitizers=${6:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "$*" >&2; exit 1; }

# A desktop of our own: MIME types, and the list of loaders.
mkdir -p "$work/data/mime/packages"
cp "$source/desktop/kel.xml" "$work/data/mime/packages"
export XDG_DATA_HOME="$work/data" GDK_PIXBUF_MODULE_FILE="$work/loaders.cache"
update-mime-database "$work/data/mime"
preload=
case $sanitizers in
  # The library's programs are not built with the sanitizers' run-time, which has to come first.
  # gcc's stands among what the loader needs, clang's in its programs alone.
  *address*) preload=$(ldd "$loader" | sed -n 's/.* => \(.*libasan.*\) (.*/\1/p')
             [ -n "$preload" ] || preload=$(clang -print-file-name="libclang_rt.asan-$(uname -m).so")
             export ASAN_OPTIONS=detect_leaks=0 ;;
esac
query=$(pkg-config --variable=gdk_pixbuf_query_loaders gdk-pixbuf-2.0)
LD_PRELOAD=$preload "$query" "$loader" >"$GDK_PIXBUF_MODULE_FILE"
grep -q '"image/x-kel"' "$GDK_PIXBUF_MODULE_FILE" || fail "the loader cannot be queried"
"$query" >>"$GDK_PIXBUF_MODULE_FILE"  # the machine's own
unset ASAN_OPTIONS

"$tests" --gtest_brief=1

# A picture without the ending of its name is known by its first bytes.
"$kel" encode --quiet --tile 256x256 "$source/examples/images/coffee.png" "$work/photo.kel"
cp "$work/photo.kel" "$work/photo"
for name in photo.kel photo; do
  ASAN_OPTIONS=detect_leaks=0 LD_PRELOAD=$preload \
    gdk-pixbuf-thumbnailer -s 150 "$work/$name" "$work/$name.png" || fail "no thumbnail of $name"
done
cmp "$work/photo.kel.png" "$work/photo.png"
file -m "$source/desktop/kel.magic" --mime-type "$work/photo" | grep -q 'image/x-kel' ||
  fail "file does not know the picture"

# The thumbnailer reads little, and makes much the same.
said=$("$thumbnailer" -v -s 150 "$work/photo.kel" "$work/own.png")
size=$(wc -c <"$work/photo.kel")
read=$(echo "$said" | sed -n 's/.* from \([0-9]*\) of .*/\1/p')
[ "$((read * 2))" -lt "$size" ] || fail "the thumbnailer reads too much: $said of $size"
psnr=$("$kel" compare "$work/own.png" "$work/photo.png" | sed -n 's/^all *\([0-9]*\).*/\1/p')
[ "${psnr:-99}" -ge 28 ] || fail "the thumbnails differ: $psnr dB"
if "$thumbnailer" "$source/README.md" "$work/none.png" 2>"$work/said"; then fail "a text has no thumbnail"; fi
grep -q 'kel-thumbnailer: ' "$work/said"
