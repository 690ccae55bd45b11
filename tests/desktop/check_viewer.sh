#!/bin/sh
# An image viewer on a screen of its own shows a lossless Kel file exactly as it shows the PNG file that
# was coded, and one that ends early less sharply; and ImageMagick reads and writes Kel files by the lines of
# the manual. Arguments: the loader, kel, the project's folder, a folder for the screenshots.
set -eu
loader=$1 kel=$2 source=$(cd "$3" && pwd) shots=$4
work=$(mktemp -d)
screen=
trap '[ -z "$screen" ] || kill "$screen"; rm -rf "$work"' EXIT
mkdir -p "$shots" "$work/data/mime/packages"
cp "$source/desktop/kel.xml" "$work/data/mime/packages"
export XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work" GDK_PIXBUF_MODULE_FILE="$work/loaders.cache"
update-mime-database "$work/data/mime"
query=$(pkg-config --variable=gdk_pixbuf_query_loaders gdk-pixbuf-2.0)
{ "$query" "$loader"; "$query"; } >"$GDK_PIXBUF_MODULE_FILE"

Xvfb -displayfd 3 -screen 0 800x600x24 -nolisten tcp 3>"$work/display" 2>/dev/null &
screen=$!
for _ in $(seq 100); do [ -s "$work/display" ] && break; sleep 0.1; done
DISPLAY=:$(cat "$work/display")
export DISPLAY

# Shows a file until two pictures of the screen are the same, and not empty.
show() {  # file, screenshot
  viewnior "$1" 2>"$work/said" &
  viewer=$!
  before=
  for _ in $(seq 60); do
    sleep 0.5
    import -silent -window root "$2"
    now=$(convert "$2" -format %k info:)
    [ "$now" -gt 1000 ] && [ "$now" = "$before" ] && break
    before=$now
  done
  kill "$viewer"
  wait "$viewer" 2>/dev/null || true
  [ "$now" -gt 1000 ] || { echo "$1 is not shown"; cat "$work/said"; exit 1; }
}
mkdir "$work/a" "$work/b" "$work/c"
cp "$source/examples/images/coffee.png" "$work/a/photo"
"$kel" encode --quiet --lossless --tile 1024x1024 "$work/a/photo" "$work/b/photo.kel"
mv "$work/b/photo.kel" "$work/b/photo"
head -c 150000 "$work/b/photo" >"$work/c/photo"
show "$work/a/photo" "$shots/png.png"
show "$work/b/photo" "$shots/kel.png"
show "$work/c/photo" "$shots/kel-ends-early.png"
differ=$(compare -metric AE "$shots/png.png" "$shots/kel.png" null: 2>&1 || true)
[ "$differ" -lt 2000 ] || { echo "the viewer shows another picture: $differ pixels differ"; exit 1; }

mkdir "$work/ImageMagick"
{ echo '<delegatemap>'; grep '^<delegate ' "$source/docs/desktop.md"; echo '</delegatemap>'; } >"$work/ImageMagick/delegates.xml"
PATH="$(cd "$(dirname "$kel")" && pwd):$PATH"
cd "$work"
convert "$source/examples/images/coffee.png" -strip photo.kel 2>/dev/null
kel decode --quiet photo.kel expected.png
convert photo.kel read.png
[ "$(compare -metric AE expected.png read.png null: 2>&1)" = 0 ] || { echo "ImageMagick reads another picture"; exit 1; }
