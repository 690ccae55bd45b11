#!/bin/sh
# The C interface installed: its header is C99 and C++, a C program finds it by CMake and by
# pkg-config, links and runs, nothing of C++ leaves the library, and Python calls it.
# Arguments: cmake, C compiler, C++ compiler, build folder, example source, Python or nothing,
# sanitizers of the build.
set -eu
cmake=$1 cc=$2 cxx=$3 build=$4 example=$5 python=$6 sanitizers=$7
here=$(dirname "$0")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
flags=
[ -z "$sanitizers" ] || flags=-fsanitize=$sanitizers

"$cmake" --install "$build" --prefix "$work/prefix" >/dev/null
header=$work/prefix/include/kel/kel.h
"$cc" -std=c99 -pedantic -Wall -Wextra -Werror -fsyntax-only "$header"
"$cxx" -std=c++11 -pedantic -Wall -Wextra -Werror -fsyntax-only -x c++ "$header"
library=$(find "$work/prefix" -name libkelc.so)
if nm -D --defined-only "$library" | grep -v -E ' (kel_[a-z_]*|KELC_1)(@@KELC_1)?$'; then
  echo "libkelc exports more than its header says" >&2
  exit 1
fi

mkdir "$work/source"
cp "$example" "$work/source/main.c"
cat >"$work/source/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.22)
project(Outside C CXX)
find_package(Kel 1.0 REQUIRED COMPONENTS c)
add_executable(outside main.c)
target_link_libraries(outside PRIVATE Kel::c)
CMAKE
"$cmake" -S "$work/source" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_FLAGS="$flags" >/dev/null
"$cmake" --build "$work/build" >/dev/null
pc=$(dirname "$(find "$work/prefix" -name kelc.pc)")
# shellcheck disable=SC2046
"$cc" -std=c99 $flags "$example" -o "$work/outside" \
  $(PKG_CONFIG_PATH="$pc" pkg-config --cflags --libs kelc)
export LD_LIBRARY_PATH=$(dirname "$pc")
for program in "$work/build/outside" "$work/outside"; do
  if "$program" "$header" "$work/out.kel" 2>"$work/message"; then exit 1; fi
  grep -q 'neither a Kel file' "$work/message"
done

# A sanitizer's run-time must come first, which Python does not load.
[ -z "$python" ] || [ -n "$sanitizers" ] || "$python" "$here/ctypes_test.py" "$library"
