#!/bin/sh
# What is installed works away from the build: every header of the host kit compiles alone, an
# outside project finds the kit by CMake, links it, encodes and decodes; and the command runs with
# its own library, manual page and completion beside it.
# Arguments: cmake, compiler, build folder, sanitizers of the build.
set -eu
cmake=$1 compiler=$2 build=$3 sanitizers=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
flags=
[ -z "$sanitizers" ] || flags=-fsanitize=$sanitizers

"$cmake" --install "$build" --prefix "$work/prefix" >/dev/null
for header in "$work"/prefix/include/kel/host.hpp "$work"/prefix/include/kel/host/*.hpp; do
  echo "#include <${header#"$work"/prefix/include/}>" |
    "$compiler" -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only \
      -I"$work/prefix/include" -x c++ -
done
mkdir "$work/source"
cat >"$work/source/main.cpp" <<'CPP'
#include <kel/host.hpp>

int main() {
  using namespace kel::host;
  const Session session;
  Image image = MakeImage(200, 100, 3, 8);
  image.planes[0].Set(199, 99, 'x');
  EncodeParams params;
  params.lossless = true;
  params.tileWidth = params.tileHeight = 64;
  MemorySink sink;
  Encode(image, params, sink);
  MemorySource source(sink.bytes);
  if (!Compare(image, Decode(source)).identical) return 1;
  FileSink file("outside.ppm");
  WritePnm(image, file);
  file.Finish();
  try {
    MemorySource cut(ByteView(sink.bytes).first(30));
    Decode(cut);
    return 2;
  } catch (const Error& error) {
    return error.Kind() == Failure::kInput && error.Code() != 0 ? 0 : 3;
  }
}
CPP
cat >"$work/source/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.22)
project(Outside CXX)
find_package(Kel 1.0 REQUIRED)
add_executable(outside main.cpp)
target_link_libraries(outside PRIVATE Kel::host)
CMAKE
"$cmake" -S "$work/source" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
"$cmake" --build "$work/build" >/dev/null
cd "$work"
build/outside

kel=prefix/bin/kel
if readelf -d "$kel" | grep -E 'R(UN)?PATH' | grep -qF "$build"; then
  echo "the installed command looks for its library in the build folder" >&2
  exit 1
fi
env -u LD_LIBRARY_PATH "$kel" encode --lossless outside.ppm outside.kel
env -u LD_LIBRARY_PATH "$kel" decode outside.kel back.ppm
cmp outside.ppm back.ppm
[ -s prefix/share/man/man1/kel.1 ]
bash -n prefix/share/bash-completion/completions/kel
