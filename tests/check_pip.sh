#!/bin/sh
# `pip install .` works without network in a virtual environment over the system's packages, and
# what it installs works outside of the sources. Arguments: the sources, Python.
set -eu
source=$1 python=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$python" -m venv --system-site-packages "$work/venv"
cd "$source"
"$work/venv/bin/pip" install --no-build-isolation --no-index . >"$work/log" 2>&1 || {
  cat "$work/log" >&2
  exit 1
}
cd "$work"
venv/bin/python - <<'PYTHON'
import kel, numcodecs, numpy
array = numpy.arange(5000, dtype="u2").reshape(50, 100)
assert (kel.decode(kel.encode(array, lossless=True)) == array).all()
assert numcodecs.get_codec({"id": "kel"}).codec_id == "kel"
assert "venv" in kel.__file__, kel.__file__
PYTHON
