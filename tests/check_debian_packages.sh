#!/bin/sh
# The packages that cpack has made install, the command runs from them, a program is built with
# the library and the host kit found in their places, and all of it goes away again. As root, on a
# machine that may be changed. Argument: the folder of the packages.
set -eu
packages=$(cd "$1" && pwd)
photo=$(cd "$(dirname "$0")/.." && pwd)/examples/images/coffee.png
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

DEBIAN_FRONTEND=noninteractive apt-get -qq -y --no-install-recommends install \
  "$packages"/libkel1_*.deb "$packages"/libkel-dev_*.deb "$packages"/kel_*.deb \
  "$packages"/kel-gdk-pixbuf_*.deb "$packages"/python3-kel_*.deb >/dev/null
kel encode --lossless "$photo" photo.kel
kel decode photo.kel photo.png
kel compare "$photo" photo.png | grep -q 'The images are identical'

# Nothing but the package tells the desktop of the loader and of the type.
gdk-pixbuf-thumbnailer -s 100 photo.kel thumbnail.png
kel-thumbnailer -s 100 photo.kel own.png

cat >main.cpp <<'CPP'
#include <kel/host.hpp>

int main() {
  const kel::host::Session session;
  kel::host::FileSource file("photo.kel");
  return kel::host::Decode(file).width == 600 ? 0 : 1;
}
CPP
# shellcheck disable=SC2046
g++ -std=c++20 main.cpp -o outside -lkel_host $(pkg-config --cflags --libs kel) -pthread
./outside

/usr/bin/python3 - <<'PYTHON'
import importlib.metadata, kel
assert kel.decode("photo.kel").shape == (400, 600, 3)
assert importlib.metadata.version("kel") == kel.__version__
PYTHON

apt-get -qq -y remove python3-kel kel kel-gdk-pixbuf libkel-dev libkel1 >/dev/null
if [ -e /usr/bin/kel ]; then
  echo "the command is still there" >&2
  exit 1
fi
